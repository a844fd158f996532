#include <gtest/gtest.h>

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

// What becomes of the placeholders is the system's affair.
TEST_F(LogTest, LooksAtEachArgumentOnce) {
    int count = 0;
    HALVO_LOG_ERROR(helperLog, "%d %{public}ld", ++count, 7200L);
    EXPECT_EQ(fake::errors(), std::vector<std::string>{"1 7200"});
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
