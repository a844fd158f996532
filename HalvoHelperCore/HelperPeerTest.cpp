#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperPeer.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

constexpr std::uint32_t ann = 501;

class HelperPeerTest : public ::testing::Test {
  protected:
    static std::optional<std::string> bundlePathOf(const std::string& executable) {
        return HelperPeer::ofProcess(ann, executable).bundlePath;
    }

    // The folder of a bundle that is there, as "disk/Halvo.app".
    std::string makeBundle(const std::string& name) {
        const std::string path = disk / name;
        std::filesystem::create_directories(path + "/Contents/MacOS");
        return path;
    }

    TemporaryFolder disk;
};

TEST_F(HelperPeerTest, RecordsTheUserAndTheBundleOfTheCaller) {
    const std::string bundle = makeBundle("Halvo.app");
    for (const std::uint32_t uid : {0U, ann, 4294967295U}) {
        EXPECT_EQ(HelperPeer::ofProcess(uid, bundle + "/Contents/MacOS/Halvo"),
                  (HelperPeer{uid, bundle}));
    }
}

TEST_F(HelperPeerTest, ResolvesSymbolicLinksInTheBundlesPath) {
    const std::string bundle = makeBundle("Real.app");
    std::filesystem::create_directory_symlink(disk.path(), disk / "folder");
    std::filesystem::create_directory_symlink("Real.app", disk / "Link.app");
    EXPECT_EQ(bundlePathOf(disk / "folder/Real.app/Contents/MacOS/Halvo"), bundle);
    EXPECT_EQ(bundlePathOf(disk / "Link.app/Contents/MacOS/Halvo"), bundle);
    EXPECT_EQ(bundlePathOf(disk / "folder/Link.app/Contents/MacOS/Halvo"), bundle);
}

// The path that the caller was started by says whose it is, not where its executable really lies.
TEST_F(HelperPeerTest, FindsTheBundleBeforeItResolvesLinks) {
    const std::string bundle = makeBundle("Halvo.app");
    const std::string other = makeBundle("Other.app");
    std::filesystem::create_symlink(other + "/Contents/MacOS/Other",
                                    bundle + "/Contents/MacOS/Halvo");
    writeTestFile(other + "/Contents/MacOS/Other", "");
    EXPECT_EQ(bundlePathOf(bundle + "/Contents/MacOS/Halvo"), bundle);
    std::filesystem::create_symlink(other + "/Contents/MacOS/Other", disk / "tool");
    EXPECT_EQ(bundlePathOf(disk / "tool"), std::nullopt);
}

TEST_F(HelperPeerTest, KeepsThePathOfABundleThatIsNotThere) {
    EXPECT_EQ(bundlePathOf("/nowhere/Halvo.app/Contents/MacOS/Halvo"), "/nowhere/Halvo.app");
    std::filesystem::create_directory_symlink(disk / "missing", disk / "Link.app");
    EXPECT_EQ(bundlePathOf(disk / "Link.app/Contents/MacOS/Halvo"), disk / "Link.app");
}

TEST_F(HelperPeerTest, HasNoBundleOutsideOfOne) {
    // Which executables lie in a bundle AppLocationTest knows.
    const std::optional<std::string> executables[] = {
        std::nullopt,
        "",
        "/usr/bin/tool",
        "/Applications/Halvo.app/Contents/Halvo",
        "/Applications/\xFF.app/Contents/MacOS/Halvo",
        "/Applications/Halvo.app/Contents/MacOS/\xFF"};
    for (const auto& executable : executables) {
        EXPECT_EQ(HelperPeer::ofProcess(ann, executable), (HelperPeer{ann, std::nullopt}))
            << executable.value_or("no path");
    }
}

}  // namespace
}  // namespace halvo::testing
