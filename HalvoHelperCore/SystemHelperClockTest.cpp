#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

TEST(SystemHelperClockTest, TakesReadingsOfOneBootAndNeverBackwards) {
    SystemHelperClock clock;
    ClockReading before = clock.reading();
    for (int i = 0; i < 1000; ++i) {
        const ClockReading after = clock.reading();
        EXPECT_EQ(after.bootID, before.bootID);
        EXPECT_GE(after.sinceBoot, before.sinceBoot);
        before = after;
    }
}

TEST(SystemHelperClockTest, CountsTimeThatPasses) {
    SystemHelperClock clock;
    const ClockReading before = clock.reading();
    std::this_thread::sleep_for(std::chrono::milliseconds{20});
    const ClockReading after = clock.reading();
    EXPECT_GE((after.sinceBoot - before.sinceBoot).count(), 0.02);
    EXPECT_GE((after.wall - before.wall).count(), 0.01);
}

TEST(SystemHelperClockTest, ShowsTheWallClock) {
    SystemHelperClock clock;
    const WallDate before = wallNow();
    const ClockReading reading = clock.reading();
    EXPECT_GE(reading.wall, before);
    EXPECT_LE(reading.wall, wallNow());
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

TEST(BootIDFromTest, TakesAValueWithoutAZeroByteWhole) {
    EXPECT_EQ(bootIDFrom("9C3A6E2F-51B7"), "9C3A6E2F-51B7");
}

TEST(BootIDFromTest, CutsAValueAtTheFirstZeroByte) {
    EXPECT_EQ(bootIDFrom("9C3A\0006E2F\0"s), "9C3A");
    EXPECT_EQ(bootIDFrom("9C3A\0"s), "9C3A");
}

TEST(BootIDFromTest, IsEmptyForAValueThatBeginsWithAZeroByte) {
    EXPECT_EQ(bootIDFrom("\0009C3A"s), "");
    EXPECT_EQ(bootIDFrom(""), "");
}

TEST(BootIDFromTest, IsUnknownForAValueThatIsNotUTF8) {
    EXPECT_EQ(bootIDFrom("9C\xFF"), "unknown");
    EXPECT_EQ(bootIDFrom("\xC3"), "unknown");
}

TEST(BootIDFromTest, LooksAtNothingBehindTheZeroByte) {
    EXPECT_EQ(bootIDFrom("9C3A\0\xFF"s), "9C3A");
}

TEST(BootIDFromTest, NeitherTrimsNorChangesCase) {
    EXPECT_EQ(bootIDFrom(" 9c3A\n"), " 9c3A\n");
    EXPECT_EQ(bootIDFrom("bööt"), "bööt");
}

}  // namespace
}  // namespace halvo
