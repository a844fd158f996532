#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

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

void set(const char* name, const char* value) {
    ASSERT_EQ(value == nullptr ? unsetenv(name) : setenv(name, value, 1), 0);
}

// The environment of a test's own home, without anything else.
class AppGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        set("HOME", home.path().c_str());
        set("XDG_DATA_HOME", nullptr);
    }

    TemporaryFolder home;
    std::string data = home / ".local/share";
    std::string noGroup = data + "/Halvo-NoGroup";
};

TEST_F(AppGroupTest, LiesWhereTheEnvironmentSaysNow) {
    const std::string ofAccount = getpwuid(getuid())->pw_dir + std::string("/.local/share/g");

    const struct {
        const char* dataHome;
        const char* home;
        std::string path;
    } rows[] = {{"/data", "/home/ann", "/data/g"},
                {"/data/", "/home/ann", "/data/g"},
                {"/", "/home/ann", "/g"},
                // Only an absolute path counts.
                {"data", "/home/ann", "/home/ann/.local/share/g"},
                {"~/data", "/home/ann", "/home/ann/.local/share/g"},
                {"", "/home/ann", "/home/ann/.local/share/g"},
                {nullptr, "/home/ann", "/home/ann/.local/share/g"},
                {nullptr, "/home/ann/", "/home/ann/.local/share/g"},
                {nullptr, "/", "/.local/share/g"},
                {nullptr, nullptr, ofAccount},
                {nullptr, "", ofAccount},
                {nullptr, "home/ann", ofAccount}};

    for (const auto& row : rows) {
        set("XDG_DATA_HOME", row.dataHome);
        set("HOME", row.home);
        EXPECT_EQ(AppGroup::pathOf("g"), row.path);
    }
}

TEST_F(AppGroupTest, LiesInTheRootFolderForAnAccountWithoutAHome) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    testing::expectInChild([] {
        testing::become({54321, 54321});
        set("HOME", nullptr);
        EXPECT_EQ(AppGroup::pathOf("g"), "/.local/share/g");
    });
}

TEST_F(AppGroupTest, HasAFolderOfItsOwnWhenItsIdentifierIsTheNameOfOne) {
    for (const std::string identifier : {"group.example.halvo", "a", "...", "a b"}) {
        EXPECT_EQ(AppGroup::pathOf(identifier), data + "/" + identifier);
    }
    EXPECT_EQ(AppGroup::pathOf(std::nullopt), noGroup);
    for (const std::string& identifier :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/b"),
          std::string("/a"), std::string("../a"), std::string("a/"), std::string("a\0b", 3),
          std::string(1, '\0')}) {
        EXPECT_EQ(AppGroup::pathOf(identifier), noGroup) << identifier;
    }
    EXPECT_TRUE(fs::is_empty(home.path())) << "nothing was made";
}

TEST_F(AppGroupTest, MakesAFolderThatIsItsOwnersOnlyAndLeavesOneThatIsThere) {
    for (const auto& group :
         {std::optional<std::string>("group.a"), std::optional<std::string>()}) {
        for (int count = 0; count < 2; ++count) {
            const std::string folder = AppGroup::containerOf(group);
            EXPECT_EQ(folder, AppGroup::pathOf(group));
            EXPECT_EQ(permissionsOf(folder), 0700U);
            fs::permissions(folder, fs::perms{0750});
            writeTestFile(folder + "/record.json", "{}");
            EXPECT_EQ(AppGroup::containerOf(group), folder);
            EXPECT_EQ(permissionsOf(folder), 0750U);
            EXPECT_EQ(testing::readTestFile(folder + "/record.json"), "{}");
            fs::remove_all(folder);
        }
    }
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
    EXPECT_EQ(program.says("identifier"), "group.example.halvo");
    EXPECT_EQ(program.says("container", {"HOME=" + home.path()}), data + "/group.example.halvo");
    EXPECT_TRUE(fs::is_directory(data + "/group.example.halvo"));
    const BundledProgram extension("Halvo.app/Contents/PlugIns/Widget.appex", groupMember);
    EXPECT_EQ(extension.says("container", {"XDG_DATA_HOME=" + home.path()}),
              home / "group.example.halvo");
    const BundledProgram none("Halvo.app", "<key>HalvoAppGroup</key><true/>");
    EXPECT_EQ(none.says("identifier"), "(none)");
    EXPECT_EQ(none.says("container", {"HOME=" + home.path()}), noGroup);
}

// The tests' own bundle names no group.
TEST_F(AppGroupTest, LooksForTheGroupOfThisProcess) {
    EXPECT_EQ(AppGroup::identifier(), std::nullopt);
    EXPECT_EQ(AppGroup::container(), noGroup);
}

}  // namespace
}  // namespace halvo
