#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <ctime>
#include <limits>
#include <type_traits>

#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"

namespace halvo {
namespace {

using Limits = std::numeric_limits<double>;

constexpr const char* cannotConvert =
    "Fatal error: A span of seconds cannot be converted to a whole number";

TEST(TimeTest, AWallDateGivesBackTheBitsItWasMadeOf) {
    constexpr std::array seconds{0.0,
                                 -0.0,
                                 1763249012.482193,
                                 -1.5,
                                 Limits::denorm_min(),
                                 Limits::max(),
                                 Limits::lowest(),
                                 Limits::infinity(),
                                 Limits::quiet_NaN()};
    for (const double value : seconds) {
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
}

TEST(TimeTest, TheWallClockKeepsTheFractionOfASecond) {
    bool fraction = false;
    for (int i = 0; i < 100 && !fraction; ++i) {
        const double now = secondsSince1970(wallNow());
        fraction = std::trunc(now) != now;
    }
    EXPECT_TRUE(fraction);
}

TEST(TimeTest, TheWallClockFollowsWhoeverSetsIt) {
    const WallDate before = wallNow();
    const WallDate moved = [] {
        const testing::WallClockJump jump(Seconds{-7200});
        return wallNow();
    }();
    EXPECT_GE(moved, before - Seconds{7200});
    EXPECT_LE(moved, wallNow() - Seconds{7200});
}

TEST(TimeTest, WholeSecondsAreTruncatedTowardZero) {
    struct Row {
        double seconds;
        std::int64_t whole;
    };

    constexpr std::array rows{
        Row{0, 0},
        Row{-0.0, 0},
        Row{0.999, 0},
        Row{-0.999, 0},
        Row{1.5, 1},
        Row{-1.5, -1},
        Row{7200, 7200},
        Row{86399.9999, 86399},
        Row{Limits::denorm_min(), 0},
        Row{9007199254740993.0, 9007199254740992},
        Row{9223372036854774784.0, 9223372036854774784},
        Row{-9223372036854775808.0, std::numeric_limits<std::int64_t>::min()},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(wholeSeconds(Seconds{row.seconds}), row.whole) << row.seconds;
    }
}

TEST(TimeDeathTest, ASpanThatIsNotFiniteHasNoWholeSeconds) {
    EXPECT_DEATH(wholeSeconds(Seconds{Limits::quiet_NaN()}), cannotConvert);
    EXPECT_DEATH(wholeSeconds(Seconds{Limits::infinity()}), cannotConvert);
    EXPECT_DEATH(wholeSeconds(Seconds{-Limits::infinity()}), cannotConvert);
}

TEST(TimeDeathTest, ASpanOutsideSixtyFourBitsHasNoWholeSeconds) {
    EXPECT_DEATH(wholeSeconds(Seconds{9223372036854775808.0}), cannotConvert);
    EXPECT_DEATH(wholeSeconds(Seconds{std::nextafter(-9223372036854775808.0, -Limits::max())}),
                 cannotConvert);
    EXPECT_DEATH(wholeSeconds(Seconds{Limits::max()}), cannotConvert);
}

}  // namespace
}  // namespace halvo
