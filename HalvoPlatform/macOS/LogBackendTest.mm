#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

namespace halvo {
namespace {

class LogTest : public ::testing::Test {
  protected:
    LogTest() { fake::reset(); }

    static std::vector<fake::LogEntry> said() { return fake::world().log; }
};

TEST_F(LogTest, GoesWhereItsLoggerSaysAtTwoLevels) {
    constexpr Logger other{"com.example", "Other"};
    HALVO_LOG_DEFAULT(helperLog, "a change");
    HALVO_LOG_ERROR(helperLog, "a refusal");
    HALVO_LOG_DEFAULT(other, "a change");
    EXPECT_EQ(said(), (std::vector<fake::LogEntry>{{"app.halvo", "Helper", false, "a change"},
                                                   {"app.halvo", "Helper", true, "a refusal"},
                                                   {"com.example", "Other", false, "a change"}}));
}

TEST_F(LogTest, PutsArgumentsInThePlacesOfTheirPlaceholders) {
    int count = 0;
    HALVO_LOG_ERROR(helperLog, "%d", ++count);
    HALVO_LOG_ERROR(helperLog, "%{public}s", std::string("Hälvö %d %n").c_str());
    HALVO_LOG_ERROR(helperLog, "for %{public}ld s", 7200L);
    HALVO_LOG_ERROR(helperLog, "%{public}ld", std::numeric_limits<long>::min());
    HALVO_LOG_ERROR(helperLog, "%d", std::numeric_limits<int>::min());
    HALVO_LOG_ERROR(helperLog, "%d%{public}ld%{public}s%d", 1, 2L, "3", 4);
    EXPECT_EQ(fake::errors(),
              (std::vector<std::string>{"1", "Hälvö %d %n", "for 7200 s", "-9223372036854775808",
                                        "-2147483648", "1234"}));
    EXPECT_EQ(count, 1) << "looked at once";
}

// The log's own objects are Objective-C ones here, which ARC counts.
TEST_F(LogTest, LeavesNothingBehind) {
    const long texts = fake::liveObjects("NSString");
    @autoreleasepool {
        NSString* reason = foundationText("Hälvö is gone");
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s (%d, %{public}ld)",
                        textOf(reason).value_or("").c_str(), 1, 2L);
    }
    EXPECT_EQ(fake::errors(),
              std::vector<std::string>{"Couldn't open Halvo: Hälvö is gone (1, 2)"});
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
}

}  // namespace
}  // namespace halvo
