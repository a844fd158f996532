// What benchmarks/run times: the helper's own types and the records, each beside the least that
// could do the same. Usage: Benchmark GROUP [ARGUMENT]...
//
// Carries out what standard input asks for until that ends: a line "NAME TIMES" is answered with
// "START END DONE", the instants before and after, in nanoseconds of CLOCK_MONOTONIC, and how much
// was done: bytes, replies, items; zero when it did nothing. An error ends the program.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::benchmark {
namespace {

using Arguments = std::vector<std::string>;
// What can be asked for, by name. Each does it once and returns how much was done; it throws
// std::exception when that is not possible.
using Works = std::map<std::string, std::function<std::size_t()>>;

auto now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void serve(const Works& works) {
    std::string name;
    for (std::size_t times = 0; std::cin >> name >> times;) {
        const auto& work = works.at(name);
        std::size_t done = 0;
        const auto start = now();
        for (std::size_t i = 0; i < times; ++i) {
            done += work();
        }
        std::cout << start.count() << ' ' << now().count() << ' ' << done << std::endl;
    }
}

// Throws the present errno when `ok` is false.
void require(bool ok, const std::string& what) {
    if (!ok) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// -------------------------------------------------------------------------------------- the search

// The least that looks at every process: one pass, one buffer, no comparison. Returns how many
// links /proc/PID/exe it read.
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

// UID BUNDLE: for the app BUNDLE, which UID does not run.
void serveSearch(const Arguments& arguments) {
    const auto user = static_cast<uid_t>(std::stoul(arguments.at(0)));
    const std::string& bundle = arguments.at(1);
    const std::string executable = bundle + "/Contents/MacOS/Halvo";
    // Without it there would be nothing to look for.
    require(access(executable.c_str(), X_OK) == 0, executable);
    const auto probe = makeLiveSessionProbe();
    const std::string command = "exec pgrep -u " + arguments.at(0) + " -f " + executable;
    constexpr int nothingFound = 1;
    serve({{"search", [&] { return probe->isAppRunning(bundle, user) ? 0 : 1; }},
           {"searchBarely", bareLoop},
           {"pgrep", [&] { return WEXITSTATUS(std::system(command.c_str())) == nothingFound; }}});
}

// ------------------------------------------------------------------------- saving, begin and end

const HelperCommitment typicalCommitment{
    "/Applications/Halvo.app",
    61000,
    wallDate(1767260000.25),
    Seconds{3481.73245},
    Seconds{86281.73245},
    {"1b4e28ba-2fa1-11d2-883f-0016d3cca427", Seconds{10291.618273645}, wallDate(1767260118.5)},
    true};

// An empty folder with an app, also where a run that was killed has left that locked.
std::string newFolder(const std::string& path, const std::string& bundle) {
    ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(false, path + bundle);
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path + bundle);
    return path;
}

int openFolder(const std::string& folder) {
    const int item = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(item >= 0, folder);
    return item;
}

void syncAndClose(int item, const std::string& path) {
    require(fsync(item) == 0 && close(item) == 0, path);
}

// The least that replaces a file in `folder` so that neither a reader nor a loss of power meets
// half of it.
std::size_t bareWrite(const std::string& folder, const std::string& bytes) {
    const std::string file = folder + "/file";
    const std::string temporary = folder + "/.file.new";
    const int item = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const ssize_t written = write(item, bytes.data(), bytes.size());
    require(written == std::ssize(bytes), temporary);
    syncAndClose(item, temporary);
    require(rename(temporary.c_str(), file.c_str()) == 0, temporary);
    syncAndClose(openFolder(folder), folder);
    return bytes.size();
}

// The least that sets or clears the immutable flag durably.
void bareLock(const std::string& folder, bool locked) {
    const int item = openFolder(folder);
    int flags = 0;
    require(ioctl(item, FS_IOC_GETFLAGS, &flags) == 0, folder);
    flags = locked ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    require(ioctl(item, FS_IOC_SETFLAGS, &flags) == 0, folder);
    syncAndClose(item, folder);
}

// DISK MEMORY: two folders, made when missing.
void serveSave(const Arguments& arguments) {
    const std::string bundle = "/Applications/Halvo.app";
    const std::string ours = newFolder(arguments.at(0) + "/ours", bundle);
    const std::string theirs = newFolder(arguments.at(0) + "/theirs", bundle);
    const std::string memory = newFolder(arguments.at(1), "");
    const std::string state = theirs + "/state";
    FileCommitmentStore onDisk(ours);
    FileCommitmentStore inMemory(memory);
    inMemory.save(typicalCommitment);
    const std::string bytes = testing::readTestFile(memory + "/commitment.json");

    // A commitment begun and ended by the engine, and by the same system calls without it.
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
    serve({{"saveOnDisk", [&] { return onDisk.save(typicalCommitment); }},
           {"saveOnDiskBarely", [&] { return bareWrite(theirs, bytes); }},
           {"saveInMemory", [&] { return inMemory.save(typicalCommitment); }},
           {"saveInMemoryBarely", [&] { return bareWrite(memory, bytes); }},
           {"begin", begin},
           {"beginBarely", bareBegin},
           {"end", [&] { return engine.end({0, {}}); }},
           {"endBarely", bareEnd}});
}

// -------------------------------------------------------------------------------------------- tick

// Carries out `work` between marks that a trace of the system calls shows: access(2) to
// "/mark/NAME" and "/mark/end/ALLOCATIONS", which do not exist.
void mark(const std::string& name, const std::function<void()>& work) {
    access(("/mark/" + name).c_str(), F_OK);
    const std::size_t before = testing::mallocsMade();
    work();
    const std::size_t allocations = testing::mallocsMade() - before;
    access(("/mark/end/" + std::to_string(allocations)).c_str(), F_OK);
}

// BUNDLE UID: marks ticks of the engine on the live system, and beside them the least that asks the
// kernel the same. Reads no input. Fails unless the engine holds the app BUNDLE, locked and run by
// UID.
void markTicks(const Arguments& arguments) {
    const std::string& bundle = arguments.at(0);
    const HelperPeer app{static_cast<std::uint32_t>(std::stoul(arguments.at(1))), bundle};
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store("/tmp/tick");
    const auto session = makeLiveSessionProbe();
    // Of it only the opener, which opens nothing.
    testing::SimulatedWorld world;
    HelperEngine engine(clock, flags, store, *session, world.opener);
    engine.startup();
    const WallDate started = wallNow();
    const bool holds = engine.begin(bundle, started + Seconds{3600}, started, app);
    const auto tick = [&] { engine.tick(); };
    tick();
    engine.heartbeat(false, app);
    mark("quiet", tick);
    mark("quiet", tick);
    // After the silence the app is looked for; the first time, the path of its executable, too.
    for (const char* search : {"first-search", "search"}) {
        testing::sleepFor(HelperEngine::Timing::silence + Seconds{0.2});
        mark(search, tick);
    }
    const auto bareLook = [&] {
        struct statx status{};
        statx(AT_FDCWD, bundle.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status);
    };
    mark("bare-quiet", bareLook);
    mark("bare-search", [&] {
        bareLook();
        bareLoop();
    });
    const bool locked = flags.state(bundle) == LockState::locked;
    engine.end(app);
    if (!holds || !locked || !world.opener.openings.empty()) {
        throw std::runtime_error(bundle + " is not held, locked or running");
    }
}

// ----------------------------------------------------------------------------------------- records

using testing::day;
using testing::hour;
using testing::nineOClock;

// How a week of `days` is found with the C library: mktime(3) for its begin and end, and one walk
// of the list. Aligned, because the time of so short a loop depends on its address: by a third,
// with every change of the code before it.
[[gnu::noinline, gnu::aligned(64)]] std::size_t walk(const std::vector<WidgetSnapshot::Day>& days) {
    const auto now = static_cast<std::time_t>(secondsSince1970(nineOClock));
    std::tm today{};
    localtime_r(&now, &today);
    today.tm_hour = today.tm_min = today.tm_sec = 0;
    today.tm_isdst = -1;
    std::array<double, 8> starts{};
    for (std::size_t i = 0; i < starts.size(); ++i) {
        std::tm parts = today;
        parts.tm_mday += static_cast<int>(i) - 6;
        starts[i] = static_cast<double>(std::mktime(&parts));
    }
    std::size_t found = 0;
    for (auto each = days.rbegin(); each != days.rend(); ++each) {
        found += each->start >= wallDate(starts.front()) && each->start < wallDate(starts.back());
    }
    return found;
}

// The peers are "library", "plain..." and "walk".
void serveRecords(const Arguments&) {
    constexpr std::size_t limit = 60;
    const GregorianCalendar calendar = GregorianCalendar::named("Europe/Berlin").value();
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    Works works;

    // Of 100 KB, most of it runs with their texts and dates.
    const std::string json = JSON::encode(testing::longSnapshot(310)).value();
    require(json.size() > 95'000 && json.size() < 105'000, "the size of the snapshot");
    works["coding"] = [&] {
        return JSON::encode(JSON::decode<WidgetSnapshot>(json).value()).value().size();
    };
    works["library"] = [&] { return nlohmann::json::parse(json).dump().size(); };

    // A block runs for eight hours, and one is planned for each of 400 days; what differs is the
    // horizon.
    WidgetSnapshot planned = testing::sampleSnapshot();
    planned.phases.clear();
    for (int i = 0; i < 400; ++i) {
        const WallDate start = nineOClock + day * i;
        planned.phases.push_back(
            {start, WidgetSnapshot::Block{testing::sampleRun(start + hour * 8)}});
    }
    for (const auto& [name, horizon] : {std::pair<std::string, WallDate>{"Day", nineOClock + day},
                                        {"Year", nineOClock + day * 365},
                                        {"Millennia", wallDate(64060588800)}}) {  // 4000-01-01
        planned.horizon = horizon;
        works["timeline" + name] = [&, planned] {
            return planned.timelineDates(nineOClock, calendar, hour, limit).size();
        };
        works["plain" + name] = [&, planned] {
            return testing::plainDates(planned, nineOClock, calendar, hour, limit).size();
        };
    }

    // Ten years of days.
    WidgetSnapshot past;
    for (int i = 3650; i > 0; --i) {
        past.days.push_back({calendar.startOfDay(nineOClock - day * i), i, i, i});
    }
    // The list ends before the week of that date, so all of it must be searched.
    works["moment"] = [&] { return past.moment(nineOClock + day * 30, calendar).week.size(); };
    works["momentYesterday"] = [&] { return past.moment(nineOClock - day, calendar).week.size(); };
    works["walk"] = [&] { return walk(past.days); };
    serve(works);
}

// ---------------------------------------------------------------------------------------- requests

// Asks in a tight loop until there is a reply: the server that is measured must not be charged for
// a sleep of the client.
std::size_t awaitReply(HelperClient client) {
    const auto end = now() + std::chrono::seconds{20};
    while (now() < end) {
        if (client.status()) {
            return 1;
        }
        sched_yield();
    }
    return 0;
}

// PEER-SOCKET: requests of the app that this program is, to its helper and to the bare server.
void serveClient(const Arguments& arguments) {
    const OwnBundle bundle = ownBundle().value();
    const std::string& peer = arguments.at(0);
    HelperClient ours(bundle.identity);
    HelperClient theirs(peer);
    const auto anHour = [](const HelperStatus&) {
        const WallDate started = wallNow();
        return CommitmentSpan{started + Seconds{3600}, started};
    };
    serve({{"status", [&] { return ours.status().has_value(); }},
           {"statusBarely", [&] { return theirs.status().has_value(); }},
           {"reply", [&] { return awaitReply(HelperClient(bundle.identity)); }},
           {"replyBarely", [&] { return awaitReply(HelperClient(peer)); }},
           {"begin", [&] { return ours.begin(bundle.path, anHour) == true; }},
           {"end", [&] { return ours.end() == true; }}});
}

}  // namespace
}  // namespace halvo::benchmark

int main(int argc, char** argv) {
    using namespace halvo::benchmark;
    halvo::PrivateGroup::setAside();
    const std::map<std::string, void (*)(const Arguments&)> groups{{"search", serveSearch},
                                                                   {"save", serveSave},
                                                                   {"tick", markTicks},
                                                                   {"records", serveRecords},
                                                                   {"client", serveClient}};
    const Arguments arguments(argv, argv + argc);
    try {
        groups.at(arguments.at(1))({arguments.begin() + 2, arguments.end()});
    } catch (const std::exception& error) {
        std::cerr << "Benchmark: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
