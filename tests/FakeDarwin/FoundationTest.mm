// What the tests of the macOS layer do not show of the stand-ins.
#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "FakeDarwin.hpp"
#include "FakeFoundation.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace {

using halvo::foundationText;
using halvo::textOf;

// Unicode, table 3-7.
TEST(FoundationTest, KeepsTextAsItIsAndMakesNoneOfWhatIsNotUTF8) {
    @autoreleasepool {
        for (const std::string& each : std::vector<std::string>{
                 "", std::string("a\0b", 3), "\x7F", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                 "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
            EXPECT_EQ(textOf(foundationText(each)), each);
        }
        for (const char* each :
             {"\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xEF\xBF",
              "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "a\xFF"}) {
            EXPECT_EQ(foundationText(each), nil);
        }
    }
}

TEST(FoundationTest, CountsAndComparesInUTF16WhichHoldsMoreThanUTF8) {
    @autoreleasepool {
        EXPECT_EQ(textOf(@"plain"), "plain");
        EXPECT_EQ(textOf(@"gr\u00fc\u00df \U0001F600"), "grüß \xF0\x9F\x98\x80");
        EXPECT_EQ(@"gr\u00fc\u00df \U0001F600".length, 7U);
        EXPECT_TRUE([@"plain" isEqualToString:foundationText("plain")]);
        EXPECT_TRUE([foundationText("grüß") isEqual:@"gr\u00fc\u00df"]);
        EXPECT_FALSE([@"plain" isEqualToString:@"Plain"]);
        EXPECT_FALSE([@"plain" isEqual:[NSObject new]]);
        NSString* lone = fake::loneSurrogate();
        EXPECT_EQ(lone.length, 1U);
        EXPECT_EQ([lone dataUsingEncoding:NSUTF8StringEncoding], nil);
        EXPECT_TRUE([lone isEqual:lone]);
    }
}

TEST(FoundationTest, RefusesNilWhereFoundationThrows) {
    @autoreleasepool {
        NSString* nothing = nil;
        EXPECT_DEATH([[NSMutableArray array] addObject:nothing], "nil as an element");
        EXPECT_DEATH((void)[[NSBundle alloc] initWithPath:nothing], "nil as a bundle's path");
        EXPECT_DEATH((void)[NSURL fileURLWithPath:nothing], "nil as a path");
        EXPECT_DEATH((void)[[NSXPCListener alloc] initWithMachServiceName:nothing],
                     "nil as the name of a Mach service");
        NSXPCListener* listener = [[NSXPCListener alloc] initWithMachServiceName:@"service"];
        EXPECT_DEATH([listener setConnectionCodeSigningRequirement:nothing],
                     "nil as a code-signing requirement");
    }
}

TEST(FoundationTest, GivesATaskTheEnvironmentOfTheProcessWithoutAnother) {
    fake::reset();
    @autoreleasepool {
        setenv("HALVO_TASK", "yes", 1);
        NSTask* task = [[NSTask alloc] init];
        task.executableURL = [NSURL fileURLWithPath:@"/nowhere"];
        EXPECT_TRUE([task launchAndReturnError:nil]);
        unsetenv("HALVO_TASK");
        EXPECT_EQ(fake::world().launches.at(0).environment.at("HALVO_TASK"), "yes");
    }
    EXPECT_EQ(fake::liveObjects("NSTask"), 0);
}

}  // namespace
