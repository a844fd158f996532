#include <gtest/gtest.h>

#include <vector>

#include "HalvoHelper/macOS/ProcessList.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

namespace halvo::testing {
namespace {

class ProcessListTest : public ::testing::Test {
  protected:
    ProcessListTest() {
        fake::reset();
        fake::world().processes = {{0, 0, ""}, {1, 0, "/sbin/launchd"}, {300, 501, "/usr/bin/a"}};
    }

    std::vector<pid_t> listed() {
        listProcesses(list);
        return list;
    }

    std::vector<pid_t> list{7, 8, 9};
};

TEST_F(ProcessListTest, HoldsAllThatRun) {
    EXPECT_EQ(listed(), (std::vector<pid_t>{0, 1, 300}));
    EXPECT_EQ(listed(), (std::vector<pid_t>{0, 1, 300}));
}

TEST_F(ProcessListTest, HasRoomForThoseThatStartMeanwhile) {
    fake::world().processes.clear();
    for (int pid = 1; pid <= 66; ++pid) {
        fake::world().processes.push_back({pid, 0, "/bin/x"});
    }
    fake::world().announcedProcesses = 1;
    EXPECT_EQ(listed().size(), 65U);
    EXPECT_EQ(list.back(), 65);
}

TEST_F(ProcessListTest, IsEmptyWhenTheSystemDoesNotTell) {
    for (const int count : {0, -1}) {
        fake::world().announcedProcesses = count;
        EXPECT_TRUE(listed().empty());
        list = {7};
    }
    fake::world().announcedProcesses.reset();
    fake::world().listedProcesses = -1;
    EXPECT_TRUE(listed().empty());
}

TEST_F(ProcessListTest, IsNeverLongerThanItsRoom) {
    fake::world().listedProcesses = 1000;
    EXPECT_EQ(listed().size(), 67U);
}

TEST_F(ProcessListTest, KnowsWhoseAProcessIs) {
    EXPECT_TRUE(isProcessOf(501, 300));
    EXPECT_FALSE(isProcessOf(0, 300));
    EXPECT_FALSE(isProcessOf(502, 300));
    EXPECT_TRUE(isProcessOf(0, 1));
    EXPECT_FALSE(isProcessOf(0, 2));
    for (const int size : {0, -1, 63}) {
        fake::world().processes[2].infoSize = size;
        EXPECT_FALSE(isProcessOf(501, 300)) << size;
    }
}

}  // namespace
}  // namespace halvo::testing
