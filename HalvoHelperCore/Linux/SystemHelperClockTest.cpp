#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::SystemCall;

constexpr const char* bootIDFile = "/proc/sys/kernel/random/boot_id";

TEST(LinuxClockTest, NamesTheBootAsTheKernelDoesWithoutTheNewline) {
    std::string text = testing::readTestFile(bootIDFile);
    ASSERT_EQ(text.size(), 37U);
    ASSERT_EQ(text.back(), '\n');
    text.pop_back();
    EXPECT_EQ(readBootID().text(), text);
    EXPECT_EQ(SystemHelperClock().reading().bootID.text(), text);
}

TEST(LinuxClockTest, DoesNotKnowTheBootWhenTheKernelDoesNotTell) {
    {
        const Fault fault = Fault::failing(SystemCall::open, ENOENT);
        EXPECT_EQ(readBootID(), "unknown");
    }
    const Fault fault = Fault::failing(SystemCall::read, EIO);
    EXPECT_EQ(readBootID(), "unknown");
}

// What happens at the first reading of a process needs a process that has taken none: it is
// started anew for each of these.
class LinuxClockDeathTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Ends the new process: with 0 when all its expectations held.
    [[noreturn]] static void finish() { std::exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS); }
};

TEST_F(LinuxClockDeathTest, ABootThatWasUnknownAtFirstStaysUnknownForTheProcess) {
    const auto body = [] {
        SystemHelperClock clock;
        {
            const Fault fault = Fault::failing(SystemCall::open, ENOENT);
            EXPECT_EQ(clock.reading().bootID, "unknown");
        }
        EXPECT_EQ(clock.reading().bootID, "unknown");
        EXPECT_EQ(SystemHelperClock().reading().bootID, "unknown");
        EXPECT_NE(readBootID(), "unknown");
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(LinuxClockDeathTest, AsksForTheBootOncePerProcessHoweverManyThreadsBegin) {
    const auto body = [] {
        std::vector<ClockReading> readings(8);
        std::vector<std::thread> threads;
        const std::size_t before = testing::callsMade(SystemCall::open);
        for (ClockReading& reading : readings) {
            threads.emplace_back([&reading] { reading = SystemHelperClock().reading(); });
        }
        std::ranges::for_each(threads, &std::thread::join);
        EXPECT_EQ(testing::callsMade(SystemCall::open), before + 1);
        for (const ClockReading& reading : readings) {
            EXPECT_EQ(reading.bootID, readBootID());
        }
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace halvo
