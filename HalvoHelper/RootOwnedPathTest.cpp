#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using RootOwnedPath::Item;
using RootOwnedPath::problem;

class RootOwnedPathPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fs::create_directories(folder + "/inner");
        writeTestFile(file, "");
        change(folder, 0755);
        change(folder + "/inner", 0755);
        change(file, 0644);
    }

    void cleanUp() override { fs::remove_all(folder); }

    static void change(const std::string& path, mode_t mode, uid_t owner = 0) {
        ASSERT_EQ(chown(path.c_str(), owner, 0), 0);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    const std::string folder = "/Applications/outer";
    const std::string file = folder + "/inner/file";
};

TEST_F(RootOwnedPathPrivateMachineTest, IsTheItemThatUsersOtherThanRootCanChange) {
    EXPECT_EQ(problem(file), std::nullopt);
    EXPECT_EQ(problem(folder, Item::folder), std::nullopt);
    EXPECT_EQ(problem("/", Item::folder), std::nullopt);
    change(file, 0555);
    EXPECT_EQ(problem(file), std::nullopt);
    const std::string theirs = " belongs to user " + std::to_string(user.uid);
    change(file, 0644, user.uid);
    EXPECT_EQ(problem(file), file + theirs);
    for (const mode_t mode : {0664U, 0646U}) {
        change(file, mode);
        EXPECT_EQ(problem(file), "others than its owner can write to " + file);
        EXPECT_EQ(RootOwnedPath::examine(file)->code, 0);
    }
    change(folder, 0755, user.uid);
    EXPECT_EQ(problem(file), folder + theirs);
    EXPECT_EQ(problem(folder, Item::folder), folder + theirs);
    change(folder, 0775);
    EXPECT_EQ(problem(file), "others than its owner can write to " + folder);
}

TEST_F(RootOwnedPathPrivateMachineTest, IsAnItemOfAnotherKind) {
    EXPECT_EQ(problem(folder), folder + " is not a regular file");
    EXPECT_EQ(problem(file, Item::folder), file + " is not a folder");
    EXPECT_EQ(problem(file + "/more"), file + " is not a folder");
    fs::create_symlink(file, folder + "/link");
    EXPECT_EQ(problem(folder + "/link"), folder + "/link is a symbolic link");
    fs::create_directory_symlink(folder + "/inner", folder + "/way");
    EXPECT_EQ(problem(folder + "/way/file"), folder + "/way is a symbolic link");
}

TEST_F(RootOwnedPathPrivateMachineTest, IsWhatCannotBeLookedAt) {
    EXPECT_EQ(problem(folder + "/gone"), folder + "/gone: No such file or directory");
    EXPECT_EQ(problem(folder + "/gone/file"), folder + "/gone: No such file or directory");
    EXPECT_EQ(RootOwnedPath::examine(folder + "/gone")->code, ENOENT);
}

TEST_F(RootOwnedPathPrivateMachineTest, IsNotLookedForAboveTheTop) {
    change("/Applications", 0775);
    EXPECT_EQ(problem(file), "others than its owner can write to /Applications");
    EXPECT_EQ(problem(file, Item::file, folder), std::nullopt);
    change(folder, 0775);
    EXPECT_EQ(problem(file, Item::file, folder), "others than its owner can write to " + folder);
    change("/Applications", 0755);
}

}  // namespace
}  // namespace halvo::testing
