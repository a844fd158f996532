#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperCommitment.hpp"
#include "tests/Support/Printing.hpp"

namespace halvo {
namespace {

constexpr double day = 86400;
constexpr double hour = 3600;

// The wall clock when the commitment starts, and the time since boot then.
constexpr double wall = 1'760'000'000;
constexpr double uptime = 1000;

// Two hours are asked for, and all of the day is allowed.
const HelperCommitment commitment{"/Applications/Halvo.app",
                                  501,
                                  wallDate(wall),
                                  Seconds{2 * hour},
                                  Seconds{day},
                                  {"boot 1", Seconds{uptime}, wallDate(wall)},
                                  true};

// A look at the clocks `sinceBoot` after the boot named `boot`, when the wall clock shows `passed`
// more than at the start.
ClockReading look(const char* boot, double sinceBoot, double passed) {
    return {boot, Seconds{sinceBoot}, wallDate(wall + passed)};
}

TEST(HelperCommitmentTest, LastsADayAtMost) { EXPECT_EQ(HelperCommitment::maximum.count(), day); }

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
        {"the wall clock was set back two hours", look("boot 1", uptime + 30, 30 - 2 * hour), 30},
        {"the wall clock was set on two hours", look("boot 1", uptime + 30, 30 + 2 * hour), 30},
        {"it is asleep for two days in the same boot", look("boot 1", uptime + 2 * day, 0),
         2 * day},
        {"since-boot went back, the wall clock says more", look("boot 1", 900, 5000), 5000},
        {"since-boot went back, the wall clock says less", look("boot 1", 900, 60), 900},
        {"since-boot went back by the least", look("boot 1", uptime - 0.001, 0), uptime - 0.001},
        {"rebooted, the wall clock says more", look("boot 2", 40, 300), 300},
        {"rebooted, the wall clock says less", look("boot 2", 40, 10), 40},
        {"rebooted, both say the same", look("boot 2", 40, 40), 40},
        {"rebooted, the wall clock moved back", look("boot 2", 40, -5 * hour), 40},
        {"rebooted, since-boot is larger than before", look("boot 2", uptime + 500, 20), 1500},
        {"rebooted, since-boot is zero", look("boot 2", 0, -10), 0},
        {"rebooted, both negative", look("boot 2", -5, -60), 0},
        {"rebooted, only since-boot negative", look("boot 2", -5, 60), 60},
        {"rebooted, since-boot not a number", look("boot 2", nan, 60), 60},
        {"rebooted, since-boot not a number, moved back", look("boot 2", nan, -60), 0},
        {"the same boot, since-boot not a number", look("boot 1", nan, 60), 60},
        {"a boot without a name", look("", uptime + 30, 7), uptime + 30},
        {"a boot that differs in case", look("BOOT 1", uptime + 30, 7), uptime + 30},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(commitment.elapsed(row.now).count(), row.elapsed) << row.what;
    }
}

TEST(HelperCommitmentTest, TrustsTwoUnnamedBootsToBeTheSame) {
    HelperCommitment unnamed = commitment;
    unnamed.checkpoint.bootID = "unknown";
    EXPECT_EQ(unnamed.elapsed(look("unknown", uptime + 30, hour)).count(), 30);
}

TEST(HelperCommitmentTest, TakesTheElapsedTimeFromTheSmallerBudget) {
    HelperCommitment capped = commitment;
    capped.capRemaining = Seconds{hour};
    const ClockReading now = look("boot 1", uptime + 600, 600);
    EXPECT_EQ(commitment.timeLeft(now).count(), 2 * hour - 600);
    EXPECT_EQ(capped.timeLeft(now).count(), hour - 600);
}

TEST(HelperCommitmentTest, OwesLessThanNothingOnceTheBudgetIsOverspent) {
    EXPECT_EQ(commitment.timeLeft(look("boot 1", uptime + 3 * hour, 0)).count(), -hour);
}

TEST(HelperCommitmentTest, AppliesNoWallCapWithinOneBoot) {
    // The wall clock shows two days more, but nobody has to believe it.
    const ClockReading now = look("boot 1", uptime + 30, 2 * day);
    EXPECT_EQ(commitment.timeLeft(now).count(), 2 * hour - 30);
}

TEST(HelperCommitmentTest, AfterARebootTheTimeLeftNeverPassesADayFromTheStart) {
    HelperCommitment generous = commitment;
    generous.remaining = Seconds{10 * day};
    generous.capRemaining = Seconds{10 * day};
    const ClockReading now = look("boot 2", 40, 20 * hour);
    EXPECT_EQ(generous.timeLeft(now).count(), 4 * hour);
    EXPECT_EQ(generous.timeLeft(look("boot 2", 40, day)).count(), 0);
    EXPECT_EQ(generous.timeLeft(look("boot 2", 40, day + 5)).count(), -5);
}

TEST(HelperCommitmentTest, AClockThatWentBackIsTreatedAsAReboot) {
    HelperCommitment generous = commitment;
    generous.remaining = Seconds{10 * day};
    generous.capRemaining = Seconds{10 * day};
    EXPECT_EQ(generous.timeLeft(look("boot 1", 900, 20 * hour)).count(), 4 * hour);
}

TEST(HelperCommitmentTest, AfterARebootTheSmallestOfTheBudgetsCounts) {
    EXPECT_EQ(commitment.timeLeft(look("boot 2", 40, 600)).count(), 2 * hour - 600);
    HelperCommitment capped = commitment;
    capped.capRemaining = Seconds{hour};
    EXPECT_EQ(capped.timeLeft(look("boot 2", 40, 600)).count(), hour - 600);
}

TEST(HelperCommitmentTest, ARebootWithTheWallClockSetBackGivesNoTimeBack) {
    const ClockReading now = look("boot 2", 40, -5 * hour);
    EXPECT_EQ(commitment.timeLeft(now).count(), 2 * hour - 40);
}

TEST(HelperCommitmentTest, IsLiveWhileAnythingIsLeft) {
    EXPECT_TRUE(commitment.isLive(look("boot 1", uptime + 2 * hour - 0.001, 0)));
}

TEST(HelperCommitmentTest, IsNotLiveWithExactlyNothingLeft) {
    EXPECT_FALSE(commitment.isLive(look("boot 1", uptime + 2 * hour, 0)));
    EXPECT_FALSE(commitment.isLive(look("boot 1", uptime + 2 * hour + 1, 0)));
}

TEST(HelperCommitmentTest, EndsWhenTheTimeLeftWillHavePassedOnTheWallClock) {
    EXPECT_EQ(commitment.ends(look("boot 1", uptime, 0)), wallDate(wall + 2 * hour));
    // Whoever sets the clock back sees an earlier end; the span to it is the same.
    EXPECT_EQ(commitment.ends(look("boot 1", uptime + 60, 60 - hour)), wallDate(wall + hour));
    EXPECT_EQ(commitment.ends(look("boot 1", uptime + 3 * hour, 0)), wallDate(wall - hour));
}

TEST(HelperCommitmentTest, RebasingChargesBothBudgetsAndMovesTheCheckpoint) {
    const ClockReading now = look("boot 1", uptime + 600, -hour);
    HelperCommitment expected = commitment;
    expected.remaining = Seconds{2 * hour - 600};
    expected.capRemaining = Seconds{day - 600};
    expected.checkpoint = now;
    EXPECT_EQ(commitment.rebased(now), expected);
}

TEST(HelperCommitmentTest, RebasingTwiceChargesNothingTheSecondTime) {
    const std::vector<ClockReading> readings{look("boot 1", uptime + 600, 600),
                                             look("boot 2", 40, 600), look("boot 1", 900, 600)};
    for (const ClockReading& now : readings) {
        const HelperCommitment once = commitment.rebased(now);
        EXPECT_EQ(once.rebased(now), once);
    }
}

TEST(HelperCommitmentTest, RebasingKeepsTheTimeLeft) {
    HelperCommitment generous = commitment;
    generous.remaining = Seconds{10 * day};
    const std::vector<ClockReading> readings{
        look("boot 1", uptime + 600, 600), look("boot 1", uptime + 3 * day, 0),
        look("boot 2", 40, 600),           look("boot 2", 40, 23 * hour),
        look("boot 2", 40, 3 * day),       look("boot 2", 40, -hour),
        look("boot 1", 900, 22 * hour)};
    for (const HelperCommitment& before : {commitment, generous}) {
        for (const ClockReading& now : readings) {
            EXPECT_EQ(before.rebased(now).timeLeft(now), before.timeLeft(now));
        }
    }
}

TEST(HelperCommitmentTest, RebasingAfterARebootClipsOnlyTheCap) {
    HelperCommitment generous = commitment;
    generous.remaining = Seconds{10 * day};
    generous.capRemaining = Seconds{10 * day};
    const HelperCommitment after = generous.rebased(look("boot 2", 40, 20 * hour));
    EXPECT_EQ(after.remaining.count(), 10 * day - 20 * hour);
    EXPECT_EQ(after.capRemaining.count(), 4 * hour);
    EXPECT_EQ(after.checkpoint, look("boot 2", 40, 20 * hour));
}

TEST(HelperCommitmentTest, RebasingWithinOneBootClipsNothing) {
    HelperCommitment generous = commitment;
    generous.capRemaining = Seconds{10 * day};
    const HelperCommitment after = generous.rebased(look("boot 1", uptime + 60, 3 * day));
    EXPECT_EQ(after.capRemaining.count(), 10 * day - 60);
}

TEST(HelperCommitmentTest, RebasingChangesNothingElse) {
    for (const bool locked : {true, false}) {
        HelperCommitment before = commitment;
        before.locked = locked;
        const HelperCommitment after = before.rebased(look("boot 2", 40, 600));
        EXPECT_EQ(after.appPath, before.appPath);
        EXPECT_EQ(after.uid, before.uid);
        EXPECT_EQ(after.startedWall, before.startedWall);
        EXPECT_EQ(after.locked, locked);
    }
}

}  // namespace
}  // namespace halvo
