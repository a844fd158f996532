#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

#include "examples/SampleApp/Wording.hpp"

namespace halvo::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class WordingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(WordingTest, CountsTheTimeLeftDown) {
    EXPECT_EQ(timeLeft(Seconds{86400}), "24:00:00");
    EXPECT_EQ(timeLeft(Seconds{3723}), "1:02:03");
    EXPECT_EQ(timeLeft(Seconds{3600}), "1:00:00");
    EXPECT_EQ(timeLeft(Seconds{3599.5}), "1:00:00");
    EXPECT_EQ(timeLeft(Seconds{3599}), "59:59");
    EXPECT_EQ(timeLeft(Seconds{0.1}), "0:01");
    EXPECT_EQ(timeLeft(Seconds{0}), "0:00");
    EXPECT_EQ(timeLeft(Seconds{-5}), "0:00");
    EXPECT_EQ(timeLeft(Seconds{std::numeric_limits<double>::quiet_NaN()}), "0:00");
    EXPECT_EQ(timeLeft(Seconds{1e300}), "70389528:00:00");
}

TEST_F(WordingTest, NamesTheDayAndTheTime) {
    EXPECT_EQ(clockTime(wallDate(1732199527.9)), "Thu 14:32:07");
    EXPECT_EQ(clockTime(wallDate(-1e300)), "an unknown time");
    EXPECT_EQ(clockTime(wallDate(std::numeric_limits<double>::quiet_NaN())), "an unknown time");
}

TEST_F(WordingTest, SaysWhatHolds) {
    EXPECT_EQ(holding(HelperStatus::idle), "Nothing holds");
    EXPECT_EQ(holding({true, wallDate(1732199527), true}),
              "Ultra Hard mode holds until Thu 14:32:07, the app is locked");
    EXPECT_EQ(holding({true, wallDate(1732199527), false}),
              "Ultra Hard mode holds until Thu 14:32:07, the app is not locked");
    EXPECT_EQ(holding({true, std::nullopt, false}),
              "Ultra Hard mode holds until ?, the app is not locked");
}

TEST_F(WordingTest, SaysWhatIsTheMatterAndWhatToDo) {
    EXPECT_EQ(advice(HelperFailures::NotRunning{2}),
              "The helper is not running: No such file or directory. Is it installed, and is its "
              "service started?");
    EXPECT_THAT(advice(HelperFailures::Refused{}), HasSubstr("set-group-id"));
    EXPECT_THAT(advice(HelperFailures::Refused{true}), HasSubstr("start it anew"));
    EXPECT_THAT(advice(HelperFailures::TimedOut{}), StartsWith("The helper did not answer"));
    EXPECT_THAT(advice(HelperFailures::Rejected{"a.b.C", "No"}), EndsWith("update both."));
    EXPECT_THAT(advice(HelperFailures::NoResources{24}), EndsWith("try again."));
}

TEST_F(WordingTest, KeepsAnEndThatMovedByAHair) {
    const WallDate shown = wallDate(1000);
    EXPECT_EQ(steadyEnd(shown, wallDate(1001.4)), shown);
    EXPECT_EQ(steadyEnd(shown, wallDate(998.6)), shown);
    EXPECT_EQ(steadyEnd(shown, wallDate(1002)), wallDate(1002));
    EXPECT_EQ(steadyEnd(shown, wallDate(998)), wallDate(998));
}

}  // namespace
}  // namespace halvo::testing
