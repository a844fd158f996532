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

// benchmarks/run has seen to it that they are whole.
class Words {
  public:
    Words(int count, char** words) : words_(words, words + count) {}

    [[nodiscard]] bool has(const char* name) const {
        return std::ranges::find(words_, name) != words_.end();
    }

    // What follows `name`; empty when it is not there.
    [[nodiscard]] std::string after(const char* name) const {
        const auto found = std::ranges::find(words_, name);
        return words_.end() - found > 1 ? *(found + 1) : "";
    }

  private:
    std::vector<std::string> words_;
};

Table measure(const Words& words) {
    const Machine machine(words.after("--build"), words.has("--quick"));
    Table table;
    for (const auto& [name, measurement] : measurements) {
        if (const std::string only = words.after("--only"); only.empty() || only == name) {
            measurement(table, machine);
        }
    }
    return table;
}

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
        const Words words(count, arguments);
        goFirst();
        const Table table = measure(words);
        std::cout << (words.has("--json") ? table.json() : table.text());
        return table.hasMissed() ? missed : 0;
    } catch (const std::exception& failure) {
        person() << "benchmarks: cannot measure: " << failure.what() << "\n"
                 << std::ifstream(errorLog).rdbuf() << std::endl;
        return couldNotMeasure;
    }
}
