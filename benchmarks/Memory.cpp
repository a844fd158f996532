#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "HalvoPlatform/Time.hpp"
#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

namespace fs = std::filesystem;

// A command that becomes the program given to it as its last word; none: the program itself.
using Launcher = std::vector<std::string>;

struct Memory {
    // KiB that only this process has, and has written to.
    double privateDirty{};
    // KiB that would be free if this process ended.
    double unique{};
};

Memory memoryOf(const Program& process) {
    std::ifstream file("/proc/" + std::to_string(process.pid()) + "/smaps_rollup");
    std::map<std::string, double> values;
    std::string name;
    std::string unit;
    double value = 0;
    std::getline(file, name);
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
// the libraries settle that: only the program that is weighed uses them, on any machine. All but
// the C library, which every process has.
Launcher withLibrariesOfItsOwn(const std::string& program, const std::string& folder) {
    fs::create_directories(folder);
    std::istringstream lines(Program({"/usr/bin/ldd", program}).hearAll());
    // Each line is "NAME => PATH (ADDRESS)", but for the kernel's own and the program interpreter.
    for (std::string line; std::getline(lines, line);) {
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

Launcher launched(Launcher launcher, const std::string& program) {
    launcher.push_back(program);
    return launcher;
}

// Where the loader puts a program's parts changes by a few pages each time, and so what the kernel
// maps around the pages that are used; this takes little time, so it is done often.
Memory emptyProgram(const std::string& path, const Launcher& launcher) {
    std::vector<double> privateDirty;
    std::vector<double> unique;
    for (int time = 0; time < 9; ++time) {
        Program program(launched(launcher, path));
        program.hear();
        std::this_thread::sleep_for(Seconds{0.05});
        const Memory memory = memoryOf(program);
        privateDirty.push_back(memory.privateDirty);
        unique.push_back(memory.unique);
    }
    return {quantile(privateDirty), quantile(unique)};
}

Memory idleHelper(const Machine& machine, const Launcher& launcher) {
    const Program helper(launched(launcher, machine.helper()));
    Program client({machine.executable}, {.person = machine.person});
    client.tell("reply " + machine.socket);
    client.hear();
    // Long enough for a tick.
    std::this_thread::sleep_for(Seconds{2.5});
    return memoryOf(helper);
}

Memory holdingHelper(const Machine& machine, const Launcher& launcher) {
    const Program helper(launched(launcher, machine.helper()));
    Program client({machine.executable}, {.person = machine.person});
    client.tell("reply " + machine.socket);
    client.hear();
    const std::string begin = "begin " + machine.socket + " " + machine.bundle + " ";
    client.tell(begin + "3600");
    if (client.hear() != "held") {
        throw CannotMeasure("the helper does not hold the commitment");
    }
    // Long enough for the ticks to look for the app, which gives no further sign of life.
    std::this_thread::sleep_for(Seconds{9});
    const Memory memory = memoryOf(helper);
    // An end that is past already lets it go: the lock is off, and the next helper starts idle.
    client.tell(begin + "-1");
    client.hear();
    return memory;
}

struct Readings {
    Rounds dirty;
    Rounds unique;

    void add(const Memory& ours, const Memory& theirs) {
        dirty.add(ours.privateDirty, theirs.privateDirty);
        unique.add(ours.unique, theirs.unique);
    }
};

}  // namespace

void measureMemory(Table& table, const Machine& machine) {
    const std::string empty = machine.program("EmptyProgram");
    const Launcher alone = withLibrariesOfItsOwn(machine.helper(), machine.program("libraries"));
    // Another file, so that the program itself is not shared.
    const std::string sharing = machine.program("SharingProgram");
    copy(empty, sharing);
    settle(sharing);
    Program other({sharing});
    other.hear();
    Readings idle;
    Readings holding;
    Readings beside;
    const std::size_t rounds = machine.quick ? 2 : 5;
    for (std::size_t round = 1; round <= rounds; ++round) {
        progress("weighing the helper, 15 seconds, " + std::to_string(round) + " of " +
                 std::to_string(rounds));
        const Memory theirs = emptyProgram(empty, alone);
        idle.add(idleHelper(machine, alone), theirs);
        holding.add(holdingHelper(machine, alone), theirs);
        beside.add(idleHelper(machine, {}), emptyProgram(empty, {}));
    }
    const auto addRow = [&](const std::string& what, Rounds readings, Target target = {}) {
        table.rows.push_back(
            {what, "KiB", "empty program, same libraries", std::move(readings), target});
    };
    constexpr double dirtyLimit = 750'000.0 / 1024;
    constexpr double uniqueLimit = 1.15;
    for (const auto& [state, readings] : {std::pair{"idle", idle}, {"holding", holding}}) {
        addRow(std::string("private dirty memory, ") + state, readings.dirty, {{}, dirtyLimit});
        addRow(std::string("USS, ") + state + ", libraries used by nobody else", readings.unique,
               {uniqueLimit, {}});
    }
    addRow("USS, idle, libraries used by others too", beside.unique);
    table.notes.insert(
        table.notes.end(),
        {"The empty program calls sd_bus_new and plist_from_memory once, as the helper does.",
         "USS depends on who else uses the libraries. It is judged where nobody does, when it is",
         "largest. Where all of them are shared, what is left is mostly the program itself."});
}

}  // namespace halvo::benchmark
