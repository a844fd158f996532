#include "tools/Halvoctl/Machine.hpp"

#include <pwd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>
#include <thread>

#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::control {

bool Waiter::wait(const std::function<bool()>& isDone, Seconds limit, const std::string& line) {
    const Seconds start = now();
    for (bool isSaid = line.empty(); !isDone(); pause(Seconds{0.01})) {
        const Seconds passed = now() - start;
        if (passed >= limit) {
            return false;
        }
        if (!isSaid && passed >= Seconds{1}) {
            isSaid = true;
            say(line);
        }
    }
    return true;
}

Seconds Waiter::now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void Waiter::pause(Seconds span) { std::this_thread::sleep_for(span); }

void Waiter::say(const std::string& line) { std::cerr << line + "\n" << std::flush; }

std::expected<void, std::string> endAll(HelperProcesses& processes, Waiter& waiter) {
    std::vector<pid_t> left;
    std::set<pid_t> signalled;
    const auto haveEnded = [&] {
        left = processes.running();
        for (const pid_t process : left) {
            if (signalled.insert(process).second) {
                processes.terminate(process);
            }
        }
        return left.empty();
    };
    if (!waiter.wait(haveEnded, Seconds{10},
                     "Waiting for the helper to end, at most 10 seconds.")) {
        return std::unexpected("The helper (" + pidText(left) +
                               ") does not end. Kill it (kill -KILL), then run halvoctl release "
                               "again, which clears the lock that it leaves.");
    }
    return {};
}

Check firstOf(const std::string& name, const std::vector<Case>& cases, const std::string& finding) {
    const auto found = std::ranges::find(cases, true, &Case::condition);
    return found == cases.end() ? isOk(name, finding)
                                : Check{name, found->verdict, found->finding, found->advice};
}

std::filesystem::file_status statusOf(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::symlink_status(path, ignored);
}

std::vector<std::string> Service::otherApplications() {
    std::vector<std::string> folders;
    setpwent();
    while (const passwd* entry = getpwent()) {
        if (entry->pw_dir != nullptr) {
            folders.push_back(entry->pw_dir + std::string("/Applications"));
        }
    }
    endpwent();
    return folders;
}

std::string pidText(const std::vector<pid_t>& processes) {
    std::string text = processes.size() == 1 ? "pid " : "pids ";
    for (std::size_t i = 0; i < processes.size(); ++i) {
        if (i > 0) {
            text += i + 1 == processes.size() ? " and " : ", ";
        }
        text += std::to_string(processes[i]);
    }
    return text;
}

std::string userText(const Machine& machine, std::uint32_t uid) {
    const auto name = machine.userName(uid);
    const std::string number = "uid " + std::to_string(uid);
    return name ? records::printable(*name) + " (" + number + ")" : number;
}

std::string shellWord(const std::string& text) {
    constexpr const char* plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,%";
    std::string word = records::printable(text);
    const bool isPlain = !word.empty() && word.find_first_not_of(plain) == std::string::npos;
    for (std::size_t at = 0; (at = word.find('\'', at)) != std::string::npos; at += 4) {
        word.replace(at, 1, R"('\'')");
    }
    return isPlain ? word : "'" + word + "'";
}

}  // namespace halvo::control
