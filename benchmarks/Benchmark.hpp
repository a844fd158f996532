// What the measurements share: rounds, the one table that a run prints, and the programs that are
// measured. Everything here throws CannotMeasure.
#pragma once

#include <sys/types.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::benchmark {

// Something stands in the way of measuring; the text says what. Ends the run: half a table could be
// taken for a whole one.
class CannotMeasure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws `what` with the present errno when `ok` is false.
inline void require(bool ok, const std::string& what) {
    if (!ok) {
        throw CannotMeasure(what + ": " + std::generic_category().message(errno));
    }
}

// ----------------------------------------------------------------------------------------- rounds

// The value that a share of `values` lies below: 0.5 is the median. Not of an empty list.
double quantile(std::vector<double> values, double share = 0.5);

// What ours and a peer took in the same rounds; without a peer, ours alone.
struct Rounds {
    std::vector<double> ours;
    std::vector<double> theirs{};

    void add(double our, double their) {
        ours.push_back(our);
        theirs.push_back(their);
    }
};

// Calls both `rounds` times, each first in every other round, so that neither always finds the
// caches as the other left them. Both give what they measured. Fewer rounds, where they take so
// long that all would take more than twenty seconds.
//
// Why not a benchmark library: those time one thing after the other and report each by itself. On a
// machine that does other work meanwhile only a ratio within one moment means anything.
Rounds takeTurns(std::size_t rounds, const std::function<double()>& ours,
                 const std::function<double()>& theirs);

// How long `work` takes on average of `times` calls in a row, in microseconds.
template <class Work>
double microsecondsOf(std::size_t times, const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < times; ++i) {
        work();
    }
    const std::chrono::duration<double, std::micro> span = std::chrono::steady_clock::now() - start;
    return span.count() / static_cast<double>(times);
}

// ------------------------------------------------------------------------------------------ table

// What a row must reach; without either the row is only shown.
struct Target {
    std::optional<double> ratioAtMost;
    std::optional<double> oursAtMost;
};

struct Row {
    std::string what;
    // "us", "KiB", or empty for a count.
    std::string unit;
    std::string peer;
    Rounds rounds;
    Target target{};

    // A quantile of the rounds' own ratios.
    [[nodiscard]] double ratio(double share) const;

    // The ratio of the medians.
    [[nodiscard]] double ratio() const { return quantile(rounds.ours) / quantile(rounds.theirs); }

    [[nodiscard]] bool isJudged() const { return target.ratioAtMost || target.oursAtMost; }

    [[nodiscard]] bool isMissed() const;
};

struct Table {
    std::vector<Row> rows;
    // Lines for the reader, below the table.
    std::vector<std::string> notes;

    // Ours beside a peer, in microseconds; without a limit the ratio is only shown.
    void compare(const std::string& what, const std::string& peer, Rounds rounds,
                 std::optional<double> limit = {}) {
        rows.push_back({what, "us", peer, std::move(rounds), {limit, {}}});
    }

    // Whether any row missed its target.
    [[nodiscard]] bool hasMissed() const;

    // As lines for a person, or as one JSON object.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] std::string json() const;
};

// --------------------------------------------------------------------------------------- programs

// CLOCK_MONOTONIC in nanoseconds, the same in every process of the machine.
std::int64_t monotonicNow();

// The processor number `index` of those that this process may use, or nothing when there are fewer.
std::optional<int> processor(int index);

// Binds the process `pid` (0: this one) to one processor. False when the system refuses.
bool pin(pid_t pid, int processor);

struct RunAs {
    // Whose process it is; without, root's.
    std::optional<uid_t> person{};
    // The one processor that it may use.
    std::optional<int> processor{};
};

// A running program. Ended with SIGTERM, and waited for.
class Program {
  public:
    // Starts the program at the path `words` begins with.
    explicit Program(std::vector<std::string> words, const RunAs& how = {});
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    [[nodiscard]] pid_t pid() const { return process_.pid(); }

    // When it was about to become its program, on the clock of monotonicNow(). To be asked once the
    // program has answered.
    [[nodiscard]] std::int64_t startedAt() const { return *startedAt_; }

    // Sends `line` to its standard input.
    void tell(const std::string& line) const;

    // The next line of its output. Throws when none comes.
    std::string hear();

    // All that it says up to its end. Throws when its exit status is not 0.
    std::string hearAll();

  private:
    std::string name_;
    // Memory that the child shares.
    std::int64_t* startedAt_;
    // The program's standard input: the end to read from, then the end to write to.
    std::array<Descriptor, 2> input_;
    testing::TestProcess process_;
    bool ended_ = false;
};

// ----------------------------------------------------------------------------------- measurements

// The private machine in which all is measured, with the app of the benchmarks (StatusClient)
// installed as the helper admits it.
struct Machine {
    // Throws outside a private machine.
    Machine(std::string buildFolder, bool isQuick);

    [[nodiscard]] std::string helper() const { return build + "/bin/HalvoHelper"; }

    [[nodiscard]] std::string program(const std::string& name) const {
        return build + "/benchmarks/" + name;
    }

    // `full` rounds, or the few that a quick run takes.
    [[nodiscard]] std::size_t rounds(std::size_t full) const { return quick ? full / 8 : full; }

    // On a disk.
    std::string build;
    bool quick;
    // Who sits at the screen.
    uid_t person;
    std::string bundle = "/Applications/Halvo.app";
    std::string executable = bundle + "/Contents/MacOS/Halvo";
    // Where the helper serves, and where the bare server.
    std::string socket;
    std::string peerSocket = "/run/bare.sock";
};

// Tells a person who waits what goes on, on standard error.
void progress(const std::string& what);

// Looking for an app that does not run, among a known number of processes.
void measureAppSearch(Table& table, const Machine& machine);

// One request and its reply.
void measureStatusCall(Table& table, const Machine& machine);

// Saving a commitment, beginning and ending one.
void measureSave(Table& table, const Machine& machine);

// What the engine's periodic check asks of the system: counted, not timed.
void measureTick(Table& table, const Machine& machine);

// What a helper at rest keeps of the machine's memory.
void measureMemory(Table& table, const Machine& machine);

// From the start of the helper's program to the first reply.
void measureReady(Table& table, const Machine& machine);

// What the app's processes do with the records that they share.
void measureRecords(Table& table, const Machine& machine);

}  // namespace halvo::benchmark
