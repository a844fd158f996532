#include "tools/Halvoctl/Service.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <set>
#include <thread>

namespace halvo::control {

std::vector<pid_t> stopAll(HelperProcesses& processes, const Patience& patience) {
    constexpr std::chrono::milliseconds pace{10};
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    bool said = false;
    std::set<pid_t> asked;
    while (true) {
        const std::vector<pid_t> running = processes.running();
        const Seconds passed = Clock::now() - start;
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
        std::this_thread::sleep_for(pace);
    }
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
