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

// What happens at the first reading of a process needs one that has taken none: `body` runs in a
// process that is started anew.
void expectInNewProcess(void (*body)()) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [body] {
        body();
        std::exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

TEST(LinuxClockDeathTest, ABootThatWasUnknownAtFirstStaysUnknownForTheProcess) {
    expectInNewProcess([] {
        SystemHelperClock clock;
        {
            const Fault fault = Fault::failing(SystemCall::open, ENOENT);
            EXPECT_EQ(clock.reading().bootID, "unknown");
        }
        EXPECT_EQ(clock.reading().bootID, "unknown");
        EXPECT_EQ(SystemHelperClock().reading().bootID, "unknown");
        EXPECT_NE(readBootID(), "unknown");
    });
}

TEST(LinuxClockDeathTest, AsksForTheBootOncePerProcessHoweverManyThreadsBegin) {
    expectInNewProcess([] {
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
    });
}

}  // namespace
}  // namespace halvo
