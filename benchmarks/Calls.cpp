// Calls of the helper's own types, beside the least that could do the same.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
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
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"

namespace halvo::benchmark {
namespace {

namespace fs = std::filesystem;

// -------------------------------------------------------------------------- looking for the app

bool isProcess(const char* name) { return std::isdigit(name[0]) != 0; }

// The private machine has its own /proc, in which no other processes come and go.
std::size_t processesRunning() {
    return static_cast<std::size_t>(std::ranges::count_if(
        fs::directory_iterator("/proc"),
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

void searchAmong(std::size_t processes, Run& run) {
    const std::string among = std::to_string(processes) + " processes";
    progress("looking for an app among " + among);
    const Sleepers sleepers(processes);
    const auto checkNumber = [&] {
        if (processesRunning() != processes) {
            throw CannotMeasure("the number of processes does not stay at " + among);
        }
    };
    checkNumber();
    // All these processes run this program, so another app is looked for.
    const testing::TestBundle app("/Applications/Other.app", "Halvo");
    app.writeInfo();
    const auto probe = makeLiveSessionProbe();
    // Short, so that the scheduler seldom comes in between.
    const std::size_t times = processes < 1000 ? 4 : 1;
    const auto ours = [&] {
        return microsecondsOf(times, [&] {
            if (probe->isAppRunning(app.path(), run.person)) {
                throw CannotMeasure("an app was found that does not run");
            }
        });
    };
    const auto loop = [&] { return microsecondsOf(times, bareLoop); };
    const std::string command =
        "exec pgrep -u " + std::to_string(run.person) + " -f " + app.executable();
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
    run.compare(what, "bare loop of getdents64 and readlinkat", 400, ours, loop, limit);
    run.compare(what, "pgrep -u -f as a process", 40, ours, pgrep);
    checkNumber();
}

// --------------------------------------------------------------------------------------- saving

const HelperCommitment typicalCommitment{
    "/Applications/Halvo.app",
    61000,
    wallDate(1767260000.25),
    Seconds{3481.73245},
    Seconds{86281.73245},
    {"1b4e28ba-2fa1-11d2-883f-0016d3cca427", Seconds{10291.618273645}, wallDate(1767260118.5)},
    true};

// An empty folder, also where a run that was killed has left a locked bundle.
std::string newFolder(const std::string& path, const std::string& bundle = "") {
    ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(false, path + bundle);
    fs::remove_all(path);
    fs::create_directories(path + bundle);
    return path;
}

// What the store writes for a commitment.
std::string recordBytes(const std::string& folder) {
    FileCommitmentStore(folder + "/record").save(typicalCommitment);
    const std::string bytes = testing::readTestFile(folder + "/record/commitment.json");
    return !bytes.empty() ? bytes : throw CannotMeasure("nothing can be saved in " + folder);
}

int openFolder(const std::string& folder) {
    const int place = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(place >= 0, folder);
    return place;
}

void syncAndClose(int item, const std::string& folder) {
    require(fsync(item) == 0 && close(item) == 0, folder);
}

// The least that puts a file in `folder` in the place of another so that neither a reader nor a
// power failure meets half of it.
void bareWrite(const std::string& folder, const std::string& bytes) {
    const std::string file = folder + "/file";
    const std::string temporary = folder + "/.file.new";
    const int written = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(write(written, bytes.data(), bytes.size()) == std::ssize(bytes), temporary);
    syncAndClose(written, temporary);
    require(rename(temporary.c_str(), file.c_str()) == 0, temporary);
    syncAndClose(openFolder(folder), folder);
}

// The least that locks or unlocks a folder for good.
void bareLock(const std::string& folder, bool locked) {
    const int item = openFolder(folder);
    int flags = 0;
    require(ioctl(item, FS_IOC_GETFLAGS, &flags) == 0, folder);
    flags = locked ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    require(ioctl(item, FS_IOC_SETFLAGS, &flags) == 0, folder);
    syncAndClose(item, folder);
}

void compareSaves(Run& run, const std::string& what, const std::string& folder,
                  std::optional<double> limit) {
    const std::string theirsIn = newFolder(folder + "/theirs");
    const std::string bytes = recordBytes(folder);
    FileCommitmentStore store(folder + "/ours");
    run.compare(
        what, "bare write, fsync, rename, fsync", 8000,
        [&] { return microsecondsOf(1, [&] { store.save(typicalCommitment); }); },
        [&] { return microsecondsOf(1, [&] { bareWrite(theirsIn, bytes); }); }, limit);
    fs::remove_all(folder);
}

// A commitment begun and ended by the engine on the real disk, and by the same calls without it.
void compareBeginnings(Run& run, const std::string& folder) {
    const std::string bundle = "/Applications/Halvo.app";
    const std::string app = newFolder(folder + "/ours", bundle) + bundle;
    const std::string theirs = newFolder(folder + "/theirs", bundle);
    const std::string state = theirs + "/state";
    const std::string bytes = recordBytes(folder);
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store(folder + "/ours/state");
    RecordedLocks locks(store, flags);
    // Whose session is empty and whose opener opens nothing.
    testing::SimulatedWorld world;
    world.calls.stopRecording();
    HelperEngine engine(clock, locks, locks, world.session, world.opener);
    const auto begin = [&] {
        const WallDate now = wallNow();
        require(
            engine.begin(app, now + Seconds{3600}, now, {0, app}) && engine.commitment()->locked,
            app);
    };
    const auto end = [&] { require(engine.end({0, {}}), app); };
    const auto bareBegin = [&] {
        require(mkdir(state.c_str(), S_IRWXU) == 0, state);
        syncAndClose(openFolder(theirs), theirs);
        bareWrite(state, bytes);
        bareLock(theirs + bundle, true);
        bareWrite(state, bytes);
    };
    const auto bareEnd = [&] {
        bareLock(theirs + bundle, false);
        require(unlink((state + "/file").c_str()) == 0, state);
        syncAndClose(openFolder(state), state);
        require(rmdir(state.c_str()) == 0, state);
        syncAndClose(openFolder(theirs), theirs);
    };
    // The half that is not asked for is made, but not timed.
    const auto timed = [](bool isBegin, const auto& first, const auto& second) {
        const double begun = microsecondsOf(1, first);
        const double ended = microsecondsOf(1, second);
        return isBegin ? begun : ended;
    };
    // Besides the calls: the clock, the flags and the folder looked at, and a line in the log.
    constexpr double limit = 1.25;
    for (const bool isBegin : {true, false}) {
        run.compare(
            isBegin ? "begin on a disk" : "end on a disk",
            isBegin ? "the same writes, renames, flags and fsyncs"
                    : "the same removals, flags and fsyncs",
            4000, [&] { return timed(isBegin, begin, end); },
            [&] { return timed(isBegin, bareBegin, bareEnd); }, limit);
    }
    fs::remove_all(folder);
}

bool isOnDisk(const std::string& folder) {
    struct statfs status{};
    require(statfs(folder.c_str(), &status) == 0, folder);
    return status.f_type != TMPFS_MAGIC && status.f_type != RAMFS_MAGIC;
}

}  // namespace

void measureAppSearch(Run& run) {
    searchAmong(100, run);
    searchAmong(1000, run);
}

void measureSave(Run& run) {
    if (!isOnDisk(run.build)) {
        throw CannotMeasure(run.build + " is in memory; --build names a folder on a disk");
    }
    progress("saving");
    constexpr double limit = 1.1;
    compareSaves(run, "save on a disk", run.program("saves"), limit);
    compareSaves(run, "save in memory (tmpfs)", "/tmp/saves", {});
    progress("beginning and ending");
    compareBeginnings(run, run.program("beginnings"));
}

}  // namespace halvo::benchmark
