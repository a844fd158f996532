#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "HalvoPlatform/Descriptor.hpp"
#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "benchmarks/RunningHelper.hpp"

namespace halvo::benchmark {
namespace {

namespace fs = std::filesystem;
using std::chrono_literals::operator""ms;

// A command that becomes the program given to it as its last word; none: the program itself.
using Launcher = std::vector<std::string>;

constexpr const char* peer = "empty program, same libraries";

struct Memory {
    // KiB that only this process has, and has written to.
    double privateDirty{};
    // KiB that would be free if this process ended.
    double unique{};
};

Memory memoryOf(const Child& process) {
    std::ifstream file("/proc/" + std::to_string(process.pid()) + "/smaps_rollup");
    std::map<std::string, double> values;
    std::string header;
    std::getline(file, header);
    std::string name;
    std::string unit;
    double value = 0;
    while (file >> name >> value >> unit) {
        values[name] = value;
    }
    if (!values.contains("Private_Dirty:") || !values.contains("Private_Clean:")) {
        throw CannotMeasure("smaps_rollup cannot be read; proc(5)");
    }
    return {values["Private_Dirty:"], values["Private_Dirty:"] + values["Private_Clean:"]};
}

// A file that was written a moment ago is not on the disk yet, and would count as dirty.
void settle(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    require(syncfs(file.get()) == 0, path);
}

void copy(const std::string& from, const std::string& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

// What a process shares with others is not its own, so its USS depends on who else runs. Copies of
// the libraries settle that: they are used by nobody but the program that is weighed, on any
// machine. All but the C library, which every process has.
Launcher withLibrariesOfItsOwn(const std::string& program, const std::string& folder) {
    fs::create_directories(folder);
    const std::string end = "end";
    Child list({{"/bin/sh", "-c", "ldd '" + program + "' && echo " + end}, {}, {}});
    // Each line is "NAME => PATH (ADDRESS)", but for the kernel's own and the program interpreter.
    for (std::string line = list.hear(); line != end; line = list.hear()) {
        std::string name;
        std::string arrow;
        std::string path;
        std::istringstream(line) >> name >> arrow >> path;
        if (arrow == "=>" && !name.starts_with("libc.so")) {
            copy(path, folder + "/" + name);
        }
    }
    settle(folder);
    return {"/usr/bin/env", "LD_LIBRARY_PATH=" + folder};
}

// Where the loader puts a program's parts changes by a few pages each time, and so what the kernel
// maps around the pages that are used; this takes little time, so it is done often.
Memory emptyProgram(const std::string& path, Launcher launcher) {
    launcher.push_back(path);
    std::vector<double> privateDirty;
    std::vector<double> unique;
    for (int time = 0; time < 9; ++time) {
        Child program({launcher, {}, {}});
        program.hear();
        std::this_thread::sleep_for(50ms);
        const Memory memory = memoryOf(program);
        privateDirty.push_back(memory.privateDirty);
        unique.push_back(memory.unique);
    }
    return {quantile(privateDirty, 0.5), quantile(unique, 0.5)};
}

Memory idleHelper(const Places& places, const Launcher& launcher, const InstalledApp& app) {
    const RunningHelper helper(places, launcher);
    const auto client = app.start();
    client->tell("reply " + RunningHelper::socket());
    client->hear();
    // Long enough for a tick.
    std::this_thread::sleep_for(2500ms);
    return memoryOf(helper.process());
}

Memory holdingHelper(const Places& places, const Launcher& launcher, const InstalledApp& app) {
    const RunningHelper helper(places, launcher);
    const auto client = app.start();
    const std::string begin = "begin " + RunningHelper::socket() + " " + app.bundle() + " ";
    client->tell(begin + "3600");
    if (client->hear() != "held") {
        throw CannotMeasure("the helper does not hold the commitment");
    }
    // Long enough for the ticks to look for the app, which gives no further sign of life.
    std::this_thread::sleep_for(9000ms);
    const Memory memory = memoryOf(helper.process());
    // An end that is past already lets it go: the lock is off, and the next helper starts idle.
    client->tell(begin + "-1");
    client->hear();
    return memory;
}

struct Readings {
    Comparison dirty;
    Comparison unique;

    void add(const Memory& ours, const Memory& theirs) {
        dirty.add(ours.privateDirty, theirs.privateDirty);
        unique.add(ours.unique, theirs.unique);
    }
};

void addRows(Table& table, const std::string& state, const Readings& alone) {
    constexpr double dirtyLimit = 750'000.0 / 1024;
    constexpr double uniqueLimit = 1.15;
    table.add(Row::compared("private dirty memory, " + state, "KiB", peer, alone.dirty,
                            {{}, dirtyLimit}));
    table.add(Row::compared("USS, " + state + ", libraries used by nobody else", "KiB", peer,
                            alone.unique, {uniqueLimit, {}}));
}

}  // namespace

void measureMemory(Table& table, const Places& places, const InstalledApp& app, Effort effort) {
    const std::string empty = places.programs + "/EmptyProgram";
    const Launcher alone = withLibrariesOfItsOwn(places.helper, places.disk + "/libraries");
    // Another file, so that the program itself is not shared.
    const std::string sharing = places.disk + "/SharingProgram";
    copy(empty, sharing);
    settle(sharing);
    settle(places.helper);
    Child other({{sharing}, {}, {}});
    other.hear();
    Readings idle;
    Readings holding;
    Readings beside;
    const std::size_t rounds = effort.quick ? 2 : 5;
    for (std::size_t round = 1; round <= rounds; ++round) {
        progress("weighing the helper, 15 seconds, " + std::to_string(round) + " of " +
                 std::to_string(rounds));
        const Memory theirs = emptyProgram(empty, alone);
        idle.add(idleHelper(places, alone, app), theirs);
        holding.add(holdingHelper(places, alone, app), theirs);
        beside.add(idleHelper(places, {}, app), emptyProgram(empty, {}));
    }
    addRows(table, "idle", idle);
    addRows(table, "holding", holding);
    table.add(
        Row::compared("USS, idle, libraries used by others too", "KiB", peer, beside.unique, {}));
    table.note(
        "The empty program calls sd_bus_new and plist_from_memory once, as the helper does.");
    table.note(
        "USS depends on who else uses the libraries. It is judged where nobody does, when it is");
    table.note("largest. Where all of them are shared, what is left is mostly the program itself.");
}

}  // namespace halvo::benchmark
