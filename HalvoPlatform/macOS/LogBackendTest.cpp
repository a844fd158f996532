#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "HalvoPlatform/Log.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

namespace halvo {
namespace {

class LogTest : public ::testing::Test {
  protected:
    LogTest() { fake::reset(); }

    static std::vector<fake::LogEntry> said() { return fake::world().log; }
};

TEST_F(LogTest, GoesToTheHelpersPlaceInTheUnifiedLog) {
    HALVO_LOG_ERROR(helperLog, "The helper runs only as root, from launchd");
    EXPECT_EQ(said(),
              (std::vector<fake::LogEntry>{
                  {"app.halvo", "Helper", true, "The helper runs only as root, from launchd"}}));
}

TEST_F(LogTest, KnowsTheTwoLevels) {
    HALVO_LOG_DEFAULT(helperLog, "a change");
    HALVO_LOG_ERROR(helperLog, "a refusal");
    EXPECT_EQ(said(), (std::vector<fake::LogEntry>{{"app.halvo", "Helper", false, "a change"},
                                                   {"app.halvo", "Helper", true, "a refusal"}}));
}

TEST_F(LogTest, GoesWhereItsLoggerSays) {
    constexpr Logger other{"com.example", "Other"};
    HALVO_LOG_DEFAULT(other, "a change");
    EXPECT_EQ(said(), (std::vector<fake::LogEntry>{{"com.example", "Other", false, "a change"}}));
}

TEST_F(LogTest, PutsATextInThePlaceOfItsPlaceholder) {
    HALVO_LOG_DEFAULT(helperLog, "Ultra Hard mode let go: %{public}s", "ended");
    const std::string text = "Hälvö %d %n";
    HALVO_LOG_DEFAULT(helperLog, "%{public}s", text.c_str());
    EXPECT_EQ(fake::notices(),
              (std::vector<std::string>{"Ultra Hard mode let go: ended", "Hälvö %d %n"}));
}

TEST_F(LogTest, PutsNumbersInThePlacesOfTheirPlaceholders) {
    HALVO_LOG_DEFAULT(helperLog, "Holding Ultra Hard mode for %{public}ld s", 7200L);
    HALVO_LOG_DEFAULT(helperLog, "%{public}ld", std::numeric_limits<long>::min());
    HALVO_LOG_DEFAULT(helperLog, "%d", std::numeric_limits<int>::min());
    EXPECT_EQ(fake::notices(), (std::vector<std::string>{"Holding Ultra Hard mode for 7200 s",
                                                         "-9223372036854775808", "-2147483648"}));
}

TEST_F(LogTest, PutsSeveralArgumentsInTheirOrder) {
    HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d", "lock", 1);
    HALVO_LOG_ERROR(helperLog, "%d%{public}ld%{public}s%d", 1, 2L, "3", 4);
    EXPECT_EQ(fake::errors(), (std::vector<std::string>{"Couldn't lock Halvo: errno 1", "1234"}));
}

TEST_F(LogTest, LooksAtItsArgumentsOnce) {
    int count = 0;
    HALVO_LOG_ERROR(helperLog, "%d", ++count);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(fake::errors(), std::vector<std::string>{"1"});
}

}  // namespace
}  // namespace halvo
