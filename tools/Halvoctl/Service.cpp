#include "tools/Halvoctl/Service.hpp"

#include <chrono>
#include <cstddef>
#include <set>
#include <thread>

namespace halvo::control {

Seconds HelperProcesses::now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void HelperProcesses::pause(Seconds span) { std::this_thread::sleep_for(span); }

std::vector<pid_t> stopAll(HelperProcesses& processes, const Patience& patience) {
    constexpr Seconds pace{0.01};
    const Seconds start = processes.now();
    bool said = false;
    std::set<pid_t> asked;
    while (true) {
        const std::vector<pid_t> running = processes.running();
        const Seconds passed = processes.now() - start;
        if (running.empty() || passed >= patience.limit) {
            return running;
        }
        for (const pid_t process : running) {
            if (asked.insert(process).second) {
                processes.terminate(process);
            }
        }
        if (!said && passed >= Seconds{1}) {
            said = true;
            if (patience.slow) {
                patience.slow();
            }
        }
        processes.pause(pace);
    }
}

std::expected<void, std::string> endAll(HelperProcesses& processes, const Progress& progress) {
    const auto left =
        stopAll(processes, {Seconds{10}, [&progress] {
                                progress("Waiting for the helper to end, at most 10 seconds.");
                            }});
    if (!left.empty()) {
        return std::unexpected("The helper (" + named(left) +
                               ") does not end. Kill it (kill -KILL), then run halvoctl release "
                               "again, which takes off the lock that it leaves.");
    }
    return {};
}

std::vector<pid_t> stoppedOf(HelperProcesses& processes) {
    std::vector<pid_t> found = processes.running();
    std::erase_if(found, [&](pid_t process) { return !processes.isStopped(process); });
    return found;
}

std::string named(const std::vector<pid_t>& processes) {
    std::string text = processes.size() == 1 ? "pid " : "pids ";
    for (std::size_t i = 0; i < processes.size(); ++i) {
        if (i > 0) {
            text += i + 1 == processes.size() ? " and " : ", ";
        }
        text += std::to_string(processes[i]);
    }
    return text;
}

}  // namespace halvo::control
