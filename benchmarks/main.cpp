// Runs the measurements inside a private machine and prints their table; benchmarks/run starts it
// and describes its words.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <utility>

#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

// Where the engine's log goes, and whatever else is said on standard error.
constexpr const char* errorLog = "/tmp/errors.log";

// The standard error of this process, before it went there.
std::ostream& person() {
    static std::ofstream stream("/dev/fd/" + std::to_string(fcntl(STDERR_FILENO, F_DUPFD, 3)));
    return stream;
}

struct Measurement {
    const char* name;
    void (*measure)(Table& table, const Machine& machine);
};

constexpr std::array measurements{
    Measurement{"search", measureAppSearch}, Measurement{"status", measureStatusCall},
    Measurement{"save", measureSave},        Measurement{"tick", measureTick},
    Measurement{"memory", measureMemory},    Measurement{"ready", measureReady},
    Measurement{"records", measureRecords}};

// Lets the machine's other work wait, for this process and all that it starts, ours and peers
// alike. Where that is refused the rounds only differ more.
void goFirst() {
    const sched_param lowest{.sched_priority = 1};
    sched_setscheduler(0, SCHED_RR, &lowest);
}

}  // namespace

void progress(const std::string& what) { person() << "benchmarks: " << what << std::endl; }

}  // namespace halvo::benchmark

int main(int count, char** arguments) {
    using namespace halvo::benchmark;
    constexpr int missed = 1;
    constexpr int couldNotMeasure = 2;
    person();
    dup2(open(errorLog, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600), STDERR_FILENO);
    try {
        // benchmarks/run has seen to it that they are whole.
        const std::vector<std::string> words(arguments, arguments + count);
        const auto has = [&](const char* word) { return std::ranges::count(words, word) != 0; };
        const auto after = [&](const char* word) {
            const auto found = std::ranges::find(words, word);
            return words.end() - found > 1 ? *(found + 1) : "";
        };
        goFirst();
        const Machine machine(after("--build"), has("--quick"));
        Table table;
        for (const auto& [name, measure] : measurements) {
            if (!has("--only") || after("--only") == name) {
                measure(table, machine);
            }
        }
        std::cout << (has("--json") ? table.json() : table.text());
        return table.hasMissed() ? missed : 0;
    } catch (const std::exception& failure) {
        person() << "benchmarks: cannot measure: " << failure.what() << "\n"
                 << std::ifstream(errorLog).rdbuf() << std::endl;
        return couldNotMeasure;
    }
}
