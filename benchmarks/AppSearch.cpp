#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <ranges>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "benchmarks/Child.hpp"

namespace halvo::benchmark {
namespace {

bool isProcess(const char* name) { return name[0] >= '0' && name[0] <= '9'; }

// The private machine has its own /proc, so nobody else's processes come and go in it.
std::size_t processesRunning() {
    return static_cast<std::size_t>(std::ranges::count_if(
        std::filesystem::directory_iterator("/proc"),
        [](const auto& entry) { return isProcess(entry.path().filename().c_str()); }));
}

// Programs that only sleep, as many as make up `count` processes with those that run already.
class Sleepers {
  public:
    explicit Sleepers(std::size_t count) {
        std::string program = "/usr/bin/sleep";
        std::string span = "infinity";
        const std::array<char*, 3> words{program.data(), span.data(), nullptr};
        for (std::size_t running = processesRunning(); running < count; ++running) {
            pid_t sleeper = 0;
            errno = posix_spawn(&sleeper, program.c_str(), nullptr, nullptr, words.data(), nullptr);
            require(errno == 0, program);
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
            const std::size_t size = std::strlen(entry->d_name);
            std::memcpy(name.data(), entry->d_name, size);
            std::memcpy(name.data() + size, "/exe", sizeof "/exe");
            linksRead =
                linksRead + (readlinkat(proc, name.data(), link.data(), link.size()) > 0 ? 1 : 0);
        }
    }
    close(proc);
}

void measureAmong(std::size_t processes, Table& table, const InstalledApp& app, Effort effort) {
    const std::string among = std::to_string(processes) + " processes";
    progress("looking for an app among " + among);
    const Sleepers sleepers(processes);
    if (processesRunning() != processes) {
        throw CannotMeasure("the number of processes does not stay at " + among);
    }
    LiveSessionProbe probe;
    const auto search = [&] {
        if (probe.isAppRunning(app.bundle(), app.person())) {
            throw CannotMeasure("an app was found that does not run");
        }
    };
    // Short, so that the scheduler seldom comes in between.
    const std::size_t times = processes < 1000 ? 4 : 1;
    const auto ours = [&] { return microsecondsOf(times, search); };
    const std::string what = "isAppRunning that finds none, " + among;
    constexpr double limit = 1.2;
    table.add(Row::compared(
        what, "us", "bare loop of getdents64 and readlinkat",
        takeTurns(effort.rounds(400), ours, [&] { return microsecondsOf(times, bareLoop); }),
        {limit, {}}));
    const std::vector<std::string> pgrep{"/usr/bin/pgrep", "-u", std::to_string(app.person()), "-f",
                                         app.executable()};
    const auto theirs = [&] {
        return microsecondsOf(1, [&] {
            constexpr int nothingFound = 1;
            if (Child({pgrep, {}, {}}).wait() != nothingFound) {
                throw CannotMeasure("pgrep does not run as expected");
            }
        });
    };
    table.add(Row::compared(what, "us", "pgrep -u -f as a process",
                            takeTurns(effort.rounds(40), ours, theirs), {}));
    if (processesRunning() != processes) {
        throw CannotMeasure("the number of processes did not stay at " + among);
    }
}

}  // namespace

void measureAppSearch(Table& table, const InstalledApp& app, Effort effort) {
    for (const std::size_t processes : {std::size_t{100}, std::size_t{1000}}) {
        measureAmong(processes, table, app, effort);
    }
}

}  // namespace halvo::benchmark
