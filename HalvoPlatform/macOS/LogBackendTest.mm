#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

namespace halvo {
namespace {

// The same macros where the log's own objects are Objective-C ones, which ARC counts.
TEST(LogFromObjectiveCTest, SaysTheSameAndLeavesNothingBehind) {
    fake::reset();
    const long texts = fake::liveObjects("NSString");
    @autoreleasepool {
        NSString* reason = foundationText("Hälvö is gone");
        HALVO_LOG_DEFAULT(helperLog, "a change");
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s (%d, %{public}ld)",
                        textOf(reason).value_or("").c_str(), 1, 2L);
    }
    EXPECT_EQ(fake::world().log,
              (std::vector<fake::LogEntry>{
                  {"app.halvo", "Helper", false, "a change"},
                  {"app.halvo", "Helper", true, "Couldn't open Halvo: Hälvö is gone (1, 2)"}}));
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
}

}  // namespace
}  // namespace halvo
