#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "FakeDarwin.hpp"
#include "FakeFoundation.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace {

using halvo::testing::TemporaryFolder;
using halvo::testing::writeTestFile;

class FoundationTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    void TearDown() override { fake::reset(); }
};

NSString* text(const std::string& bytes) {
    return [[NSString alloc] initWithBytes:bytes.data()
                                    length:bytes.size()
                                  encoding:NSUTF8StringEncoding];
}

std::string bytes(NSString* string) {
    NSData* data = [string dataUsingEncoding:NSUTF8StringEncoding];
    return {static_cast<const char*>(data.bytes), data.length};
}

TEST_F(FoundationTest, KeepsTextAsItIs) {
    @autoreleasepool {
        for (const std::string& each : std::vector<std::string>{
                 "", "a", std::string("a\0b", 3), "\x7F", "ä", "\xDF\xBF", "\xE0\xA0\x80",
                 "\xED\x9F\xBF", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
            EXPECT_EQ(bytes(text(each)), each);
        }
    }
}

TEST_F(FoundationTest, MakesNoTextOfWhatIsNotUTF8) {
    @autoreleasepool {
        for (const std::string& each : std::vector<std::string>{
                 "\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xEF\xBF",
                 "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "a\xFF"}) {
            EXPECT_EQ(text(each), nil);
        }
    }
}

TEST_F(FoundationTest, ReadsBothKindsOfLiterals) {
    @autoreleasepool {
        EXPECT_EQ(bytes(@"plain"), "plain");
        EXPECT_EQ(bytes(@"gr\u00fc\u00df \U0001F600"), "grüß \xF0\x9F\x98\x80");
        EXPECT_EQ(@"gr\u00fc\u00df \U0001F600".length, 7U);
        EXPECT_TRUE([@"plain" isEqualToString:text("plain")]);
        EXPECT_TRUE([text("grüß") isEqual:@"gr\u00fc\u00df"]);
        EXPECT_FALSE([@"plain" isEqualToString:@"Plain"]);
        EXPECT_FALSE([@"plain" isEqual:[NSObject new]]);
    }
}

TEST_F(FoundationTest, HasATextThatUTF8CannotHold) {
    @autoreleasepool {
        NSString* lone = fake::loneSurrogate();
        EXPECT_EQ(lone.length, 1U);
        EXPECT_EQ([lone dataUsingEncoding:NSUTF8StringEncoding], nil);
        EXPECT_FALSE([lone isEqualToString:@""]);
        EXPECT_TRUE([lone isEqual:lone]);
    }
}

TEST_F(FoundationTest, RefusesNilWhereFoundationThrows) {
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

constexpr auto halvoInfo = R"(<plist version="1.0"><dict>
    <key>CFBundleExecutable</key><string>Halvo</string>
    <key>Count</key><integer>3</integer>
</dict></plist>)";

TEST_F(FoundationTest, ReadsABundleFromTheDisk) {
    @autoreleasepool {
        const TemporaryFolder folder;
        std::filesystem::create_directories(folder / "Halvo.app/Contents/MacOS");
        writeTestFile(folder / "Halvo.app/Contents/Info.plist", halvoInfo);
        NSBundle* bundle = [[NSBundle alloc] initWithPath:text(folder / "Halvo.app")];
        EXPECT_EQ(bundle.infoDictionary.count, 2U);
        EXPECT_EQ(bytes(bundle.infoDictionary[@"CFBundleExecutable"]), "Halvo");
        EXPECT_FALSE([bundle.infoDictionary[@"Count"] isKindOfClass:[NSString class]]);
        EXPECT_EQ(bundle.executablePath, nil);
        writeTestFile(folder / "Halvo.app/Contents/MacOS/Halvo", "");
        EXPECT_EQ(bytes(bundle.executablePath), folder / "Halvo.app/Contents/MacOS/Halvo");
    }
}

TEST_F(FoundationTest, HasNoBundleWhereThereIsNoFolder) {
    @autoreleasepool {
        const TemporaryFolder folder;
        writeTestFile(folder / "file", "");
        EXPECT_EQ([[NSBundle alloc] initWithPath:text(folder / "nothing")], nil);
        EXPECT_EQ([[NSBundle alloc] initWithPath:text(folder / "file")], nil);
    }
}

NSTask* sampleTask() {
    NSTask* task = [[NSTask alloc] init];
    task.executableURL = [NSURL fileURLWithPath:@"/bin/launchctl"];
    task.arguments = @[ @"one", @"two" ];
    task.environment = @{@"A" : @"1"};
    return task;
}

TEST_F(FoundationTest, WritesDownATask) {
    @autoreleasepool {
        std::vector<fake::Launch> seen;
        fake::world().onLaunch = [&](const fake::Launch& launch) { seen.push_back(launch); };
        NSTask* task = sampleTask();
        task.terminationHandler = ^(NSTask*) {
        };
        EXPECT_TRUE([task launchAndReturnError:nil]);
        const fake::Launch expected{"/bin/launchctl", {"one", "two"}, {{"A", "1"}}, true};
        EXPECT_EQ(fake::world().launches, std::vector{expected});
        EXPECT_EQ(seen, std::vector{expected});
        EXPECT_DEATH([task launchAndReturnError:nil], "launch a task twice");
    }
    EXPECT_EQ(fake::liveObjects("NSTask"), 0);
}

TEST_F(FoundationTest, GivesATaskItsOwnEnvironmentWithoutAnother) {
    @autoreleasepool {
        setenv("HALVO_TASK", "yes", 1);
        NSTask* task = sampleTask();
        task.environment = nil;
        EXPECT_TRUE([task launchAndReturnError:nil]);
        EXPECT_EQ(fake::world().launches.at(0).environment.at("HALVO_TASK"), "yes");
        EXPECT_FALSE(fake::world().launches.at(0).hasTerminationHandler);
        unsetenv("HALVO_TASK");
    }
}

}  // namespace
