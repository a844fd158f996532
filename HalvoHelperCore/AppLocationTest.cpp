#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelperCore/AppLocation.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::TemporaryFolder;
using testing::writeTestFile;

TEST(AppLocationTest, KnowsABundlePath) {
    struct Row {
        std::string path;
        bool isBundlePath;
    };

    const std::vector<Row> rows{
        {"/Applications/Halvo.app", true},
        {"/Users/anna/Applications/Halvo.app", true},
        {"/Applications/Sub/Halvo.app", true},
        {"/Halvo.app", true},
        {"/Applications/Two Words.app", true},
        {"/Applications/Hälvö 🍎.app", true},
        {"/Applications/Outer.app/Inner.app", true},
        {"/Applications/.Hidden.app", true},
        {"/Applications/..app", true},
        {"/Applications/...app", true},
        {"/Applications/.app", true},
        {"/Applications/..Sub/Halvo.app", true},
        {"/Applications/Sub../Halvo.app", true},
        // macOS has its own mind about those that exist: HalvoPlatform/macOS/PathsTest.mm.
        {"/private/Applications/None.app", true},
        {"", false},
        {"/", false},
        {".app", false},
        {"Halvo.app", false},
        {"Applications/Halvo.app", false},
        {" /Applications/Halvo.app", false},
        {"/Applications/Halvo", false},
        {"/Applications/Halvo.App", false},
        {"/Applications/Halvo.app/", false},
        {"/Applications/Halvo.app ", false},
        {"/Applications/Halvo.app\n", false},
        {"/Applications/Halvo.apps", false},
        {"/Applications/Xapp", false},
        {"/Applications/Halvo.app/Contents", false},
        {"/Applications/../Halvo.app", false},
        {"/../Halvo.app", false},
        {"/Applications/./Halvo.app", false},
        {"/./Halvo.app", false},
        {"/Applications//Halvo.app", false},
        {"//Applications/Halvo.app", false},
        {"/Applications/Halvo\0.app"s, false},
        {"/Applications/Halvo.app\0"s, false},
        {"/Applications/Halvo\xFF.app", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(AppLocation::isBundlePath(row.path), row.isBundlePath) << row.path;
    }
}

TEST(AppLocationTest, KnowsAPathThatCouldBeLocked) {
    EXPECT_TRUE(AppLocation::isLockablePath("/Applications/Gone.app"));
    EXPECT_TRUE(AppLocation::isLockablePath("/nowhere/Applications/Gone.app"));
    EXPECT_FALSE(AppLocation::isLockablePath("/Gone.app"));
    EXPECT_FALSE(AppLocation::isLockablePath("/Applications/Sub/Gone.app"));
    EXPECT_FALSE(AppLocation::isLockablePath("/MyApplications/Gone.app"));
    EXPECT_FALSE(AppLocation::isLockablePath("/Applications/Gone"));
}

class MayLockTest : public ::testing::Test {
  protected:
    // Makes the folder `relativePath` and returns its path.
    std::string makeFolder(const std::string& relativePath) const {
        std::filesystem::create_directories(folder / relativePath);
        return folder / relativePath;
    }

    TemporaryFolder folder;
};

TEST_F(MayLockTest, ABundleDirectlyInAFolderNamedApplications) {
    EXPECT_TRUE(AppLocation::mayLock(makeFolder("Applications/Halvo.app")));
    EXPECT_TRUE(AppLocation::mayLock(makeFolder("Users/anna/Applications/Halvo.app")));
}

TEST_F(MayLockTest, NotDeeperInIt) {
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("Applications/Sub/Halvo.app")));
}

TEST_F(MayLockTest, NotInAFolderOfAnotherName) {
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("applications/Halvo.app")));
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("MyApplications/Halvo.app")));
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("Applications2/Halvo.app")));
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("Applications.app")));
}

TEST_F(MayLockTest, NotWhatIsMissing) {
    makeFolder("Applications");
    EXPECT_FALSE(AppLocation::mayLock(folder / "Applications/Halvo.app"));
}

TEST_F(MayLockTest, NotAFile) {
    makeFolder("Applications");
    const std::string path = folder / "Applications/Halvo.app";
    writeTestFile(path, "");
    EXPECT_FALSE(AppLocation::mayLock(path));
}

TEST_F(MayLockTest, NotASymbolicLink) {
    makeFolder("Applications");
    const std::string target = makeFolder("Elsewhere/Halvo.app");
    const std::string path = folder / "Applications/Halvo.app";
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    EXPECT_FALSE(AppLocation::mayLock(path));
}

TEST_F(MayLockTest, NotWhatIsNoBundlePath) {
    const std::string path = makeFolder("Applications/Halvo.app");
    EXPECT_FALSE(AppLocation::mayLock(makeFolder("Applications/Halvo")));
    EXPECT_FALSE(AppLocation::mayLock(path + "/"));
    EXPECT_FALSE(AppLocation::mayLock(folder / "Applications/../Applications/Halvo.app"));
    EXPECT_FALSE(AppLocation::mayLock(folder / "Applications//Halvo.app"));
    EXPECT_FALSE(AppLocation::mayLock(path + "\0.app"s));
    EXPECT_FALSE(AppLocation::mayLock(""));
}

TEST(AppLocationTest, FindsTheBundleOfAnExecutable) {
    struct Row {
        std::string executable;
        std::optional<std::string> bundle;
    };

    const std::vector<Row> rows{
        {"/Applications/Halvo.app/Contents/MacOS/Halvo", "/Applications/Halvo.app"},
        {"/Applications/Halvo.app/Contents/MacOS/Two Words", "/Applications/Halvo.app"},
        {"/Users/anna/Halvo.app/Contents/MacOS/Halvo", "/Users/anna/Halvo.app"},
        {"/Applications/A.app/Contents/B.app/Contents/MacOS/B",
         "/Applications/A.app/Contents/B.app"},
        {"/usr/bin/python3", std::nullopt},
        {"", std::nullopt},
        {"Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents/MacOS", std::nullopt},
        {"/Applications/Halvo.app/Contents/MacOS/", std::nullopt},
        {"/Applications/Halvo.app/Contents/MacOS/Sub/Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents/Helpers/Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents/macOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/contents/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents/XMacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/XContents/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo/Contents/MacOS/Halvo", std::nullopt},
        {"/Contents/MacOS/Halvo", std::nullopt},
        {"Halvo.app/Contents/MacOS/Halvo", std::nullopt},
        {"/Applications/../Halvo.app/Contents/MacOS/Halvo", std::nullopt},
        {"/Applications//Halvo.app/Contents/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app//Contents/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents//MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo\xFF.app/Contents/MacOS/Halvo", std::nullopt},
        {"/Applications/Halvo.app/Contents/MacOS/Halvo (deleted)", "/Applications/Halvo.app"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(AppLocation::bundlePath(row.executable), row.bundle) << row.executable;
    }
}

TEST(AppLocationTest, FindsNoBundleForACallerOutsideContentsMacOS) {
    EXPECT_EQ(AppLocation::bundlePath("/Applications/Halvo.app/Halvo"), std::nullopt);
    EXPECT_EQ(AppLocation::bundlePath("/usr/local/bin/halvo"), std::nullopt);
}

}  // namespace
}  // namespace halvo
