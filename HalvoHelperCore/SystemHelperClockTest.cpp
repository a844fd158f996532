#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

TEST(SystemHelperClockTest, TakesReadingsOfOneBootAndNeverBackwards) {
    SystemHelperClock clock;
    const WallDate start = wallNow();
    const ClockReading first = clock.reading();
    ClockReading before = first;
    for (int i = 0; i < 1000; ++i) {
        const ClockReading after = clock.reading();
        EXPECT_EQ(after.bootID, before.bootID);
        EXPECT_GE(after.sinceBoot, before.sinceBoot);
        before = after;
    }
    EXPECT_GE(first.wall, start);
    EXPECT_LE(before.wall, wallNow());
    std::this_thread::sleep_for(std::chrono::milliseconds{20});
    EXPECT_GE((clock.reading().sinceBoot - first.sinceBoot).count(), 0.02);
}

TEST(SystemHelperClockTest, SettingTheWallClockChangesOnlyTheWallDate) {
    SystemHelperClock clock;
    const ClockReading before = clock.reading();
    const testing::WallClockJump jump(Seconds{-7200});
    const ClockReading after = clock.reading();
    EXPECT_LT((after.wall - before.wall).count(), -7140);
    EXPECT_GE((after.sinceBoot - before.sinceBoot).count(), 0);
    EXPECT_LT((after.sinceBoot - before.sinceBoot).count(), 60);
    EXPECT_EQ(after.bootID, before.bootID);
}

TEST(SystemHelperClockTest, TakesTheWallClockAfterTheOther) {
    const WallDate before = wallNow();
    const testing::SlowClock slow(Seconds{3600});
    EXPECT_GE(SystemHelperClock().reading().wall, before + Seconds{3600});
}

TEST(SystemHelperClockDeathTest, ABootThatWasUnknownAtFirstStaysUnknownForTheProcess) {
    testing::expectInNewProcess([] {
        SystemHelperClock clock;
        {
            const auto fault = testing::Fault::failing(testing::SystemCall::open, ENOENT);
            EXPECT_EQ(clock.reading().bootID, "unknown");
        }
        EXPECT_EQ(clock.reading().bootID, "unknown");
        EXPECT_EQ(SystemHelperClock().reading().bootID, "unknown");
        EXPECT_NE(readBootID(), "unknown");
    });
}

TEST(SystemHelperClockDeathTest, AsksForTheBootOncePerProcessHoweverManyThreadsBegin) {
    testing::expectInNewProcess([] {
        std::vector<ClockReading> readings(8);
        std::vector<std::thread> threads;
        const std::size_t before = testing::callsMade(testing::SystemCall::open);
        for (ClockReading& reading : readings) {
            threads.emplace_back([&reading] { reading = SystemHelperClock().reading(); });
        }
        std::ranges::for_each(threads, &std::thread::join);
        EXPECT_EQ(testing::callsMade(testing::SystemCall::open), before + 1);
        for (const ClockReading& reading : readings) {
            EXPECT_EQ(reading.bootID, readBootID());
        }
    });
}

TEST(BootIDFromTest, IsTheTextUpToTheFirstZeroByte) {
    for (const auto& [bytes, name] :
         {std::pair("9C3A6E2F-51B7"s, "9C3A6E2F-51B7"), std::pair("9C3A\0006E2F\0"s, "9C3A"),
          std::pair("9C3A\0"s, "9C3A"), std::pair("9C3A\0\xFF"s, "9C3A"),
          std::pair("\0009C3A"s, ""), std::pair(""s, ""), std::pair(" 9c3A\n"s, " 9c3A\n"),
          std::pair("bööt"s, "bööt"), std::pair("9C\xFF"s, "unknown"),
          std::pair("\xC3"s, "unknown")}) {
        EXPECT_EQ(bootIDFrom(bytes), name) << bytes;
    }
}

}  // namespace
}  // namespace halvo
