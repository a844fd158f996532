#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"

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

TEST(SystemHelperClockTest, TellsTheTimeSinceBoot) {
    const testing::StoppedClock stopped(1, 500'000'000);
    EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 1.5);
}

TEST(BootIDFromTest, IsTheTextUpToTheFirstZeroByte) {
    struct Row {
        std::string bytes;
        const char* name;
    };

    for (const Row& row : std::vector<Row>{{"9C3A6E2F-51B7", "9C3A6E2F-51B7"},
                                           {"9C3A\0006E2F\0"s, "9C3A"},
                                           {"9C3A\0"s, "9C3A"},
                                           {"9C3A\0\xFF"s, "9C3A"},
                                           {"\0009C3A"s, ""},
                                           {"", ""},
                                           {" 9c3A\n", " 9c3A\n"},
                                           {"bööt", "bööt"},
                                           {"9C\xFF", "unknown"},
                                           {"\xC3", "unknown"}}) {
        EXPECT_EQ(bootIDFrom(row.bytes), row.name) << row.bytes;
    }
}

}  // namespace
}  // namespace halvo
