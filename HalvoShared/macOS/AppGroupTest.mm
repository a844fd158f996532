#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "HalvoShared/AppGroup.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

namespace fs = std::filesystem;

using testing::TemporaryFolder;
using testing::writeTestFile;

class DarwinAppGroupTest : public ::testing::Test {
  protected:
    DarwinAppGroupTest() {
        fake::reset();
        fake::world().groupContainers["group.a"] = groups + "/group.a";
        fake::world().applicationSupport = support;
    }

    TemporaryFolder home;
    std::string groups = home / "Library/Group Containers";
    std::string support = home / "Library/Application Support";
    std::string noGroup = support + "/Halvo-NoGroup";
};

TEST_F(DarwinAppGroupTest, HasTheFolderThatTheSystemHasForIt) {
    EXPECT_EQ(AppGroup::containerOf("group.a"), groups + "/group.a");
    EXPECT_TRUE(fs::is_directory(groups + "/group.a")) << "made when it is missing";
    EXPECT_FALSE(fs::exists(noGroup));
}

TEST_F(DarwinAppGroupTest, HasAPathWithoutItsFolderBeingMade) {
    EXPECT_EQ(AppGroup::pathOf("group.a"), groups + "/group.a");
    EXPECT_EQ(AppGroup::pathOf(std::nullopt), noGroup);
    EXPECT_TRUE(fs::is_empty(home.path()));
    fs::create_directories(groups);
    writeTestFile(groups + "/group.a", "a file in its place");
    EXPECT_EQ(AppGroup::pathOf("group.a"), noGroup);
    EXPECT_FALSE(fs::exists(noGroup));
}

// Its container has a URL all the same, which says nothing: Apple's documentation of
// containerURLForSecurityApplicationGroupIdentifier: has the caller test that the folder can be
// reached.
TEST_F(DarwinAppGroupTest, TakesAGroupThatTheProcessMayNotUseForNone) {
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), noGroup);
    EXPECT_TRUE(fs::is_directory(noGroup)) << "made with the folders above it";
    for (const char* identifier : {"group.b", "group.a.b", "Group.a", "", "group.\xFF"}) {
        EXPECT_EQ(AppGroup::containerOf(identifier), noGroup) << identifier;
    }
}

TEST_F(DarwinAppGroupTest, TakesAGroupWhoseFolderCannotBeUsedForNone) {
    // Read-only for others than root.
    fake::world().groupContainers["group.a"] = "/";
    testing::expectInChild([&] {
        if (getuid() == 0) {
            testing::become({65534, 65534});
        }
        EXPECT_EQ(AppGroup::containerOf("group.a"), noGroup);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
    });
    fake::world().groupContainers["group.a"] = groups + "/group.a";
    fs::create_directories(groups);
    writeTestFile(groups + "/group.a", "a file in its place");
    fs::permissions(groups + "/group.a", fs::perms{0777});
    EXPECT_EQ(AppGroup::containerOf("group.a"), noGroup);
    fs::remove(groups + "/group.a");
    EXPECT_EQ(AppGroup::containerOf("group.a"), groups + "/group.a");
}

TEST_F(DarwinAppGroupTest, KeepsWhatIsInTheFolderAlready) {
    fs::create_directories(noGroup);
    writeTestFile(noGroup + "/keepalive.json", "{}");
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), noGroup);
    EXPECT_EQ(testing::readTestFile(noGroup + "/keepalive.json"), "{}");
}

TEST_F(DarwinAppGroupTest, LooksAgainOnEachUse) {
    EXPECT_EQ(AppGroup::containerOf("group.a"), groups + "/group.a");
    fake::world().groupContainers.clear();
    EXPECT_EQ(AppGroup::containerOf("group.a"), noGroup);
    fs::remove_all(noGroup);
    EXPECT_EQ(AppGroup::containerOf("group.a"), noGroup);
    EXPECT_TRUE(fs::is_directory(noGroup));
    fake::world().applicationSupport = home / "Hälvö";
    EXPECT_EQ(AppGroup::containerOf("group.a"), home / "Hälvö/Halvo-NoGroup");
}

// Where records lie must not change with the state of the disk: others would look elsewhere.
TEST_F(DarwinAppGroupTest, HasTheSamePathWhenTheFolderCannotBeMade) {
    writeTestFile(home / "Library", "a file in its place");
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), noGroup);
    EXPECT_EQ(testing::readTestFile(home / "Library"), "a file in its place");
    EXPECT_TRUE(fake::world().log.empty());
}

TEST_F(DarwinAppGroupTest, IsThatOfTheMainBundle) {
    const auto describe = [](const std::string& value) {
        fake::world().mainInfo =
            "<plist version=\"1.0\"><dict><key>HalvoAppGroup</key>" + value + "</dict></plist>";
    };
    describe("<string>group.a</string>");
    EXPECT_EQ(AppGroup::identifier(), "group.a");
    EXPECT_EQ(AppGroup::container(), groups + "/group.a");
    describe("<true/>");
    EXPECT_EQ(AppGroup::identifier(), std::nullopt);
    EXPECT_EQ(AppGroup::container(), noGroup);
}

TEST_F(DarwinAppGroupTest, IsNowhereOnASystemWithoutAFolderForTheDataOfApps) {
    fake::world().applicationSupport = "";
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), "");
}

TEST_F(DarwinAppGroupTest, LeavesNothingBehind) {
    AppGroup::containerOf(std::nullopt);
    const long texts = fake::liveObjects("NSString");
    const long places = fake::liveObjects("NSURL");
    for (int count = 0; count < 10; ++count) {
        AppGroup::containerOf("group.a");
        AppGroup::containerOf("group.b");
        AppGroup::containerOf(std::nullopt);
    }
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
    EXPECT_EQ(fake::liveObjects("NSURL"), places);
}

}  // namespace
}  // namespace halvo
