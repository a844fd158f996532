#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "HalvoClient/OwnBundle.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

std::string infoOf(const std::string& bundleID, const std::string& teamID) {
    return "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + bundleID +
           "</string><key>HalvoTeamID</key><string>" + teamID + "</string></dict></plist>";
}

TEST(OwnBundleTest, HasAPathAndAnIdentityOrIsNothing) {
    const TemporaryFolder folder;
    const std::string path = folder / "Halvo.app";
    const std::string executable = path + "/Contents/MacOS/Halvo";
    const std::string info = path + "/Contents/Info.plist";
    fs::create_directories(path + "/Contents/MacOS");
    writeTestFile(executable, "");
    writeTestFile(folder / "Halvo", "");
    fs::create_symlink(executable, folder / "link");
    writeTestFile(info, infoOf("com.example.app", "7QX4KD19MT"));

    const OwnBundle expected{path, {"com.example.app", "7QX4KD19MT"}};
    EXPECT_EQ(bundleOf(executable), expected);
    EXPECT_EQ(bundleOf(folder / "link"), expected);
    EXPECT_EQ(bundleOf(path + "/Contents/MacOS/Other"), std::nullopt) << "no such executable";
    EXPECT_EQ(bundleOf(folder / "Halvo"), std::nullopt) << "in no bundle";
    EXPECT_EQ(ownBundle(), std::nullopt) << "nor are the tests";
    writeTestFile(info, infoOf("com.example_app", "7QX4KD19MT"));
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no bundle's identifier";
    writeTestFile(info, infoOf("com.example.app", "short"));
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no team's identifier";
    fs::remove(info);
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no Info.plist";
}

}  // namespace
}  // namespace halvo::testing
