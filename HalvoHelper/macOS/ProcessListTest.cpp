#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelper/macOS/ProcessList.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/MallocCount.hpp"

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

TEST_F(ProcessListTest, HoldsAllThatRunHoweverOftenItIsAsked) {
    EXPECT_EQ(listed(), (std::vector<pid_t>{0, 1, 300}));
    EXPECT_EQ(listed(), (std::vector<pid_t>{0, 1, 300}));
}

TEST_F(ProcessListTest, HoldsNoMoreThanAreListedOrThanThereIsRoomFor) {
    const struct {
        // What the system says when it is asked how many there are, and how many it has listed.
        std::optional<int> announced;
        std::optional<int> listed;
        std::size_t held;
    } rows[] = {
        // Room for those that start meanwhile.
        {1, {}, 65}, {{}, 1000, 130}, {{}, std::numeric_limits<int>::max(), 130},
        {{}, 2, 2},  {{}, -1, 0},     {0, {}, 0},
        {-1, {}, 0},
    };

    fake::world().processes.clear();
    for (int pid = 1; pid <= 66; ++pid) {
        fake::world().processes.push_back({pid, 0, "/bin/x"});
    }
    for (const auto& row : rows) {
        list = {7};
        fake::world().announcedProcesses = row.announced;
        fake::world().listedProcesses = row.listed;
        EXPECT_EQ(listed().size(), row.held);
        EXPECT_TRUE(row.held == 0 || list.front() == 1);
    }
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

TEST_F(ProcessListTest, TellsTheExecutableOfAProcess) {
    constexpr int most = std::numeric_limits<int>::max();
    constexpr int least = std::numeric_limits<int>::min();
    // On the heap, where the address sanitizer sees what is written past its end.
    const auto buffer = std::make_unique<PathBuffer>();
    ASSERT_EQ(buffer->size(), 4096U);
    const std::string longest = "/" + std::string(4095, 'a');

    const struct {
        std::string path;
        // The bytes that the kernel says it has written, if not those.
        std::optional<int> size;
        std::optional<std::string> told;
    } rows[] = {
        {"/Applications/Halvo.app/Contents/MacOS/Halvo",
         {},
         "/Applications/Halvo.app/Contents/MacOS/Halvo"},
        // Not where an earlier path ended.
        {"/", {}, "/"},
        {"/a\xFF\n\xC3\xA9", {}, "/a\xFF\n\xC3\xA9"},
        {longest, {}, longest},
        {longest, 4097, longest},
        {longest + "a", 4097, longest},
        {longest, most, longest},
        // Filled up with zeros.
        {"/bin/x", 8, std::string("/bin/x\0\0", 8)},
        // Whatever was written.
        {"", {}, std::nullopt},
        {"/bin/x", 0, std::nullopt},
        {"/bin/x", -1, std::nullopt},
        {"/bin/x", least, std::nullopt},
    };

    for (const auto& row : rows) {
        fake::world().processes = {{300, 501, row.path, 64, row.size}};
        EXPECT_EQ(executablePath(300, *buffer), row.told) << row.path << row.size.value_or(-2);
    }
    const std::size_t before = mallocsMade();
    EXPECT_FALSE(executablePath(300, *buffer));
    EXPECT_FALSE(executablePath(301, *buffer)) << "one that has ended";
    EXPECT_EQ(mallocsMade(), before);
}

}  // namespace
}  // namespace halvo::testing
