#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelper/Linux/RefusalLog.hpp"
#include "tests/Support/LogCapture.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RefusalLogTest : public ::testing::Test {
  protected:
    // Refuses `count` callers at `time`.
    void refuse(double time, int count = 1, const std::string& why = "why") {
        for (int i = 0; i < count; ++i) {
            refusals.refused(Seconds{time}, why);
        }
    }

    // What was said since the last time.
    std::vector<std::string> said() {
        auto errors = log.errors();
        EXPECT_EQ(errors.size(), log.messages().size());
        log.clear();
        return errors;
    }

    LogCapture log;
    RefusalLog refusals;
    const std::string line = "Refused a caller: why";
    const std::vector<std::string> tenLines = std::vector<std::string>(Limits::refusalLines, line);
};

TEST_F(RefusalLogTest, SaysWhyACallerWasRefused) {
    refuse(1000, 1, "it is %d not 50% of the %{public}s app");
    EXPECT_THAT(said(), ElementsAre("Refused a caller: it is %d not 50% of the %{public}s app"));
}

TEST_F(RefusalLogTest, SaysNoMoreThanTenLinesAMinute) {
    refuse(1000, 1000);
    EXPECT_EQ(said(), tenLines);
    refuse(1059.999, 1000);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(RefusalLogTest, TellsHowManyMoreThereWere) {
    refuse(1000, 12);
    EXPECT_EQ(said(), tenLines);
    refuse(1060);
    EXPECT_THAT(said(), ElementsAre("Refused 2 more callers", line));
    // And only once.
    refuse(1120);
    EXPECT_THAT(said(), ElementsAre(line));
}

TEST_F(RefusalLogTest, TellsNothingMoreWhenThereWereNoMore) {
    refuse(1000, 10);
    EXPECT_EQ(said(), tenLines);
    refuse(1060);
    EXPECT_THAT(said(), ElementsAre(line));
}

TEST_F(RefusalLogTest, CountsTheMinuteFromItsFirstLine) {
    refuse(1000, 5);
    refuse(1059, 5);
    EXPECT_EQ(said(), tenLines);
    refuse(1059.5);
    EXPECT_THAT(said(), IsEmpty());
    refuse(1060, 9);
    EXPECT_EQ(said().size(), 10U);
    // The tenth of this minute, and one too many.
    refuse(1119);
    refuse(1119.9);
    EXPECT_THAT(said(), ElementsAre(line));
    refuse(1120);
    EXPECT_THAT(said(), ElementsAre("Refused 1 more callers", line));
}

TEST_F(RefusalLogTest, CountsTheFirstMinuteFromItsFirstLineToo) {
    refuse(50, 10);
    EXPECT_EQ(said(), tenLines);
    refuse(109);
    EXPECT_THAT(said(), IsEmpty());
    refuse(110);
    EXPECT_THAT(said(), ElementsAre("Refused 1 more callers", line));
}

TEST_F(RefusalLogTest, StartsAMinuteAtTheVeryFirstLineWhateverTheClockSays) {
    refuse(0, 10);
    refuse(59);
    EXPECT_EQ(said(), tenLines);
    refuse(60);
    EXPECT_THAT(said(), ElementsAre("Refused 1 more callers", line));
}

TEST_F(RefusalLogTest, StartsAfterALongSilenceAfresh) {
    refuse(5, 10);
    EXPECT_EQ(said(), tenLines);
    refuse(1'000'000, 11);
    EXPECT_EQ(said(), tenLines);
}

}  // namespace
}  // namespace halvo::testing
