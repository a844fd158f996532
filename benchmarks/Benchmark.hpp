// What the measurements share. Everything here throws CannotMeasure.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvo::benchmark {

// Something stands in the way of measuring; the text says what. Ends the run: half a table could be
// taken for a whole one.
struct CannotMeasure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws `what` with the present errno when `ok` is false.
void require(bool ok, const std::string& what);

// Not of an empty list.
double medianOf(std::vector<double> values);

// Does something once and says what that took.
using Measure = std::function<double()>;

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

// What ours and a peer took in the same rounds; without a peer, ours alone.
struct Row {
    std::string what;
    // "us", "KiB", or empty for a count.
    std::string unit;
    std::string peer{};
    std::vector<double> ours{};
    std::vector<double> theirs{};
    // What the medians must reach; without either they are only shown.
    std::optional<double> ratioAtMost{};
    std::optional<double> oursAtMost{};
};

// A run: the private machine in which all is measured, and what was measured.
struct Run {
    [[nodiscard]] std::string helper() const { return build + "/bin/HalvoHelper"; }

    [[nodiscard]] std::string program(const std::string& name) const {
        return build + "/benchmarks/" + name;
    }

    // Adds rounds of a row, which may have some already.
    void add(const Row& row);

    // Adds a row in microseconds; without a limit the ratio is only shown.
    //
    // Calls both `rounds` times, each first in every other round, so that neither always finds the
    // caches as the other left them. Fewer rounds in a quick run, and where all would take more
    // than twenty seconds.
    //
    // Why not a benchmark library: those time one thing after the other and report each by itself.
    // On a machine that does other work meanwhile only a ratio within one moment means anything.
    void compare(const std::string& what, const std::string& peer, std::size_t rounds,
                 const Measure& ours, const Measure& theirs,
                 std::optional<double> ratioAtMost = {});

    // On a disk.
    std::string build;
    bool isQuick = false;
    // Who sits at the screen.
    uid_t person{};
    // This program, installed as the app that the helper admits.
    std::string bundle = "/Applications/Halvo.app";
    // Where the helper serves, and where the bare server.
    std::string socket;
    std::string peerSocket = "/run/bare.sock";

    std::vector<Row> rows{};
    // Lines for the reader, below the table.
    std::vector<std::string> notes{};
};

// Tells a person who waits what goes on, on standard error.
void progress(const std::string& what);

// Looking for an app that does not run, among a known number of processes.
void measureAppSearch(Run& run);

// Saving a commitment, beginning and ending one.
void measureSave(Run& run);

// One request and its reply.
void measureStatusCall(Run& run);

// From the start of the helper's program to the first reply.
void measureReady(Run& run);

// What a helper at rest keeps of the machine's memory.
void measureMemory(Run& run);

// What the engine's periodic check asks of the system: counted, not timed.
void measureTick(Run& run);

// What the app's processes do with the records that they share.
void measureRecords(Run& run);

}  // namespace halvo::benchmark
