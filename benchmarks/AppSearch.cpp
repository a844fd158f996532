#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

bool isProcess(const char* name) { return std::isdigit(name[0]) != 0; }

// The private machine has its own /proc, in which no other processes come and go.
std::size_t processesRunning() {
    return static_cast<std::size_t>(std::ranges::count_if(
        std::filesystem::directory_iterator("/proc"),
        [](const auto& entry) { return isProcess(entry.path().filename().c_str()); }));
}

// Processes that only sleep, as many as make up `count` processes with those that run already.
class Sleepers {
  public:
    explicit Sleepers(std::size_t count) {
        for (std::size_t running = processesRunning(); running < count; ++running) {
            const pid_t sleeper = fork();
            require(sleeper >= 0, "fork");
            if (sleeper == 0) {
                pause();
                _exit(EXIT_SUCCESS);
            }
            sleepers_.push_back(sleeper);
        }
    }

    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;

    ~Sleepers() {
        for (const pid_t sleeper : sleepers_) {
            kill(sleeper, SIGKILL);
        }
        for (const pid_t sleeper : sleepers_) {
            waitpid(sleeper, nullptr, 0);
        }
    }

  private:
    std::vector<pid_t> sleepers_;
};

// Never inlined or left out: what it found is counted.
volatile std::size_t linksRead = 0;

// The least that looks at every process: one pass, one buffer, and no comparison.
void bareLoop() {
    alignas(dirent64) std::array<char, 32768> entries;
    std::array<char, PATH_MAX> link;
    std::array<char, NAME_MAX + 8> name;
    const int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ssize_t length = 0;
    while ((length = getdents64(proc, entries.data(), entries.size())) > 0) {
        for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
            const auto* entry = reinterpret_cast<const dirent64*>(entries.data() + at);
            at += entry->d_reclen;
            if (!isProcess(entry->d_name)) {
                continue;
            }
            std::strcpy(stpcpy(name.data(), entry->d_name), "/exe");
            const bool isRead = readlinkat(proc, name.data(), link.data(), link.size()) > 0;
            linksRead = linksRead + (isRead ? 1 : 0);
        }
    }
    close(proc);
}

void measureAmong(std::size_t processes, Table& table, const Machine& machine) {
    const std::string among = std::to_string(processes) + " processes";
    progress("looking for an app among " + among);
    const Sleepers sleepers(processes);
    const auto checkNumber = [&] {
        if (processesRunning() != processes) {
            throw CannotMeasure("the number of processes does not stay at " + among);
        }
    };
    checkNumber();
    LiveSessionProbe probe;
    // Short, so that the scheduler seldom comes in between.
    const std::size_t times = processes < 1000 ? 4 : 1;
    const auto ours = [&] {
        return microsecondsOf(times, [&] {
            if (probe.isAppRunning(machine.bundle, machine.person)) {
                throw CannotMeasure("an app was found that does not run");
            }
        });
    };
    const auto loop = [&] { return microsecondsOf(times, bareLoop); };
    const std::string command =
        "exec pgrep -u " + std::to_string(machine.person) + " -f " + machine.executable;
    const auto pgrep = [&] {
        return microsecondsOf(1, [&] {
            constexpr int nothingFound = 1;
            if (WEXITSTATUS(std::system(command.c_str())) != nothingFound) {
                throw CannotMeasure("pgrep does not run as expected");
            }
        });
    };
    constexpr double limit = 1.2;
    const std::string what = "isAppRunning that finds none, " + among;
    table.compare(what, "bare loop of getdents64 and readlinkat",
                  takeTurns(machine.rounds(400), ours, loop), limit);
    table.compare(what, "pgrep -u -f as a process", takeTurns(machine.rounds(40), ours, pgrep));
    checkNumber();
}

}  // namespace

void measureAppSearch(Table& table, const Machine& machine) {
    measureAmong(100, table, machine);
    measureAmong(1000, table, machine);
}

}  // namespace halvo::benchmark
