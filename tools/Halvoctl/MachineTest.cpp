#include <gtest/gtest.h>

#include <vector>

#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

const auto never = [] { return false; };

TEST(WaiterTest, KeepsItsLimitAndPrintsOnceAfterASecond) {
    FakeWaiter waiter;
    int looks = 0;
    EXPECT_TRUE(waiter.wait([&] { return ++looks == 3; }, Seconds{1}, "Waiting."));
    EXPECT_NEAR(waiter.time.count(), 1000.02, 0.001);
    EXPECT_FALSE(waiter.wait(never, Seconds{0.1}, "Waiting."));
    EXPECT_NEAR(waiter.time.count(), 1000.12, 0.02);
    EXPECT_TRUE(waiter.wait([] { return true; }, Seconds{0})) << "calls it at least once";
    EXPECT_FALSE(waiter.wait(never, Seconds{5}));
    EXPECT_TRUE(waiter.said.empty());
    const Seconds start = waiter.time;
    const auto isDone = [&] {
        EXPECT_EQ(waiter.said.empty(), waiter.time - start < Seconds{1.015});
        return false;
    };
    EXPECT_FALSE(waiter.wait(isDone, Seconds{2.5}, "Waiting."));
    EXPECT_EQ(waiter.said, std::vector<std::string>{"Waiting."});
}

TEST(WaiterTest, WaitsInRealTime) {
    Waiter waiter;
    const Seconds start = waiter.now();
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(waiter.wait(never, Seconds{1.1}, "Waiting."));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Waiting.\n");
    EXPECT_GE(waiter.now() - start, Seconds{1.1});
    EXPECT_LT(waiter.now() - start, Seconds{5});
}

TEST(EndAllTest, SignalsEachProcessOnceIncludingNewOnes) {
    FakeProcesses processes;
    FakeWaiter waiter;
    EXPECT_TRUE(endAll(processes, waiter));
    processes.processes = {7, 9};
    processes.onTerminate = [&] {
        if (processes.terminated.size() == 2) {
            processes.processes = {8};
        }
    };
    EXPECT_TRUE(endAll(processes, waiter));
    EXPECT_EQ(processes.terminated, (std::vector<pid_t>{7, 9, 8}));
    processes.processes = {7, 9};
    processes.areStuck = true;
    EXPECT_EQ(endAll(processes, waiter),
              std::unexpected("The helper (pids 7 and 9) does not end. Kill it (kill -KILL), then "
                              "run halvoctl release again, which clears the lock that it "
                              "leaves."));
    EXPECT_EQ(processes.terminated, (std::vector<pid_t>{7, 9, 8, 7, 9}));
    EXPECT_EQ(waiter.said,
              std::vector<std::string>{"Waiting for the helper to end, at most 10 seconds."});
    EXPECT_NEAR(waiter.time.count(), 1010, 0.1);
}

TEST(TextTest, FormatsProcessesAndShellWords) {
    EXPECT_EQ(pidText({12}), "pid 12");
    EXPECT_EQ(pidText({12, 13}), "pids 12 and 13");
    EXPECT_EQ(pidText({12, 13, 14}), "pids 12, 13 and 14");
    for (const auto& [text, word] : std::vector<std::pair<std::string, std::string>>{
             {"/Applications/Halvo.app", "/Applications/Halvo.app"},
             {"/Library/Application Support", "'/Library/Application Support'"},
             {"it's 'my' $HOME", "'it'\\''s '\\''my'\\'' $HOME'"},
             {"~", "'~'"},
             {"\xC3\xBC", "'\xC3\xBC'"},
             {"", "''"},
             {"a\x1B[2J\n", "'a\\u001b[2J\\n'"}}) {
        EXPECT_EQ(shellWord(text), word);
    }
}

}  // namespace
}  // namespace halvo::control
