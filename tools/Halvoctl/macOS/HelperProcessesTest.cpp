#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

const std::string helper = "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";

class HelperProcessesTest : public ::testing::Test {
  protected:
    HelperProcessesTest() { fake::reset(); }

    HelperProcesses processes{helper};
};

TEST_F(HelperProcessesTest, FindsProcessesOfTheExecutableThatRootRuns) {
    EXPECT_TRUE(processes.running().empty());
    fake::world().processes = {{0, 0, helper},    {90, 0, helper},       {1, 0, "/sbin/launchd"},
                               {70, 501, helper}, {80, 0, helper + "2"}, {60, 0, helper}};
    EXPECT_EQ(processes.running(), (std::vector<pid_t>{60, 90}));
    fake::world().processes = {{0, 0, helper}, {1, 0, helper}};
    EXPECT_EQ(processes.running(), std::vector<pid_t>{1}) << "process 1 may be the helper";
}

TEST_F(HelperProcessesTest, DetectsStoppedProcesses) {
    fake::world().processes = {{60, 0, helper}, {70, 0, helper}, {80, 0, helper}};
    fake::world().processes[1].isStopped = true;
    fake::world().processes[2].isStopped = true;
    fake::world().processes[2].infoSize = 63;
    EXPECT_FALSE(processes.isStopped(60));
    EXPECT_TRUE(processes.isStopped(70));
    EXPECT_FALSE(processes.isStopped(80)) << "the system returned less than asked for";
    EXPECT_FALSE(processes.isStopped(90)) << "no such process";
}

TEST_F(HelperProcessesTest, TerminatesOnlyHelpers) {
    testing::TestProcess child([] { pause(); });
    fake::world().processes = {{child.pid(), 501, helper}};
    processes.terminate(child.pid());
    EXPECT_TRUE(testing::always(Seconds{0.1}, [&] { return child.isRunning(); }));
    fake::world().processes = {{child.pid(), 0, helper}};
    processes.terminate(child.pid());
    EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

}  // namespace
}  // namespace halvo::control
