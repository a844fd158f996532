#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>

#include "HalvoPlatform/Time.hpp"
#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

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

// Also brings what was written to the disk: a file in memory alone would count as dirty.
void copy(const std::string& files, const std::string& to) {
    const std::string command = "{ " + files + "; } | xargs cp --dereference --target-directory='" +
                                to + "' && sync --file-system '" + to + "'";
    require(std::system(("mkdir --parents '" + to + "' && " + command).c_str()) == 0, command);
}

// What a process shares with others is not its own, so its USS depends on who else runs. Copies of
// the libraries settle that: only the program that is weighed uses them, on any machine. All but
// the C library, which every process has.
Launcher withLibrariesOfItsOwn(const std::string& program, const std::string& folder) {
    // Each line of ldd(1) is "NAME => PATH (ADDRESS)", but for the kernel's own and the program
    // interpreter.
    copy("ldd '" + program + R"(' | awk '$2 == "=>" && $1 !~ /^libc[.]so/ { print $3 }')", folder);
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

Memory helper(const Machine& machine, const Launcher& launcher, bool isHolding) {
    const Program helper(launched(launcher, machine.helper()));
    Program client({machine.executable}, {.person = machine.person});
    client.tell("reply " + machine.socket);
    client.hear();
    const std::string begin = "begin " + machine.socket + " " + machine.bundle + " ";
    if (!isHolding) {
        // Long enough for a tick.
        std::this_thread::sleep_for(Seconds{2.5});
        return memoryOf(helper);
    }
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
    const std::string folder = machine.program("sharing");
    copy("echo '" + empty + "'", folder);
    Program other({folder + "/EmptyProgram"});
    other.hear();
    Readings idle;
    Readings holding;
    Readings beside;
    const std::size_t rounds = machine.quick ? 2 : 5;
    for (std::size_t round = 1; round <= rounds; ++round) {
        progress("weighing the helper, 15 seconds, " + std::to_string(round) + " of " +
                 std::to_string(rounds));
        const Memory theirs = emptyProgram(empty, alone);
        idle.add(helper(machine, alone, false), theirs);
        holding.add(helper(machine, alone, true), theirs);
        beside.add(helper(machine, {}, false), emptyProgram(empty, {}));
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
