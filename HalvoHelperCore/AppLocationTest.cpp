#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
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

TEST(AppLocationTest, LocksABundleDirectlyInAFolderNamedApplications) {
    const TemporaryFolder folder;
    const auto make = [&folder](const std::string& path) {
        std::filesystem::create_directories(folder / path);
        return folder / path;
    };
    const std::string bundle = make("Applications/Halvo.app");
    std::filesystem::create_symlink(make("Elsewhere/Halvo.app"), folder / "Applications/Link.app");
    writeTestFile(folder / "Applications/File.app", "");

    struct Row {
        std::string path;
        bool isLockable;
        bool mayLock;
    };

    const std::vector<Row> rows{
        {bundle, true, true},
        {make("Users/anna/Applications/Halvo.app"), true, true},
        {folder / "Applications/Missing.app", true, false},
        {folder / "Applications/File.app", true, false},
        {folder / "Applications/Link.app", true, false},
        {make("Applications/Sub/Halvo.app"), false, false},
        {make("applications/Halvo.app"), false, false},
        {make("MyApplications/Halvo.app"), false, false},
        {make("Applications2/Halvo.app"), false, false},
        {make("Applications.app"), false, false},
        {make("Applications/Halvo"), false, false},
        {bundle + "/", false, false},
        {bundle + "/../Halvo.app", false, false},
        {folder / "Applications//Halvo.app", false, false},
        {bundle + "\0.app"s, false, false},
        {"/Gone.app", false, false},
        {"", false, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(AppLocation::isLockablePath(row.path), row.isLockable) << row.path;
        EXPECT_EQ(AppLocation::mayLock(row.path), row.mayLock) << row.path;
    }
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
        {"/Applications/Halvo.app/Halvo", std::nullopt},
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

}  // namespace
}  // namespace halvo
