#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperCommitment.hpp"
#include "tests/Support/Printing.hpp"

namespace halvo {
namespace {

constexpr double aDay = 86400;
constexpr double anHour = 3600;

// The wall clock when the commitment starts, and the time since boot then.
constexpr double wall = 1'760'000'000;
constexpr double uptime = 1000;

// Two hours are asked for, and all of the day is allowed.
const HelperCommitment commitment{"/Applications/Halvo.app",
                                  501,
                                  wallDate(wall),
                                  Seconds{2 * anHour},
                                  Seconds{aDay},
                                  {"boot 1", Seconds{uptime}, wallDate(wall)},
                                  true};

// A look at the clocks `sinceBoot` after the boot named `boot`, when the wall clock shows `passed`
// more than at the start.
ClockReading look(const char* boot, double sinceBoot, double passed) {
    return {boot, Seconds{sinceBoot}, wallDate(wall + passed)};
}

TEST(HelperCommitmentTest, LastsADayAtMost) { EXPECT_EQ(HelperCommitment::maximum.count(), aDay); }

TEST(HelperCommitmentTest, CountsTheTimePassed) {
    struct Row {
        std::string what;
        ClockReading now;
        double elapsed;
    };

    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<Row> rows{
        {"no time passed", look("boot 1", uptime, 0), 0},
        {"half a minute passed", look("boot 1", uptime + 30, 30), 30},
        {"the wall clock was set back two hours", look("boot 1", uptime + 30, 30 - 2 * anHour), 30},
        {"the wall clock was set on two hours", look("boot 1", uptime + 30, 30 + 2 * anHour), 30},
        {"it is asleep for two days in the same boot", look("boot 1", uptime + 2 * aDay, 0),
         2 * aDay},
        {"since-boot went back, the wall clock says more", look("boot 1", 900, 5000), 5000},
        {"since-boot went back, the wall clock says less", look("boot 1", 900, 60), 900},
        {"since-boot went back by the least", look("boot 1", uptime - 0.001, 0), uptime - 0.001},
        {"rebooted, the wall clock says more", look("boot 2", 40, 300), 300},
        {"rebooted, the wall clock says less", look("boot 2", 40, 10), 40},
        {"rebooted, since-boot is larger than before", look("boot 2", uptime + 500, 20), 1500},
        {"rebooted, since-boot is zero", look("boot 2", 0, -10), 0},
        {"rebooted, since-boot just below zero", look("boot 2", -0.001, -10), 0},
        {"rebooted, only since-boot negative", look("boot 2", -5, 60), 60},
        {"rebooted, since-boot not a number", look("boot 2", nan, 60), 60},
        {"rebooted, since-boot not a number, moved back", look("boot 2", nan, -60), 0},
        {"the same boot, since-boot not a number", look("boot 1", nan, 60), 60},
        {"a boot without a name", look("", uptime + 30, 7), uptime + 30},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(commitment.elapsed(row.now).count(), row.elapsed) << row.what;
    }
}

TEST(HelperCommitmentTest, TrustsTwoUnnamedBootsToBeTheSame) {
    HelperCommitment unnamed = commitment;
    unnamed.checkpoint.bootID = "unknown";
    EXPECT_EQ(unnamed.elapsed(look("unknown", uptime + 30, anHour)).count(), 30);
}

// The commitment with other budgets.
HelperCommitment with(double remaining, double capRemaining) {
    HelperCommitment other = commitment;
    other.remaining = Seconds{remaining};
    other.capRemaining = Seconds{capRemaining};
    return other;
}

const HelperCommitment capped = with(2 * anHour, anHour);
const HelperCommitment generous = with(10 * aDay, 10 * aDay);

TEST(HelperCommitmentTest, LeavesTheSmallestBudgetLessTheTimePassed) {
    struct Row {
        std::string what;
        HelperCommitment commitment;
        ClockReading now;
        double left;
    };

    const std::vector<Row> rows{
        {"what was asked for", commitment, look("boot 1", uptime + 600, 600), 2 * anHour - 600},
        {"the cap", capped, look("boot 1", uptime + 600, 600), anHour - 600},
        {"less than nothing", commitment, look("boot 1", uptime + 3 * anHour, 0), -anHour},
        {"no wall cap within one boot", commitment, look("boot 1", uptime + 30, 2 * aDay),
         2 * anHour - 30},
        {"rebooted", commitment, look("boot 2", 40, 600), 2 * anHour - 600},
        {"rebooted, a day from the start", generous, look("boot 2", 40, 20 * anHour), 4 * anHour},
        {"rebooted, a day after the start", generous, look("boot 2", 40, aDay), 0},
        {"rebooted, more than a day after the start", generous, look("boot 2", 40, aDay + 5), -5},
        {"since-boot went back: as after a reboot", generous, look("boot 1", 900, 20 * anHour),
         4 * anHour},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.commitment.timeLeft(row.now).count(), row.left) << row.what;
    }
}

TEST(HelperCommitmentTest, IsLiveWhileAnythingIsLeft) {
    EXPECT_TRUE(commitment.isLive(look("boot 1", uptime + 2 * anHour - 0.001, 0)));
    EXPECT_FALSE(commitment.isLive(look("boot 1", uptime + 2 * anHour, 0)));
}

TEST(HelperCommitmentTest, EndsWhenTheTimeLeftWillHavePassedOnTheWallClock) {
    EXPECT_EQ(commitment.ends(look("boot 1", uptime, 0)), wallDate(wall + 2 * anHour));
    // Setting the clock back shows an earlier end; the span to it is the same.
    EXPECT_EQ(commitment.ends(look("boot 1", uptime + 60, 60 - anHour)), wallDate(wall + anHour));
    EXPECT_EQ(commitment.ends(look("boot 1", uptime + 3 * anHour, 0)), wallDate(wall - anHour));
}

TEST(HelperCommitmentTest, RebasingChargesBothBudgetsAndMovesTheCheckpoint) {
    struct Row {
        HelperCommitment before;
        ClockReading now;
        HelperCommitment after;
    };

    const std::vector<Row> rows{
        {commitment, look("boot 1", uptime + 600, -anHour), with(2 * anHour - 600, aDay - 600)},
        {with(2 * anHour, 10 * aDay), look("boot 1", uptime + 60, 3 * aDay),
         with(2 * anHour - 60, 10 * aDay - 60)},
        // After a reboot the cap alone is clipped.
        {generous, look("boot 2", 40, 20 * anHour), with(10 * aDay - 20 * anHour, 4 * anHour)},
    };
    for (const Row& row : rows) {
        for (const bool locked : {true, false}) {
            HelperCommitment before = row.before;
            HelperCommitment after = row.after;
            before.locked = after.locked = locked;
            after.checkpoint = row.now;
            EXPECT_EQ(before.rebased(row.now), after);
        }
    }
}

TEST(HelperCommitmentTest, RebasingKeepsTheTimeLeftAndChargesNothingTheSecondTime) {
    const std::vector<ClockReading> readings{
        look("boot 1", uptime + 600, 600), look("boot 1", uptime + 3 * aDay, 0),
        look("boot 2", 40, 600),           look("boot 2", 40, 23 * anHour),
        look("boot 2", 40, 3 * aDay),      look("boot 2", 40, -anHour),
        look("boot 1", 900, 600),          look("boot 1", 900, 22 * anHour)};
    for (const HelperCommitment& before : {commitment, with(10 * aDay, aDay)}) {
        for (const ClockReading& now : readings) {
            const HelperCommitment once = before.rebased(now);
            EXPECT_EQ(once.timeLeft(now), before.timeLeft(now));
            EXPECT_EQ(once.rebased(now), once);
        }
    }
}

}  // namespace
}  // namespace halvo
