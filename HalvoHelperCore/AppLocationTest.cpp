#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/AppLocation.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::TemporaryFolder;
using testing::writeTestFile;

TEST(AppLocationTest, KnowsABundlePath) {
    for (const char* path :
         {"/Applications/Halvo.app", "/Users/anna/Applications/Halvo.app",
          "/Applications/Sub/Halvo.app", "/Halvo.app", "/Applications/Two Words.app",
          "/Applications/Hälvö 🍎.app", "/Applications/Outer.app/Inner.app",
          "/Applications/.Hidden.app", "/Applications/..app", "/Applications/...app",
          "/Applications/.app", "/Applications/..Sub/Halvo.app", "/Applications/Sub../Halvo.app",
          // macOS has its own mind about those that exist: HalvoPlatform/macOS/PathsTest.mm.
          "/private/Applications/None.app"}) {
        EXPECT_TRUE(AppLocation::isBundlePath(path)) << path;
    }
    for (const std::string& path :
         {""s, "/"s, "Applications/Halvo.app"s, "/Applications/Halvo"s, "/Applications/Halvo.App"s,
          "/Applications/Halvo.app/"s, "/Applications/Halvo.apps"s, "/Applications/Xapp"s,
          "/Applications/Halvo.app/Contents"s, "/Applications/../Halvo.app"s, "/../Halvo.app"s,
          "/Applications/./Halvo.app"s, "/Applications//Halvo.app"s, "//Applications/Halvo.app"s,
          "/Applications/Halvo\0.app"s, "/Applications/Halvo.app\0"s,
          "/Applications/Halvo\xFF.app"s}) {
        EXPECT_FALSE(AppLocation::isBundlePath(path)) << path;
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
    const std::string app = "/Applications/Halvo.app";
    for (const auto& [executable, bundle] :
         {std::pair(app + "/Contents/MacOS/Halvo", app),
          std::pair(app + "/Contents/MacOS/Halvo (deleted)", app),
          std::pair("/Users/anna/Halvo.app/Contents/MacOS/Halvo"s, "/Users/anna/Halvo.app"s),
          std::pair(app + "/Contents/B.app/Contents/MacOS/B", app + "/Contents/B.app")}) {
        EXPECT_EQ(AppLocation::bundlePath(executable), bundle) << executable;
    }
    for (const std::string& executable :
         {"/usr/bin/python3"s, ""s, app + "/Contents/MacOS", app + "/Contents/MacOS/",
          app + "/Contents/MacOS/Sub/Halvo", app + "/Contents/Helpers/Halvo",
          app + "/Contents/macOS/Halvo", app + "/contents/MacOS/Halvo",
          app + "/Contents/XMacOS/Halvo", app + "/XContents/MacOS/Halvo", app + "/MacOS/Halvo",
          "/Applications/Halvo/Contents/MacOS/Halvo"s, "/Contents/MacOS/Halvo"s,
          "Halvo.app/Contents/MacOS/Halvo"s, "/Applications/../Halvo.app/Contents/MacOS/Halvo"s,
          app + "//Contents/MacOS/Halvo", app + "/Contents//MacOS/Halvo",
          "/Applications/Halvo\xFF.app/Contents/MacOS/Halvo"s}) {
        EXPECT_EQ(AppLocation::bundlePath(executable), std::nullopt) << executable;
    }
}

}  // namespace
}  // namespace halvo
