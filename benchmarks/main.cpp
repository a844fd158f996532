// Runs the measurements inside a private machine and prints their table; benchmarks/run starts it.

#include <sched.h>

#include <fstream>
#include <iostream>
#include <span>
#include <string>

#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "benchmarks/Child.hpp"

namespace halvo::benchmark {
namespace {

struct Options {
    Places places;
    Effort effort;
    bool json{};
    // Which measurement; empty means all.
    std::string only;
};

Options parse(std::span<char*> words) {
    Options options;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string word = words[i];
        const auto value = [&] {
            return ++i < words.size() ? words[i] : throw CannotMeasure(word + " needs a value");
        };
        if (word == "--quick") {
            options.effort.quick = true;
        } else if (word == "--json") {
            options.json = true;
        } else if (word == "--only") {
            options.only = value();
        } else if (word == "--build") {
            const std::string build = value();
            options.places = {build + "/bin/HalvoHelper", build + "/benchmarks",
                              build + "/benchmarks"};
        } else {
            throw CannotMeasure("unknown word " + word);
        }
    }
    return options;
}

Table measure(const Options& options) {
    const auto& [places, effort, json, only] = options;
    const InstalledApp app(places);
    Table table;
    const auto wanted = [&](const char* name) { return only.empty() || only == name; };
    if (wanted("search")) {
        measureAppSearch(table, app, effort);
    }
    if (wanted("status")) {
        measureStatusCall(table, places, app, effort);
    }
    if (wanted("save")) {
        measureSave(table, places, effort);
    }
    if (wanted("tick")) {
        measureTick(table, places, app);
    }
    if (wanted("memory")) {
        measureMemory(table, places, app, effort);
    }
    if (wanted("ready")) {
        measureReady(table, places, app, effort);
    }
    if (wanted("records")) {
        measureRecords(table, effort);
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

void progress(const std::string& what) { std::cerr << "benchmarks: " << what << std::endl; }

}  // namespace halvo::benchmark

int main(int count, char** words) {
    using namespace halvo::benchmark;
    constexpr int missed = 1;
    constexpr int couldNotMeasure = 2;
    try {
        const Options options = parse({words, static_cast<std::size_t>(count)});
        goFirst();
        const Table table = measure(options);
        std::cout << (options.json ? table.json() : table.text());
        return table.hasMissed() ? missed : 0;
    } catch (const std::exception& failure) {
        std::cerr << "benchmarks: cannot measure: " << failure.what() << std::endl;
        // What the programs said, if anything.
        if (std::ifstream errors(errorLog); errors.peek() != std::ifstream::traits_type::eof()) {
            std::cerr << errors.rdbuf();
        }
        return couldNotMeasure;
    }
}
