#include <gtest/gtest.h>
#include <sched.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <tuple>
#include <utility>

#include "HalvoPlatform/Time.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

TEST(BootTimeTest, IsInSecondsWithTheirFraction) {
    for (const auto& [seconds, nanoseconds, expected] :
         {std::tuple(1, 500'000'000, 1.5), std::tuple(51'873, 204'417'375, 51873.204417375)}) {
        const testing::StoppedClock stopped(seconds, nanoseconds);
        EXPECT_DOUBLE_EQ(sinceBoot().count(), expected);
    }
}

TEST(BootTimeTest, CountsSinceBootThroughSleep) {
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_BOOTTIME, &before);
    const double seconds = sinceBoot().count();
    clock_gettime(CLOCK_BOOTTIME, &after);
    EXPECT_GE(seconds, static_cast<double>(before.tv_sec));
    EXPECT_LE(seconds, static_cast<double>(after.tv_sec) + 1);
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
        const auto inside = testing::runInChild([outside] {
            EXPECT_GE(sinceBoot().count(), outside + 100'000);
            EXPECT_LT(sinceBoot().count(), outside + 100'060);
        });
        EXPECT_EQ(inside.status, 0) << inside.output;
    });
    if (result.status == needsNamespace) {
        GTEST_SKIP() << "needs root and a kernel with time namespaces";
    }
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(WithinACenturyTest, IsNoDelayThatATimerCannotTake) {
    constexpr double century = 100 * 31'556'952.0;
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const auto& [delay, expected] :
         {std::pair(0.0, 0.0), std::pair(-1.0, 0.0), std::pair(-infinity, 0.0),
          std::pair(std::numeric_limits<double>::quiet_NaN(), 0.0), std::pair(1e-9, 1e-9),
          std::pair(century, century), std::pair(century * 2, century),
          std::pair(infinity, century)}) {
        EXPECT_EQ(withinACentury(Seconds{delay}).count(), expected) << delay;
    }
}

}  // namespace
}  // namespace halvo
