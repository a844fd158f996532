#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "tests/Simulation/EngineSimulation.hpp"

namespace halvo::testing {
namespace {

// The number in the environment variable `name`, or `otherwise`.
std::uint64_t setting(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::stoull(text);
}

constexpr const char* seedSetting = "HALVO_SIMULATION_SEED";
constexpr const char* runsSetting = "HALVO_SIMULATION_RUNS";

// One run of a failing seed is enough to see it fail again.
std::uint64_t defaultRuns() { return std::getenv(seedSetting) != nullptr ? 1 : 2000; }

class EngineSimulationTest : public ::testing::Test {
  protected:
    std::uint64_t run(std::uint64_t seed) { return EngineSimulation(seed, disk, tally).run(); }

    TemporaryFolder disk;
    Tally tally;
};

TEST_F(EngineSimulationTest, WhateverHappensTheRulesHold) {
    const std::uint64_t first = setting(seedSetting, 1);
    const std::uint64_t runs = setting(runsSetting, defaultRuns());
    std::cout << runs << " runs from seed " << first << "\n";
    for (std::uint64_t seed = first; seed < first + runs; ++seed) {
        try {
            run(seed);
        } catch (const Violation& violation) {
            FAIL() << violation.what() << "To replay: " << seedSetting << "=" << seed
                   << " SimulationTests";
        }
    }
    for (const auto& [what, count] : tally) {
        std::cout << what << " " << count << ", ";
    }
    std::cout << "and no rule was broken\n";
    if (runs < 1000) {
        return;
    }
    for (const char* what :
         {"begin",  "begun",        "begin-refused", "broken-off", "bundle",    "console",
          "end",    "file-damaged", "flag-cleared",  "flag-set",   "heartbeat", "kill",
          "opened", "power-cut",    "quits:",        "start",      "starts:",   "terminate",
          "tick",   "wall-clock",   "weather:"}) {
        EXPECT_GT(tally[what], runs / 10) << what << " hardly ever happened";
    }
}

TEST_F(EngineSimulationTest, ASeedReplaysExactly) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        EXPECT_EQ(run(seed), run(seed)) << seed;
    }
}

TEST_F(EngineSimulationTest, SeedsDiffer) {
    EXPECT_NE(run(1), run(3));
    EXPECT_NE(run(2), run(4));
}

}  // namespace
}  // namespace halvo::testing
