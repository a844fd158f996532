// The measurements. Each adds its rows to the table; each throws CannotMeasure.
#pragma once

#include <string>

#include "benchmarks/InstalledApp.hpp"
#include "benchmarks/Table.hpp"

namespace halvo::benchmark {

// How much is measured.
struct Effort {
    bool quick{};

    // `full` rounds, or the few that a quick run takes.
    [[nodiscard]] std::size_t rounds(std::size_t full) const { return quick ? full / 8 : full; }
};

// Tells a person who waits what goes on, on standard error.
void progress(const std::string& what);

// Looking for an app that does not run, among a known number of processes.
void measureAppSearch(Table& table, const InstalledApp& app, Effort effort);

// Saving a commitment, beginning and ending one.
void measureSave(Table& table, const Places& places, Effort effort);

// What the engine's periodic check asks of the system: counted, not timed.
void measureTick(Table& table, const Places& places, const InstalledApp& app);

// One request and its reply.
void measureStatusCall(Table& table, const Places& places, const InstalledApp& app, Effort effort);

// From the start of the helper's program to the first reply.
void measureReady(Table& table, const Places& places, const InstalledApp& app, Effort effort);

// What a helper at rest keeps of the machine's memory.
void measureMemory(Table& table, const Places& places, const InstalledApp& app, Effort effort);

// What the app's processes do with the records that they share.
void measureRecords(Table& table, Effort effort);

}  // namespace halvo::benchmark
