#include <gtest/gtest.h>

#include <vector>

#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {
namespace {

TEST(ServiceTest, StopsAllHelpers) {
    FakeProcesses processes;
    EXPECT_TRUE(stopAll(processes, {Seconds{5}, {}}).empty());
    EXPECT_TRUE(processes.terminated.empty());
    processes.processes = {7, 9};
    EXPECT_TRUE(stopAll(processes, {Seconds{5}, {}}).empty());
    EXPECT_EQ(processes.terminated, (std::vector<pid_t>{7, 9}));
}

TEST(ServiceTest, StopsHelpersThatComeMeanwhile) {
    FakeProcesses processes;
    processes.processes = {7};
    processes.onTerminate = [&] {
        if (processes.terminated.size() == 1) {
            processes.processes = {8};
        }
    };
    EXPECT_TRUE(stopAll(processes, {Seconds{5}, {}}).empty());
    EXPECT_EQ(processes.terminated, (std::vector<pid_t>{7, 8}));
}

TEST(ServiceTest, AsksEachHelperOnceAndWaitsNoLongerThanItMay) {
    FakeProcesses processes;
    processes.processes = {7, 9};
    processes.areStuck = true;
    int slow = 0;
    EXPECT_EQ(stopAll(processes, {Seconds{0.1}, [&] { ++slow; }}), (std::vector<pid_t>{7, 9}));
    EXPECT_EQ(processes.terminated, (std::vector<pid_t>{7, 9}));
    EXPECT_EQ(slow, 0);
    EXPECT_NEAR(processes.time.count(), 1000.1, 0.02);
    EXPECT_EQ(stopAll(processes, {Seconds{1.2}, [&] { ++slow; }}).size(), 2U);
    EXPECT_EQ(slow, 1);
    EXPECT_EQ(stopAll(processes, {Seconds{1.1}, {}}).size(), 2U);
}

TEST(ServiceTest, WaitsInRealTime) {
    struct RealTime final : HelperProcesses {
        std::vector<pid_t> running() override { return {7}; }

        bool isStopped(pid_t) override { return false; }

        void terminate(pid_t) override {}
    } processes;

    const Seconds start = processes.now();
    EXPECT_EQ(stopAll(processes, {Seconds{0.1}, {}}), std::vector<pid_t>{7});
    EXPECT_GE(processes.now() - start, Seconds{0.1});
    EXPECT_LT(processes.now() - start, Seconds{1});
}

TEST(ServiceTest, NamesProcesses) {
    EXPECT_EQ(named({12}), "pid 12");
    EXPECT_EQ(named({12, 13}), "pids 12 and 13");
    EXPECT_EQ(named({12, 13, 14}), "pids 12, 13 and 14");
}

}  // namespace
}  // namespace halvo::control
