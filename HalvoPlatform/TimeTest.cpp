#include <gtest/gtest.h>
#include <sched.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using Limits = std::numeric_limits<double>;

constexpr const char* cannotConvert =
    "Fatal error: A span of seconds cannot be converted to a whole number";

TEST(TimeTest, AWallDateGivesBackTheBitsItWasMadeOf) {
    for (const double value :
         {0.0, -0.0, 1763249012.482193, -1.5, Limits::denorm_min(), Limits::max(), Limits::lowest(),
          Limits::infinity(), Limits::quiet_NaN()}) {
        EXPECT_EQ(std::bit_cast<std::uint64_t>(secondsSince1970(wallDate(value))),
                  std::bit_cast<std::uint64_t>(value))
            << value;
    }
}

TEST(TimeTest, SpansAndWallDatesDoNotMixByAccident) {
    static_assert(!std::is_convertible_v<double, Seconds>);
    static_assert(!std::is_convertible_v<double, WallDate>);
    static_assert(!std::is_convertible_v<Seconds, WallDate>);
    static_assert(!std::is_convertible_v<WallDate, Seconds>);
    static_assert(std::is_same_v<decltype(WallDate{} - WallDate{}), Seconds>);
}

TEST(TimeTest, TheWallClockIsTheSystemsOwn) {
    const auto before = static_cast<double>(std::time(nullptr));
    const double now = secondsSince1970(wallNow());
    const auto after = static_cast<double>(std::time(nullptr));
    // time(2) counts whole seconds, from a clock that ticks more coarsely.
    EXPECT_GE(now, before);
    EXPECT_LT(now, after + 2);
    bool hasFraction = false;
    for (int i = 0; i < 100 && !hasFraction; ++i) {
        hasFraction = std::fmod(secondsSince1970(wallNow()), 1.0) != 0;
    }
    EXPECT_TRUE(hasFraction);
}

TEST(TimeTest, TheWallClockFollowsItsSetting) {
    const WallDate before = wallNow();
    const WallDate moved = [] {
        const testing::WallClockJump jump(Seconds{-7200});
        return wallNow();
    }();
    EXPECT_GE(moved, before - Seconds{7200});
    EXPECT_LE(moved, wallNow() - Seconds{7200});
}

TEST(TimeTest, WholeSecondsAreTruncatedTowardZero) {
    constexpr double least = -9223372036854775808.0;
    for (const auto& [seconds, whole] :
         {std::pair(0.0, 0L), std::pair(-0.0, 0L), std::pair(0.999, 0L), std::pair(-0.999, 0L),
          std::pair(1.5, 1L), std::pair(-1.5, -1L), std::pair(86399.9999, 86399L),
          std::pair(Limits::denorm_min(), 0L), std::pair(9007199254740993.0, 9007199254740992L),
          std::pair(9223372036854774784.0, 9223372036854774784L),
          std::pair(least, std::numeric_limits<long>::min())}) {
        EXPECT_EQ(wholeSeconds(Seconds{seconds}), whole) << seconds;
    }
}

TEST(TimeDeathTest, ASpanOutsideSixtyFourBitsHasNoWholeSeconds) {
    for (const double span :
         {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), Limits::max(),
          9223372036854775808.0, std::nextafter(-9223372036854775808.0, -Limits::max())}) {
        EXPECT_DEATH(wholeSeconds(Seconds{span}), cannotConvert) << span;
    }
}

TEST(BootTimeTest, IsInSecondsWithTheirFraction) {
    for (const auto& [seconds, nanoseconds, expected] :
         {std::tuple(1, 500'000'000, 1.5), std::tuple(51'873, 204'417'375, 51873.204417375)}) {
        const testing::StoppedClock stopped(seconds, nanoseconds);
        EXPECT_DOUBLE_EQ(sinceBoot().count(), expected);
    }
}

// A time namespace has an offset of its own for each of the two clocks: this one has been asleep
// for more than a day. time_namespaces(7).
TEST(BootTimeTest, CountsTheTimeAsleep) {
    constexpr int needsNamespace = 77;
    const auto result = testing::runInChild([] {
        if (unshare(CLONE_NEWTIME) != 0) {
            std::exit(needsNamespace);
        }
        std::ofstream("/proc/self/timens_offsets") << "boottime 100000 0" << std::flush;
        const double outside = sinceBoot().count();
        // Only children are in it.
        testing::expectInChild([outside] {
            EXPECT_GE(sinceBoot().count(), outside + 100'000);
            EXPECT_LT(sinceBoot().count(), outside + 100'060);
        });
    });
    if (result.status == needsNamespace) {
        GTEST_SKIP() << "needs root and a kernel with time namespaces";
    }
    EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace halvo
