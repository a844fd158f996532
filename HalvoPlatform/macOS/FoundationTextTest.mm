#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

TEST(FoundationTextTest, IsTheTextInUTF8BothWays) {
    @autoreleasepool {
        EXPECT_EQ(textOf(@"Hälvö 🌗"), "Hälvö 🌗");
        EXPECT_TRUE([foundationText("Hälvö 🌗") isEqualToString:@"Hälvö 🌗"]);
        for (const std::string& text : {"Halvo"s, ""s, "a\0b"s, "\0"s, "a\0"s, "\0\0a"s}) {
            EXPECT_EQ([foundationText(text) length], text.size());
            EXPECT_EQ(textOf(foundationText(text)), text);
            EXPECT_EQ(textOf(knownFoundationText(text)), text);
        }
    }
}

TEST(FoundationTextTest, IsNoneWhereThereIsNoneThatBothCanHold) {
    @autoreleasepool {
        EXPECT_EQ(textOf(nil), std::nullopt);
        EXPECT_EQ(textOf(fake::loneSurrogate()), std::nullopt);
        for (const char* bytes : {"\xFF", "Halvo\xC3", "\xC3(", "H\xE4lvo"}) {
            EXPECT_EQ(foundationText(bytes), nil) << bytes;
        }
    }
}

TEST(FoundationTextDeathTest, EndsTheProcessForATextOfOurOwnThatIsNone) {
    EXPECT_DEATH(knownFoundationText("\xFF"), "A text of our own that is not UTF-8");
}

TEST(FoundationTextTest, LeavesNothingBehind) {
    const long texts = fake::liveObjects("NSString");
    const long bytes = fake::liveObjects("NSData");
    @autoreleasepool {
        for (const char* text : {"Hälvö", "", "\xFF"}) {
            textOf(foundationText(text));
        }
        textOf(fake::loneSurrogate());
    }
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
    EXPECT_EQ(fake::liveObjects("NSData"), bytes);
}

}  // namespace
}  // namespace halvo
