#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "HalvoShared/AppGroup.hpp"
#include "tests/Support/BundledProgram.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

namespace fs = std::filesystem;

using testing::BundledProgram;
using testing::TemporaryFolder;
using testing::writeTestFile;

constexpr auto groupMember = "<key>HalvoAppGroup</key><string>group.example.halvo</string>";

mode_t permissionsOf(const std::string& path) {
    struct stat status{};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

// The environment of a test's own home, without anything else.
class AppGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(setenv("HOME", home.path().c_str(), 1), 0);
        ASSERT_EQ(unsetenv("XDG_DATA_HOME"), 0);
    }

    TemporaryFolder home;
    std::string data = home / ".local/share";
    std::string noGroup = data + "/Halvo-NoGroup";
};

TEST_F(AppGroupTest, IsTheStringInTheInfoPlist) {
    EXPECT_EQ(AppGroup::identifierIn(InfoDictionary{{"HalvoAppGroup", "group.a"}}), "group.a");
    EXPECT_EQ(AppGroup::identifierIn(InfoDictionary{{"HalvoAppGroup", ""}}), "");
    EXPECT_EQ(AppGroup::identifierIn(InfoDictionary{{"Other", "group.a"}}), std::nullopt);
    EXPECT_EQ(AppGroup::identifierIn(std::nullopt), std::nullopt);
}

TEST_F(AppGroupTest, HasItsFolderWhereTheUsersAppsKeepTheirData) {
    EXPECT_EQ(AppGroup::containerOf("group.a"), data + "/group.a");
    EXPECT_TRUE(fs::is_directory(data + "/group.a"));
    EXPECT_FALSE(fs::exists(noGroup));
}

TEST_F(AppGroupTest, MakesAFolderThatIsItsOwnersOnly) {
    for (const auto& group :
         {std::optional<std::string>("group.a"), std::optional<std::string>()}) {
        EXPECT_EQ(permissionsOf(AppGroup::containerOf(group)), 0700U);
    }
}

TEST_F(AppGroupTest, LeavesAFolderThatIsThereAsItIs) {
    fs::create_directories(data + "/group.a");
    fs::permissions(data + "/group.a", fs::perms{0750});
    writeTestFile(data + "/group.a/record.json", "{}");
    EXPECT_EQ(AppGroup::containerOf("group.a"), data + "/group.a");
    EXPECT_EQ(permissionsOf(data + "/group.a"), 0750U);
    EXPECT_EQ(testing::readTestFile(data + "/group.a/record.json"), "{}");
}

TEST_F(AppGroupTest, HasAFolderForThoseWithoutAGroup) {
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), noGroup);
    EXPECT_TRUE(fs::is_directory(noGroup));
}

TEST_F(AppGroupTest, TakesAnIdentifierThatIsNoNameOfAFolderForNoGroup) {
    for (const std::string& identifier :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/b"),
          std::string("../a"), std::string("a/"), std::string("a\0b", 3)}) {
        EXPECT_EQ(AppGroup::containerOf(identifier), noGroup) << identifier;
    }
}

TEST_F(AppGroupTest, FollowsTheEnvironmentOnEachUse) {
    EXPECT_EQ(AppGroup::containerOf("group.a"), data + "/group.a");
    const std::string other = home / "data";
    ASSERT_EQ(setenv("XDG_DATA_HOME", other.c_str(), 1), 0);
    EXPECT_EQ(AppGroup::containerOf("group.a"), other + "/group.a");
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), other + "/Halvo-NoGroup");
    EXPECT_TRUE(fs::is_directory(other + "/Halvo-NoGroup"));
}

TEST_F(AppGroupTest, MakesAFolderThatWasTakenAwayAgain) {
    const std::string folder = AppGroup::containerOf("group.a");
    fs::remove_all(folder);
    EXPECT_EQ(AppGroup::containerOf("group.a"), folder);
    EXPECT_TRUE(fs::is_directory(folder));
}

// Where records lie must not change with the state of the disk: others would look elsewhere.
TEST_F(AppGroupTest, HasTheSamePathWhenTheFolderCannotBeMade) {
    writeTestFile(home / ".local", "a file in its place");
    EXPECT_EQ(AppGroup::containerOf("group.a"), data + "/group.a");
    EXPECT_EQ(AppGroup::containerOf(std::nullopt), noGroup);
    EXPECT_EQ(testing::readTestFile(home / ".local"), "a file in its place");
}

TEST_F(AppGroupTest, IsThatOfTheBundleThatItsProgramLiesIn) {
    const BundledProgram program("Halvo.app", groupMember);
    const std::string environment = "HOME=" + home.path();
    EXPECT_EQ(program.says("identifier"), "group.example.halvo");
    EXPECT_EQ(program.says("container", {environment}), data + "/group.example.halvo");
    EXPECT_TRUE(fs::is_directory(data + "/group.example.halvo"));
}

TEST_F(AppGroupTest, IsSharedByAnExtension) {
    const BundledProgram program("Halvo.app/Contents/PlugIns/Widget.appex", groupMember);
    EXPECT_EQ(program.says("container", {"XDG_DATA_HOME=" + home.path()}),
              home / "group.example.halvo");
}

TEST_F(AppGroupTest, IsNoneWhereTheBundleNamesNone) {
    const BundledProgram program("Halvo.app", "<key>HalvoAppGroup</key><true/>");
    EXPECT_EQ(program.says("identifier"), "(none)");
    EXPECT_EQ(program.says("container", {"HOME=" + home.path()}), noGroup);
}

// The tests' own bundle names no group.
TEST_F(AppGroupTest, LooksForTheGroupOfThisProcess) {
    EXPECT_EQ(AppGroup::identifier(), std::nullopt);
    EXPECT_EQ(AppGroup::container(), noGroup);
}

}  // namespace
}  // namespace halvo
