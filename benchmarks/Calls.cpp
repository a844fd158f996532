// Calls of the helper's own types, beside the least that could do the same.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::benchmark {
namespace {

// The least that looks at every process: one pass, one buffer, and no comparison. Returns how many
// links it read.
std::size_t bareLoop() {
    alignas(dirent64) std::array<char, 32768> entries;
    std::array<char, PATH_MAX> link;
    std::array<char, NAME_MAX + 8> name;
    std::size_t linksRead = 0;
    const int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ssize_t length = 0;
    while ((length = getdents64(proc, entries.data(), entries.size())) > 0) {
        for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
            const auto* entry = reinterpret_cast<const dirent64*>(entries.data() + at);
            at += entry->d_reclen;
            if (std::isdigit(entry->d_name[0]) != 0) {
                std::strcpy(stpcpy(name.data(), entry->d_name), "/exe");
                linksRead += readlinkat(proc, name.data(), link.data(), link.size()) > 0 ? 1 : 0;
            }
        }
    }
    close(proc);
    return linksRead;
}

const HelperCommitment typicalCommitment{
    "/Applications/Halvo.app",
    61000,
    wallDate(1767260000.25),
    Seconds{3481.73245},
    Seconds{86281.73245},
    {"1b4e28ba-2fa1-11d2-883f-0016d3cca427", Seconds{10291.618273645}, wallDate(1767260118.5)},
    true};

Work saveIn(const std::string& folder) {
    return [store = std::make_shared<FileCommitmentStore>(folder)] {
        return store->save(typicalCommitment) ? 1 : 0;
    };
}

// An empty folder with an app, also where a run that was killed has left that locked.
std::string newFolder(const std::string& path, const std::string& bundle) {
    ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(false, path + bundle);
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path + bundle);
    return path;
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
std::size_t bareWrite(const std::string& folder, const std::string& bytes) {
    const std::string file = folder + "/file";
    const std::string temporary = folder + "/.file.new";
    const int item = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const ssize_t written = write(item, bytes.data(), bytes.size());
    require(written == std::ssize(bytes), temporary);
    syncAndClose(item, temporary);
    require(rename(temporary.c_str(), file.c_str()) == 0, temporary);
    syncAndClose(openFolder(folder), folder);
    return static_cast<std::size_t>(written);
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

}  // namespace

void serveSearch(const std::vector<std::string>& words) {
    const auto user = static_cast<uid_t>(std::stoul(words.at(0)));
    const std::string& bundle = words.at(1);
    const std::string executable = bundle + "/Contents/MacOS/Halvo";
    // Without it there would be nothing to look for.
    require(access(executable.c_str(), X_OK) == 0, executable);
    const auto probe = makeLiveSessionProbe();
    const std::string command = "exec pgrep -u " + words.at(0) + " -f " + executable;
    constexpr int nothingFound = 1;
    serve({{"search", [&] { return probe->isAppRunning(bundle, user) ? 0 : 1; }},
           {"searchBarely", bareLoop},
           {"pgrep", [&] { return WEXITSTATUS(std::system(command.c_str())) == nothingFound; }}});
}

void serveSave(const std::vector<std::string>& words) {
    const std::string bundle = "/Applications/Halvo.app";
    const std::string ours = newFolder(words.at(0) + "/ours", bundle);
    const std::string theirs = newFolder(words.at(0) + "/theirs", bundle);
    const std::string memory = newFolder(words.at(1), "");
    const std::string state = theirs + "/state";
    saveIn(memory)();
    const std::string bytes = testing::readTestFile(memory + "/commitment.json");

    // A commitment begun and ended by the engine, and by the same calls without it.
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store(ours + "/state");
    RecordedLocks locks(store, flags);
    // Its session is empty and its opener opens nothing.
    testing::SimulatedWorld world;
    world.calls.stopRecording();
    HelperEngine engine(clock, locks, locks, world.session, world.opener);
    const auto begin = [&, app = ours + bundle] {
        const WallDate now = wallNow();
        return engine.begin(app, now + Seconds{3600}, now, {0, app}) && engine.commitment()->locked;
    };
    const auto bareBegin = [&] {
        require(mkdir(state.c_str(), S_IRWXU) == 0, state);
        syncAndClose(openFolder(theirs), theirs);
        bareWrite(state, bytes);
        bareLock(theirs + bundle, true);
        return bareWrite(state, bytes);
    };
    const auto bareEnd = [&] {
        bareLock(theirs + bundle, false);
        require(unlink((state + "/file").c_str()) == 0, state);
        syncAndClose(openFolder(state), state);
        require(rmdir(state.c_str()) == 0, state);
        syncAndClose(openFolder(theirs), theirs);
        return 1;
    };
    serve({{"saveOnDisk", saveIn(ours)},
           {"saveOnDiskBarely", [&] { return bareWrite(theirs, bytes); }},
           {"saveInMemory", saveIn(memory)},
           {"saveInMemoryBarely", [&] { return bareWrite(memory, bytes); }},
           {"begin", begin},
           {"beginBarely", bareBegin},
           {"end", [&] { return engine.end({0, {}}); }},
           {"endBarely", bareEnd}});
}

}  // namespace halvo::benchmark
