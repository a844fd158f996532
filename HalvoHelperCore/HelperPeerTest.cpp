#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperPeer.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

constexpr std::uint32_t ann = 501;

TEST(HelperPeerTest, RecordsTheUserAndTheCanonicalPathOfTheBundleOfTheCaller) {
    const TemporaryFolder disk;
    for (const char* name : {"Halvo.app", "Other.app"}) {
        std::filesystem::create_directories(disk / name + "/Contents/MacOS");
    }
    const std::string bundle = disk / "Halvo.app";
    const std::string other = disk / "Other.app/Contents/MacOS/Other";
    writeTestFile(other, "");
    std::filesystem::create_directory_symlink(disk.path(), disk / "folder");
    std::filesystem::create_directory_symlink("Halvo.app", disk / "Link.app");
    std::filesystem::create_directory_symlink("missing", disk / "Lost.app");
    std::filesystem::create_symlink(other, bundle + "/Contents/MacOS/Halvo");
    std::filesystem::create_symlink(other, disk / "tool");

    struct Row {
        std::string executable;
        std::optional<std::string> bundle;
    };

    const Row rows[] = {
        // The path that the caller was started by says whose it is, not where its executable
        // really lies.
        {bundle + "/Contents/MacOS/Halvo", bundle},
        {disk / "tool", std::nullopt},
        {disk / "folder/Halvo.app/Contents/MacOS/Halvo", bundle},
        {disk / "Link.app/Contents/MacOS/Halvo", bundle},
        {disk / "folder/Link.app/Contents/MacOS/Halvo", bundle},
        // A bundle that is not there keeps its path.
        {"/nowhere/Halvo.app/Contents/MacOS/Halvo", "/nowhere/Halvo.app"},
        {disk / "Lost.app/Contents/MacOS/Halvo", disk / "Lost.app"},
    };
    for (const std::uint32_t uid : {0U, ann, 4294967295U}) {
        for (const Row& row : rows) {
            EXPECT_EQ(HelperPeer::ofProcess(uid, row.executable), (HelperPeer{uid, row.bundle}))
                << row.executable;
        }
    }
}

TEST(HelperPeerTest, HasNoBundleOutsideOfOne) {
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
