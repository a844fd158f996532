#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

TEST(FoundationTextTest, IsTheTextInUTF8) {
    @autoreleasepool {
        EXPECT_EQ(textOf(@"Halvo"), "Halvo");
        EXPECT_EQ(textOf(@"Hälvö 🌗"), "Hälvö 🌗");
        EXPECT_EQ(textOf(@""), "");
    }
}

TEST(FoundationTextTest, TellsNoTextFromAnEmptyOne) {
    @autoreleasepool {
        EXPECT_EQ(textOf(nil), std::nullopt);
    }
}

TEST(FoundationTextTest, HasNoTextWhereUTF8CannotHoldIt) {
    @autoreleasepool {
        EXPECT_EQ(textOf(fake::loneSurrogate()), std::nullopt);
    }
}

TEST(FoundationTextTest, MakesTheTextThatFoundationWouldMake) {
    @autoreleasepool {
        EXPECT_TRUE([foundationText("Halvo") isEqualToString:@"Halvo"]);
        EXPECT_TRUE([foundationText("Hälvö 🌗") isEqualToString:@"Hälvö 🌗"]);
        EXPECT_TRUE([foundationText("") isEqualToString:@""]);
    }
}

TEST(FoundationTextTest, KeepsZeroBytesBothWays) {
    @autoreleasepool {
        for (const std::string& text : {"a\0b"s, "\0"s, "a\0"s, "\0\0a"s}) {
            EXPECT_EQ([foundationText(text) length], text.size());
            EXPECT_EQ(textOf(foundationText(text)), text);
        }
    }
}

TEST(FoundationTextTest, MakesNothingOfWhatIsNotUTF8) {
    @autoreleasepool {
        for (const char* bytes : {"\xFF", "Halvo\xC3", "\xC3(", "H\xE4lvo"}) {
            EXPECT_EQ(foundationText(bytes), nil) << bytes;
        }
    }
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
