#include <fstream>
#include <map>
#include <sstream>

#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

constexpr const char* trace = "/tmp/tick.trace";

// The calls of the last tick that the trace shows under `mark`, as strace(1) writes them.
std::vector<std::string> callsOf(const std::string& mark) {
    std::ifstream file(trace);
    std::vector<std::string> calls;
    bool inside = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("access(\"/mark/")) {
            inside = line.starts_with("access(\"/mark/" + mark + "\"");
            calls = inside ? std::vector<std::string>{} : calls;
        } else if (inside) {
            calls.push_back(line);
        }
    }
    return !calls.empty() ? calls : throw CannotMeasure("the trace does not show the tick");
}

// How often each call was made.
std::string counted(const std::vector<std::string>& calls) {
    std::map<std::string, int> counts;
    for (const std::string& call : calls) {
        ++counts[call.substr(0, call.find('('))];
    }
    std::string line;
    for (const auto& [name, count] : counts) {
        line += (line.empty() ? "    " : ", ") + std::to_string(count) + " " + name;
    }
    return line;
}

// How often memory was allocated under each mark, the last time.
std::map<std::string, double> runProbe(const Machine& machine) {
    Program probe({"/usr/bin/strace", "-o", trace, "-s", "256", machine.program("TickProbe"),
                   machine.bundle, std::to_string(machine.person)});
    std::istringstream lines(probe.hearAll());
    std::map<std::string, double> allocations;
    for (std::string line; std::getline(lines, line);) {
        // Lines of the engine's log come between.
        std::istringstream words(line);
        std::string name;
        double count = 0;
        if (words >> name >> count && words.eof()) {
            allocations[name] = count;
        }
    }
    return allocations;
}

}  // namespace

void measureTick(Table& table, const Machine& machine) {
    progress("counting what a tick does, 13 seconds");
    const Program running({machine.executable}, {.person = machine.person});
    const auto allocations = runProbe(machine);
    // A count that does not work would say 0 as well. This tick is known to look things up.
    if (allocations.at("first-search") == 0) {
        throw CannotMeasure("allocations are not counted");
    }
    const auto addRows = [&](const std::string& mark, const std::string& what) {
        const auto calls = callsOf(mark);
        table.rows.push_back({what + ": allocations", "", "", {{allocations.at(mark)}}, {{}, 0}});
        table.rows.push_back(
            {what + ": system calls", "", "", {{static_cast<double>(calls.size())}}});
        return calls;
    };
    const auto quiet = addRows("quiet", "tick while holding, nothing to do");
    const auto search = addRows("search", "the same, in which isAppRunning finds the app");
    auto& notes = table.notes;
    notes.emplace_back(
        "The system calls of the tick with nothing to do (reading the clocks takes none):");
    for (const std::string& call : quiet) {
        notes.push_back("    " + call.substr(0, call.find(", {")));
    }
    notes.emplace_back(
        "Of the tick that looks for the app, one readlinkat for each process before it:");
    notes.push_back(counted(search));
}

}  // namespace halvo::benchmark
