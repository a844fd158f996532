#import <Foundation/Foundation.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
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

TEST_F(FoundationTest, FindsWhatADictionaryHolds) {
    @autoreleasepool {
        NSDictionary<NSString*, id>* dictionary = @{@"a" : @"1", @"b" : [NSObject new]};
        EXPECT_EQ(dictionary.count, 2U);
        EXPECT_EQ(bytes(dictionary[text("a")]), "1");
        EXPECT_EQ(dictionary[@"c"], nil);
        EXPECT_EQ(@{}.count, 0U);
        EXPECT_EQ(@[].count, 0U);
    }
    EXPECT_EQ(fake::liveObjects("NSDictionary"), 0);
}

TEST_F(FoundationTest, EnumeratesMoreThanFitsIntoOneBuffer) {
    @autoreleasepool {
        std::vector<NSString*> names;
        NSMutableArray<NSString*>* array = [NSMutableArray array];
        for (int i = 0; i < 40; ++i) {
            names.push_back(text(std::to_string(i)));
            [array addObject:names.back()];
        }
        NSDictionary* dictionary = [NSDictionary dictionaryWithObjects:names.data()
                                                               forKeys:names.data()
                                                                 count:names.size()];
        std::string fromDictionary;
        for (NSString* name in dictionary) {
            fromDictionary += bytes(dictionary[name]);
        }
        std::string fromArray;
        for (NSString* name in array) {
            fromArray += bytes(name);
        }
        EXPECT_EQ(fromArray.size(), 70U);
        EXPECT_EQ(fromArray, fromDictionary);
    }
}

TEST_F(FoundationTest, CopiesAMutableArray) {
    @autoreleasepool {
        NSMutableArray* array = [NSMutableArray array];
        [array addObject:@"a"];
        NSArray* copy = [array copy];
        [array addObject:@"b"];
        EXPECT_EQ(copy.count, 1U);
        EXPECT_EQ(array.count, 2U);
        EXPECT_EQ(copy.firstObject, @"a");
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

TEST_F(FoundationTest, KeepsADate) {
    @autoreleasepool {
        EXPECT_EQ([NSDate dateWithTimeIntervalSince1970:1.5].timeIntervalSince1970, 1.5);
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

TEST_F(FoundationTest, ReadsAFlatBundle) {
    @autoreleasepool {
        const TemporaryFolder folder;
        writeTestFile(folder / "Info.plist", halvoInfo);
        writeTestFile(folder / "Halvo", "");
        NSBundle* bundle = [[NSBundle alloc] initWithPath:text(folder.path())];
        EXPECT_EQ(bytes(bundle.executablePath), folder / "Halvo");
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

TEST_F(FoundationTest, KnowsNothingOfABundleWithoutAReadableInfoPlist) {
    @autoreleasepool {
        const TemporaryFolder folder;
        NSBundle* bundle = [[NSBundle alloc] initWithPath:text(folder.path())];
        EXPECT_EQ(bundle.infoDictionary.count, 0U);
        EXPECT_EQ(bundle.executablePath, nil);
        writeTestFile(folder / "Info.plist", "<plist version=\"1.0\"><string>a</string></plist>");
        EXPECT_EQ(bundle.infoDictionary.count, 0U);
    }
}

TEST_F(FoundationTest, HasTheMainBundleOfTheWorld) {
    @autoreleasepool {
        fake::world().mainInfo = halvoInfo;
        EXPECT_EQ(NSBundle.mainBundle.infoDictionary.count, 2U);
        EXPECT_EQ(bytes(NSBundle.mainBundle.executablePath), fake::world().mainExecutable);
        fake::world().mainExecutable.reset();
        EXPECT_EQ(NSBundle.mainBundle.executablePath, nil);
        fake::setMainInfo(@{fake::loneSurrogate() : @"value"});
        EXPECT_EQ(NSBundle.mainBundle.infoDictionary.count, 1U);
        fake::reset();
        EXPECT_EQ(NSBundle.mainBundle.infoDictionary.count, 0U);
    }
}

TEST_F(FoundationTest, KnowsTheContainersOfGroups) {
    @autoreleasepool {
        fake::world().groupContainers["group"] = "/container";
        NSFileManager* files = NSFileManager.defaultManager;
        EXPECT_EQ(bytes([files containerURLForSecurityApplicationGroupIdentifier:@"group"].path),
                  "/container");
        EXPECT_EQ(bytes([files containerURLForSecurityApplicationGroupIdentifier:@"other"].path),
                  "/proc/Group Containers/other");
    }
}

TEST_F(FoundationTest, MakesFolders) {
    @autoreleasepool {
        const TemporaryFolder folder;
        fake::world().applicationSupport = folder.path();
        NSFileManager* files = NSFileManager.defaultManager;
        NSURL* support = [files URLsForDirectory:NSApplicationSupportDirectory
                                       inDomains:NSUserDomainMask]
                             .firstObject;
        NSURL* inner = [[support URLByAppendingPathComponent:@"a"
                                                 isDirectory:YES] URLByAppendingPathComponent:@"b"
                                                                                  isDirectory:YES];
        NSError* error = nil;
        EXPECT_FALSE([files createDirectoryAtURL:inner
                     withIntermediateDirectories:NO
                                      attributes:nil
                                           error:&error]);
        EXPECT_EQ(bytes(error.localizedDescription), "No such file or directory");
        EXPECT_TRUE([files createDirectoryAtURL:inner
                    withIntermediateDirectories:YES
                                     attributes:nil
                                          error:nil]);
        EXPECT_TRUE(std::filesystem::is_directory(folder / "a/b"));
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

TEST_F(FoundationTest, SaysWhyATaskCannotBeLaunched) {
    @autoreleasepool {
        fake::world().launchError = "No such file";
        NSError* error = nil;
        EXPECT_FALSE([sampleTask() launchAndReturnError:&error]);
        EXPECT_EQ(bytes(error.localizedDescription), "No such file");
        EXPECT_TRUE(fake::world().launches.empty());
    }
}

}  // namespace
