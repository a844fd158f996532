#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "benchmarks/Child.hpp"

namespace halvo::benchmark {
namespace {

constexpr const char* trace = "/tmp/tick.trace";

// The calls of the last tick that the trace shows under `mark`, as strace(1) writes them.
std::vector<std::string> callsOf(const std::string& mark) {
    std::ifstream file(trace);
    std::vector<std::string> calls;
    bool inside = false;
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with("access(\"/mark/")) {
            inside = line.starts_with("access(\"/mark/" + mark + "\"");
            if (inside) {
                calls.clear();
            }
        } else if (inside) {
            calls.push_back(line);
        }
    }
    return calls;
}

std::string nameOf(const std::string& call) { return call.substr(0, call.find('(')); }

// Every call with the path that it is about.
void noteEach(Table& table, const std::vector<std::string>& calls) {
    for (const std::string& call : calls) {
        const std::size_t quote = call.find('"');
        const std::string path =
            quote == std::string::npos ? "" : call.substr(quote, call.find('"', quote + 1) - quote);
        table.note("    " + nameOf(call) + (path.empty() ? "" : "  " + path.substr(1)));
    }
}

// How often each call was made.
void noteCounts(Table& table, const std::vector<std::string>& calls) {
    std::map<std::string, int> counts;
    for (const std::string& call : calls) {
        ++counts[nameOf(call)];
    }
    std::ostringstream line;
    line << "   ";
    for (const auto& [name, count] : counts) {
        line << " " << count << " " << name << (name == counts.rbegin()->first ? "" : ",");
    }
    table.note(line.str());
}

// "NAME ALLOCATIONS", the last of each name.
std::map<std::string, double> runProbe(const Places& places, const InstalledApp& app) {
    Child probe({{"/usr/bin/strace", "-o", trace, "-s", "256", places.programs + "/TickProbe",
                  app.bundle(), std::to_string(app.person())},
                 {},
                 {}});
    // All of its output fits into the pipe.
    if (const int status = probe.wait(); status != 0) {
        throw CannotMeasure("TickProbe under strace(1) ended with status " +
                            std::to_string(status));
    }
    std::map<std::string, double> allocations;
    constexpr int lines = 5;
    for (int line = 0; line < lines; ++line) {
        std::istringstream words(probe.hear());
        std::string name;
        double count = 0;
        words >> name >> count;
        allocations[name] = count;
    }
    return allocations;
}

}  // namespace

void measureTick(Table& table, const Places& places, const InstalledApp& app) {
    progress("counting what a tick does, 13 seconds");
    if (!std::filesystem::exists("/usr/bin/strace")) {
        throw CannotMeasure("strace(1) is missing; run scripts/setup");
    }
    const auto running = app.start();
    const auto allocations = runProbe(places, app);
    // A count that does not work would say 0 as well. This tick is known to look things up.
    if (allocations.at("first-search") == 0) {
        throw CannotMeasure("allocations are not counted");
    }
    const auto addRows = [&](const std::string& mark, const std::string& what) {
        const auto calls = callsOf(mark);
        if (calls.empty()) {
            throw CannotMeasure("the trace does not show the tick");
        }
        table.add({what + ": allocations", "", allocations.at(mark), {}, {}, {}, {{}, 0}});
        table.add({what + ": system calls", "", static_cast<double>(calls.size()), {}, {}, {}, {}});
        return calls;
    };
    const auto quiet = addRows("quiet", "tick while holding, nothing to do");
    const auto search = addRows("search", "the same, in which isAppRunning finds the app");
    table.note("The system calls of the tick with nothing to do (reading the clocks takes none):");
    noteEach(table, quiet);
    table.note("Of the tick that looks for the app, one readlinkat for each process before it:");
    noteCounts(table, search);
}

}  // namespace halvo::benchmark
