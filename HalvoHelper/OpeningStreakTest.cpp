#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelper/OpeningStreak.hpp"
#include "tests/Support/LogCapture.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

const std::string app = "/Applications/Halvo.app";

struct OpeningStreakTest : ::testing::Test {
    // An opening this long after the one before.
    long openAfter(double seconds, const std::string& path = app, std::uint32_t uid = 501) {
        now += Seconds{seconds};
        return streak.next(path, uid, now, "journalctl");
    }

    LogCapture log;
    OpeningStreak streak;
    Seconds now{};
};

TEST_F(OpeningStreakTest, BeginsWithTheFirstOpeningHoweverSoonAfterTheBoot) {
    EXPECT_EQ(openAfter(0), 0);
}

TEST_F(OpeningStreakTest, CountsOpeningsThatFollowSoon) {
    std::vector<long> failed;
    for (const double after : {100.0, 15.0, 16.0, 39.9, 40.0, 15.0, 3600.0, 39.9}) {
        failed.push_back(openAfter(after));
    }
    EXPECT_THAT(failed, ElementsAre(0, 1, 2, 3, 0, 1, 0, 1));
}

TEST_F(OpeningStreakTest, BeginsAnewForAnotherAppOrUser) {
    openAfter(100);
    EXPECT_EQ(openAfter(15), 1);
    EXPECT_EQ(openAfter(15, "/Applications/Other.app"), 0);
    EXPECT_EQ(openAfter(15, "/Applications/Other.app", 502), 0);
    EXPECT_EQ(openAfter(15, "/Applications/Other.app", 502), 1);
}

TEST_F(OpeningStreakTest, TellsTheSecondAndThenEachPowerOfTwo) {
    for (int turn = 0; turn <= 40; ++turn) {
        openAfter(15);
    }
    const std::string rest = " times in a row, and it didn't stay; its own messages: journalctl";
    EXPECT_THAT(log.errors(), ElementsAre("Opened Halvo 2" + rest, "Opened Halvo 4" + rest,
                                          "Opened Halvo 8" + rest, "Opened Halvo 16" + rest,
                                          "Opened Halvo 32" + rest));
    // And those of the next streak.
    openAfter(3600);
    openAfter(15);
    EXPECT_THAT(log.errors(), SizeIs(5));
    openAfter(15);
    EXPECT_THAT(log.errors(), SizeIs(6));
}

}  // namespace
}  // namespace halvo::testing
