#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/InodeFlags.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::Fault;
using testing::inodeFlags;
using testing::isLockable;
using testing::LogCapture;
using testing::PrivateMount;
using testing::setInodeFlags;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;
using Lines = std::vector<std::string>;

constexpr const char* needsMount = "needs the permission to mount a file system";

// On the real kernel.
class ChflagsFileFlagsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        if (!isLockable(path)) {
            GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
        }
    }

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
        // Any bit of several is a lock, and no longer after an unlock.
        ChflagsFileFlags several(ItemFlag::systemImmutable | ItemFlag::userImmutable);
        EXPECT_EQ(several.state(item), LockState::locked);
        EXPECT_TRUE(several.setLocked(false, item));
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
        ASSERT_TRUE(flags.setLocked(!row.locked, path));
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

TEST_F(ChflagsFileFlagsTest, BringsALockToTheDiskAsItIs) {
    for (const bool locked : {true, false}) {
        ASSERT_TRUE(flags.setLocked(locked, path));
        const testing::CallTrace trace;
        flags.sync(path);
        EXPECT_EQ(trace.calls().back(), "fsync " + path);
        EXPECT_EQ(flags.state(path), locked ? LockState::locked : LockState::unlocked);
    }
    flags.sync(path + "/missing");
    EXPECT_TRUE(log.isEmpty());
    for (const SystemCall call : {SystemCall::fsync, SystemCall::open}) {
        const Fault fault = Fault::failing(call, EIO);
        flags.sync(path);
        EXPECT_EQ(log.errors(), Lines{"Couldn't sync Halvo: errno 5"});
        log.clear();
    }
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

TEST_F(ChflagsFileFlagsTest, ASymbolicLinkIsLookedAtItselfAndNotLocked) {
    const std::string link = folder / "Link.app";
    ASSERT_EQ(symlink("Halvo.app", link.c_str()), 0);
    EXPECT_EQ(setItemFlags(link, ItemFlag::systemImmutable).refused, ELOOP);
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    ASSERT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(link), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(false, link)) << "as it is unlocked already";
    EXPECT_EQ(flags.state(path), LockState::locked);
    ASSERT_EQ(symlink("Missing.app", (folder / "Nowhere.app").c_str()), 0);
    EXPECT_EQ(flags.state(folder / "Nowhere.app"), LockState::unlocked);
}

TEST_F(ChflagsFileFlagsTest, ChangesTheOneFlagThatLinuxHasAndKeepsAllOthers) {
    ASSERT_TRUE(setInodeFlags(path, inodeFlags(path).value() | FS_NOATIME_FL | FS_NODUMP_FL));
    const int before = inodeFlags(path).value();
    EXPECT_EQ(itemFlags(path), 0U);
    ASSERT_EQ(setItemFlags(path, ItemFlag::systemImmutable).refused, 0);
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable);
    EXPECT_EQ(inodeFlags(path), before | FS_IMMUTABLE_FL);
    ASSERT_EQ(setItemFlags(path, 0).refused, 0);
    EXPECT_EQ(inodeFlags(path), before);
    for (const std::uint32_t others : {0U, ItemFlag::systemImmutable}) {
        EXPECT_EQ(setItemFlags(path, ItemFlag::userImmutable | others).refused, EOPNOTSUPP);
    }
    EXPECT_EQ(inodeFlags(path), before) << "and sets none of them";
}

TEST_F(ChflagsFileFlagsTest, NeverWaitsForAPipeNorTakesAPathWithAZeroByte) {
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(itemFlags(folder / "pipe"), 0U);
    EXPECT_NE(setItemFlags(folder / "pipe", ItemFlag::systemImmutable).refused, 0);
    // The kernel would take the path for what stands before the zero byte.
    EXPECT_EQ(itemFlags(path + "\0.app"s), std::nullopt);
}

TEST_F(ChflagsFileFlagsTest, ReportsARefusalOnceTheFlagIsNotAsWanted) {
    {
        const Fault fault = Fault::failing(SystemCall::ioctl, EIO);
        EXPECT_EQ(setItemFlags(path, ItemFlag::systemImmutable).refused, EIO);
    }
    // It is carried out all the same, as an overlay does now and then.
    const Fault fault = Fault::denying(SystemCall::ioctl, EXDEV, 1);
    EXPECT_EQ(setItemFlags(path, ItemFlag::systemImmutable).refused, 0);
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable);
}

// CAP_LINUX_IMMUTABLE taken away from this process for good.
void dropImmutableCapability() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> sets{};
    ASSERT_EQ(syscall(SYS_capget, &header, sets.data()), 0);
    for (auto* set : {&sets[0].effective, &sets[0].permitted, &sets[0].inheritable}) {
        *set &= ~(1U << CAP_LINUX_IMMUTABLE);
    }
    ASSERT_EQ(syscall(SYS_capset, &header, sets.data()), 0);
}

TEST_F(ChflagsFileFlagsTest, WithoutTheCapabilityBothVerbsAreRefusedAndLogged) {
    testing::expectInChild([this] {
        const std::string locked = folder / "Locked.app";
        ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
        ASSERT_TRUE(flags.setLocked(true, locked));
        dropImmutableCapability();
        EXPECT_FALSE(flags.setLocked(true, path));
        EXPECT_FALSE(flags.setLocked(false, locked));
        EXPECT_EQ(log.errors(),
                  (Lines{"Couldn't lock Halvo: errno 1", "Couldn't unlock Halvo: errno 1"}));
        EXPECT_EQ(flags.state(path), LockState::unlocked);
        EXPECT_EQ(flags.state(locked), LockState::locked);
    });
}

// A folder on a file system of its own is locked, seen locked, held, and unlocked.
void expectLockable(const std::string& disk) {
    const std::string path = disk + "/Halvo.app";
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(path), LockState::locked);
    EXPECT_EQ(rmdir(path.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(rmdir(path.c_str()), 0);
}

TEST_F(ChflagsFileFlagsTest, LocksOnTmpfs) {
    const PrivateMount mount("tmpfs", "tmpfs", path);
    if (!mount.isMounted()) {
        GTEST_SKIP() << needsMount;
    }
    if (!isLockable(path)) {
        GTEST_SKIP() << "needs a kernel (6.6) whose tmpfs has file flags";
    }
    expectLockable(path);
}

TEST_F(ChflagsFileFlagsTest, LocksOnExt4) {
    const std::string image = folder / "image";
    const std::string make = "truncate -s 2M " + image + " && mkfs.ext4 -q -F " + image;
    ASSERT_EQ(std::system(make.c_str()), 0) << "mkfs.ext4 of the package e2fsprogs";
    // Only to enter a mount namespace of our own.
    const PrivateMount own("tmpfs", "tmpfs", path);
    const std::string mount = "mount -o loop " + image + " " + path;
    if (!own.isMounted() || std::system(mount.c_str()) != 0) {
        GTEST_SKIP() << needsMount << " from an image";
    }
    expectLockable(path);
    EXPECT_EQ(std::system(("umount " + path).c_str()), 0);
}

TEST_F(ChflagsFileFlagsTest, AnItemOnAFileSystemWithoutFlagsIsUnlockedAndCannotBeLocked) {
    const PrivateMount mount("ramfs", "ramfs", path);
    if (!mount.isMounted()) {
        GTEST_SKIP() << needsMount;
    }
    for (const std::string& item : {path, "/proc/self"s + "/task"}) {
        log.clear();
        EXPECT_EQ(flags.state(item), LockState::unlocked);
        EXPECT_TRUE(flags.setLocked(false, item)) << "as it is unlocked already";
        EXPECT_FALSE(flags.setLocked(true, item));
        EXPECT_EQ(log.errors(), Lines{"Couldn't lock Halvo: errno 25"});
    }
}

}  // namespace
}  // namespace halvo
