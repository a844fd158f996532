#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "HalvoShared/Linux/UserFolders.hpp"

namespace halvo {
namespace {

std::optional<std::string> homeOfThisAccount() {
    const passwd* entry = getpwuid(getuid());
    return entry == nullptr ? std::nullopt : std::optional<std::string>(entry->pw_dir);
}

TEST(UserFoldersTest, TakesTheDataFolderThatTheEnvironmentNames) {
    EXPECT_EQ(userDataFolder({"/data", "/home/ann", "/account"}), "/data");
    EXPECT_EQ(userDataFolder({"/", "/home/ann", "/account"}), "/");
}

TEST(UserFoldersTest, TakesNoDataFolderThatIsNotAbsolute) {
    EXPECT_EQ(userDataFolder({"data", "/home/ann", {}}), "/home/ann/.local/share");
    EXPECT_EQ(userDataFolder({"~/data", "/home/ann", {}}), "/home/ann/.local/share");
    EXPECT_EQ(userDataFolder({"", "/home/ann", {}}), "/home/ann/.local/share");
}

TEST(UserFoldersTest, TakesTheHomeThatTheEnvironmentNames) {
    EXPECT_EQ(userDataFolder({{}, "/home/ann", "/account"}), "/home/ann/.local/share");
    EXPECT_EQ(userDataFolder({{}, "/home/ann/", "/account"}), "/home/ann/.local/share");
    EXPECT_EQ(userDataFolder({{}, "/", "/account"}), "/.local/share");
}

TEST(UserFoldersTest, TakesTheHomeOfTheAccountWhenTheEnvironmentNamesNone) {
    EXPECT_EQ(userDataFolder({{}, {}, "/account"}), "/account/.local/share");
    EXPECT_EQ(userDataFolder({{}, "", "/account"}), "/account/.local/share");
    EXPECT_EQ(userDataFolder({{}, "home/ann", "/account"}), "/account/.local/share");
}

TEST(UserFoldersTest, TakesTheRootFolderWhenNobodyNamesAHome) {
    EXPECT_EQ(userDataFolder({}), "/.local/share");
    EXPECT_EQ(userDataFolder({{}, {}, "none"}), "/.local/share");
}

TEST(UserFoldersTest, HasAFolderForAGroupWithAPlainName) {
    EXPECT_EQ(groupFolder("/data", "group.example.halvo"), "/data/group.example.halvo");
    EXPECT_EQ(groupFolder("/data/", "a"), "/data/a");
    EXPECT_EQ(groupFolder("/", "a"), "/a");
    EXPECT_EQ(groupFolder("/data", "..."), "/data/...");
    EXPECT_EQ(groupFolder("/data", "a b"), "/data/a b");
}

TEST(UserFoldersTest, HasAFolderForThoseWithoutAGroup) {
    EXPECT_EQ(groupFolder("/data", std::nullopt), "/data/Halvo-NoGroup");
    EXPECT_EQ(groupFolder("/", std::nullopt), "/Halvo-NoGroup");
}

TEST(UserFoldersTest, HasNoOtherFolderForAGroupWhoseNameIsNoneOfAFolder) {
    for (const std::string& identifier :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/b"),
          std::string("/a"), std::string("a/"), std::string("a\0b", 3), std::string(1, '\0')}) {
        EXPECT_EQ(groupFolder("/data", identifier), "/data/Halvo-NoGroup") << identifier;
    }
}

TEST(UserFoldersTest, ReadsTheEnvironmentAsItIsNow) {
    ASSERT_EQ(setenv("HOME", "/home/ann", 1), 0);
    ASSERT_EQ(setenv("XDG_DATA_HOME", "/data", 1), 0);
    EXPECT_EQ(UserPlaces::current(), (UserPlaces{"/data", "/home/ann", {}}));
    ASSERT_EQ(unsetenv("XDG_DATA_HOME"), 0);
    EXPECT_EQ(UserPlaces::current(), (UserPlaces{{}, "/home/ann", {}}));
}

TEST(UserFoldersTest, AsksForTheAccountWhenTheEnvironmentDoesNotTell) {
    ASSERT_TRUE(homeOfThisAccount().has_value());
    ASSERT_EQ(unsetenv("XDG_DATA_HOME"), 0);
    ASSERT_EQ(unsetenv("HOME"), 0);
    EXPECT_EQ(UserPlaces::current(), (UserPlaces{{}, {}, homeOfThisAccount()}));
    ASSERT_EQ(setenv("HOME", "ann", 1), 0);
    EXPECT_EQ(UserPlaces::current(), (UserPlaces{{}, "ann", homeOfThisAccount()}));
}

}  // namespace
}  // namespace halvo
