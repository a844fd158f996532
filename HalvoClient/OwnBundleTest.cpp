#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "HalvoClient/OwnBundle.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

class OwnBundleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(macOS_);
        writeTestFile(executable_, "");
        writeInfo("com.example.app", "7QX4KD19MT");
    }

    void writeInfo(const std::string& bundleID, const std::string& teamID) {
        writeTestFile(path_ + "/Contents/Info.plist",
                      "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" +
                          bundleID + "</string><key>HalvoTeamID</key><string>" + teamID +
                          "</string></dict></plist>");
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "Halvo.app";
    std::string macOS_ = path_ + "/Contents/MacOS";
    std::string executable_ = macOS_ + "/Halvo";
};

TEST_F(OwnBundleTest, HasAPathAndAnIdentity) {
    EXPECT_EQ(bundleOf(executable_), (OwnBundle{path_, {"com.example.app", "7QX4KD19MT"}}));
}

TEST_F(OwnBundleTest, IsFoundThroughLinks) {
    fs::create_symlink(executable_, folder_ / "link");
    EXPECT_EQ(bundleOf(folder_ / "link"), bundleOf(executable_));
    ASSERT_TRUE(bundleOf(folder_ / "link").has_value());
}

TEST_F(OwnBundleTest, IsNothingWithoutAnExecutable) {
    EXPECT_EQ(bundleOf(macOS_ + "/Other"), std::nullopt);
}

TEST_F(OwnBundleTest, IsNothingElsewhere) {
    writeTestFile(folder_ / "Halvo", "");
    EXPECT_EQ(bundleOf(folder_ / "Halvo"), std::nullopt);
    // The tests themselves lie in no bundle.
    EXPECT_EQ(ownBundle(), std::nullopt);
}

TEST_F(OwnBundleTest, IsNothingWithoutAnIdentity) {
    writeInfo("com.example_app", "7QX4KD19MT");
    EXPECT_EQ(bundleOf(executable_), std::nullopt);
    writeInfo("com.example.app", "short");
    EXPECT_EQ(bundleOf(executable_), std::nullopt);
    fs::remove(path_ + "/Contents/Info.plist");
    EXPECT_EQ(bundleOf(executable_), std::nullopt);
}

}  // namespace
}  // namespace halvo::testing
