#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/ItemFlags.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::LogCapture;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;
using Lines = std::vector<std::string>;

// On the real kernel.
class ChflagsFileFlagsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        if (setItemFlags(path, ItemFlag::systemImmutable).refused != 0) {
            GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
        }
        setFlags(0);
    }

    // The item has these flags.
    void setFlags(std::uint32_t wanted) const { ASSERT_EQ(setItemFlags(path, wanted).refused, 0); }

    LogCapture log;
    TemporaryFolder folder;
    std::string path = folder / "Halvo.app";
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
};

TEST_F(ChflagsFileFlagsTest, WhatCannotBeLookedAtIsMissingAndNothingIsSaid) {
    for (const std::string& missing : {folder / "Missing.app", path + "/no/folder", std::string(),
                                       "/" + std::string(5000, 'x')}) {
        EXPECT_EQ(flags.state(missing), LockState::missing);
        EXPECT_FALSE(flags.setLocked(true, missing));
        EXPECT_FALSE(flags.setLocked(false, missing));
    }
    const Fault fault = Fault::failing(SystemCall::statx, EACCES);
    EXPECT_EQ(flags.state(path), LockState::missing);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ChflagsFileFlagsTest, LocksAFolderOrAFileAndNothingElse) {
    const std::string file = folder / "file";
    const std::string inside = path + "/Contents";
    writeTestFile(file, "");
    ASSERT_EQ(mkdir(inside.c_str(), 0755), 0);
    for (const std::string& item : {path, file}) {
        EXPECT_EQ(flags.state(item), LockState::unlocked);
        EXPECT_TRUE(flags.setLocked(true, item));
        EXPECT_EQ(flags.state(item), LockState::locked);
        EXPECT_EQ(flags.state(inside), LockState::unlocked);
        EXPECT_EQ(flags.state(folder.path()), LockState::unlocked);
        EXPECT_TRUE(flags.setLocked(false, item));
        EXPECT_EQ(flags.state(item), LockState::unlocked);
    }
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ChflagsFileFlagsTest, ALockedItemCanBeNeitherRemovedNorRenamedNorChanged) {
    ASSERT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(rmdir(path.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(rename(path.c_str(), (folder / "Other.app").c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mkdir((path + "/Contents").c_str(), 0755), -1);
    EXPECT_EQ(errno, EPERM);
    ASSERT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(rmdir(path.c_str()), 0);
}

TEST_F(ChflagsFileFlagsTest, ChangesOnlyItsOwnBitsAndAnyOfThemIsALock) {
    constexpr std::uint32_t immutable = ItemFlag::systemImmutable;
    constexpr std::uint32_t noDump = ItemFlag::noDump;

    struct Row {
        std::uint32_t flag;
        std::uint32_t before;
        LockState state;
        std::uint32_t locked;
        std::uint32_t unlocked;
    };

    for (const Row& row :
         {Row{immutable, noDump, LockState::unlocked, noDump | immutable, noDump},
          Row{immutable | noDump, 0, LockState::unlocked, immutable | noDump, 0},
          Row{immutable | noDump, noDump, LockState::locked, immutable | noDump, 0}}) {
        ChflagsFileFlags several(row.flag);
        setFlags(row.before);
        EXPECT_EQ(several.state(path), row.state);
        EXPECT_TRUE(several.setLocked(true, path));
        EXPECT_EQ(itemFlags(path), row.locked);
        EXPECT_TRUE(several.setLocked(false, path));
        EXPECT_EQ(itemFlags(path), row.unlocked);
        setFlags(row.before);
        EXPECT_TRUE(several.setLocked(false, path));
        EXPECT_EQ(itemFlags(path), row.unlocked);
    }
    setFlags(immutable);
    EXPECT_EQ(ChflagsFileFlags(immutable | noDump).state(path), LockState::locked);
}

TEST_F(ChflagsFileFlagsTest, ARefusalIsLoggedWithVerbAndNumber) {
    struct Row {
        bool locked;
        SystemCall call;
        int code;
        int skip;
        const char* message;
    };

    for (const Row& row :
         {Row{true, SystemCall::ioctl, EROFS, 1, "Couldn't lock Halvo: errno 30"},
          Row{false, SystemCall::ioctl, EIO, 1, "Couldn't unlock Halvo: errno 5"},
          // It vanishes between look and change.
          Row{true, SystemCall::open, ENOENT, 0, "Couldn't lock Halvo: errno 2"}}) {
        setFlags(row.locked ? 0 : ItemFlag::systemImmutable);
        const Fault fault = Fault::failing(row.call, row.code, row.skip);
        EXPECT_FALSE(flags.setLocked(row.locked, path));
        EXPECT_EQ(log.errors(), Lines{row.message});
        EXPECT_EQ(flags.state(path), row.locked ? LockState::unlocked : LockState::locked);
        log.clear();
    }
}

TEST_F(ChflagsFileFlagsTest, EachChangeOpensTheItemOnceAndIsOnTheDiskWhenItIsDone) {
    const testing::CallTrace trace;
    const std::size_t opened = testing::callsMade(SystemCall::open);
    for (const bool locked : {true, true, false, false}) {
        ASSERT_TRUE(flags.setLocked(locked, path));
    }
    EXPECT_EQ(trace.calls(),
              (Lines{"lock " + path, "fsync " + path, "unlock " + path, "fsync " + path}));
    EXPECT_EQ(testing::callsMade(SystemCall::open), opened + 2);
}

TEST_F(ChflagsFileFlagsTest, AChangeThatDoesNotReachTheDiskIsLoggedAndStandsAllTheSame) {
    for (const bool locked : {true, false}) {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO);
        EXPECT_TRUE(flags.setLocked(locked, path));
        EXPECT_EQ(log.errors(), Lines{"Couldn't sync Halvo: errno 5"});
        EXPECT_EQ(flags.state(path), locked ? LockState::locked : LockState::unlocked);
        log.clear();
    }
}

TEST_F(ChflagsFileFlagsTest, ASymbolicLinkIsLookedAtItself) {
    const std::string link = folder / "Link.app";
    ASSERT_EQ(symlink("Halvo.app", link.c_str()), 0);
    ASSERT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(link), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(false, link)) << "as it is unlocked already";
    EXPECT_EQ(flags.state(path), LockState::locked);
    ASSERT_EQ(symlink("Missing.app", (folder / "Nowhere.app").c_str()), 0);
    EXPECT_EQ(flags.state(folder / "Nowhere.app"), LockState::unlocked);
}

}  // namespace
}  // namespace halvo
