#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/ItemFlags.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::Fault;
using testing::LogCapture;
using testing::PrivateMount;
using testing::SystemCall;
using testing::TemporaryFolder;

constexpr const char* needsFlags =
    "needs root and a file system with file flags for temporary files";
constexpr const char* needsMount = "needs the permission to mount a file system";

// The flags of the inode, as the kernel keeps them.
int inodeFlags(const std::string& path) {
    const Descriptor item(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    EXPECT_EQ(ioctl(item.get(), FS_IOC_GETFLAGS, &flags), 0);
    return flags;
}

bool setInodeFlags(const std::string& path, int flags) {
    const Descriptor item(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ioctl(item.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

class LinuxItemFlagsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        if (setItemFlags(path, ItemFlag::systemImmutable).refused != 0) {
            GTEST_SKIP() << needsFlags;
        }
        ASSERT_EQ(setItemFlags(path, 0).refused, 0);
    }

    TemporaryFolder folder;
    std::string path = folder / "Halvo.app";
};

TEST_F(LinuxItemFlagsTest, TranslatesTheFlagsThatLinuxHas) {
    ASSERT_TRUE(setInodeFlags(path, inodeFlags(path) | FS_APPEND_FL));
    EXPECT_EQ(itemFlags(path), ItemFlag::systemAppendOnly);
    ASSERT_TRUE(setInodeFlags(path, inodeFlags(path) | FS_NODUMP_FL | FS_IMMUTABLE_FL));
    EXPECT_EQ(itemFlags(path),
              ItemFlag::systemAppendOnly | ItemFlag::noDump | ItemFlag::systemImmutable);
    ASSERT_EQ(setItemFlags(path, ItemFlag::noDump).refused, 0);
    EXPECT_EQ(inodeFlags(path) & (FS_APPEND_FL | FS_NODUMP_FL | FS_IMMUTABLE_FL), FS_NODUMP_FL);
}

TEST_F(LinuxItemFlagsTest, KeepsTheFlagsThatBSDDoesNotHave) {
    ASSERT_TRUE(setInodeFlags(path, inodeFlags(path) | FS_NOATIME_FL));
    const int before = inodeFlags(path);
    ASSERT_EQ(setItemFlags(path, ItemFlag::systemImmutable).refused, 0);
    EXPECT_EQ(inodeFlags(path), before | FS_IMMUTABLE_FL);
    ASSERT_EQ(setItemFlags(path, 0).refused, 0);
    EXPECT_EQ(inodeFlags(path), before);
}

TEST_F(LinuxItemFlagsTest, RefusesAFlagThatLinuxDoesNotHave) {
    EXPECT_EQ(setItemFlags(path, ItemFlag::userImmutable).refused, EOPNOTSUPP);
    EXPECT_EQ(setItemFlags(path, ItemFlag::systemImmutable | ItemFlag::userImmutable).refused,
              EOPNOTSUPP);
    EXPECT_EQ(itemFlags(path), 0U) << "and sets none of them";
}

TEST_F(LinuxItemFlagsTest, RefusesToFlagASymbolicLinkAndLeavesItsTargetAlone) {
    const std::string link = folder / "Link.app";
    ASSERT_EQ(symlink("Halvo.app", link.c_str()), 0);
    EXPECT_EQ(setItemFlags(link, ItemFlag::systemImmutable).refused, ELOOP);
    EXPECT_EQ(itemFlags(path), 0U);
}

TEST_F(LinuxItemFlagsTest, NeverWaitsForAPipe) {
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(itemFlags(pipe), 0U);
    EXPECT_NE(setItemFlags(pipe, ItemFlag::systemImmutable).refused, 0);
}

// The kernel would take the path for what stands before the zero byte.
TEST_F(LinuxItemFlagsTest, APathWithAZeroByteNamesNothing) {
    EXPECT_EQ(itemFlags(path + "\0.app"s), std::nullopt);
}

TEST_F(LinuxItemFlagsTest, ReportsWhatEachStepFailedWith) {
    {
        const Fault fault = Fault::failing(SystemCall::ioctl, EIO);
        EXPECT_EQ(setItemFlags(path, ItemFlag::systemImmutable).refused, EIO);
    }
    const Fault fault = Fault::failing(SystemCall::fsync, ENOSPC);
    const auto [refused, unsynced] = setItemFlags(path, ItemFlag::systemImmutable);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(unsynced, ENOSPC);
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable);
}

// As an overlay does now and then.
TEST_F(LinuxItemFlagsTest, BelievesTheFlagsAndNotTheRefusal) {
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

TEST_F(LinuxItemFlagsTest, WithoutTheCapabilityBothVerbsAreRefusedAndLogged) {
    const auto result = testing::runInChild([this] {
        ChflagsFileFlags flags(ItemFlag::systemImmutable);
        const std::string locked = folder / "Locked.app";
        ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
        ASSERT_TRUE(flags.setLocked(true, locked));
        dropImmutableCapability();
        const LogCapture log;
        EXPECT_FALSE(flags.setLocked(true, path));
        EXPECT_FALSE(flags.setLocked(false, locked));
        EXPECT_EQ(log.errors(), (std::vector<std::string>{"Couldn't lock Halvo: errno 1",
                                                          "Couldn't unlock Halvo: errno 1"}));
        EXPECT_EQ(flags.state(path), LockState::unlocked);
        EXPECT_EQ(flags.state(locked), LockState::locked);
    });
    EXPECT_EQ(result.status, 0) << result.output;
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

TEST_F(LinuxItemFlagsTest, LocksOnTmpfs) {
    const PrivateMount mount("tmpfs", "tmpfs", path);
    if (!mount.isMounted()) {
        GTEST_SKIP() << needsMount;
    }
    if (setItemFlags(path, ItemFlag::noDump).refused != 0) {
        GTEST_SKIP() << "needs a kernel (6.6) whose tmpfs has file flags";
    }
    expectLockable(path);
}

TEST_F(LinuxItemFlagsTest, LocksOnExt4) {
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

TEST_F(LinuxItemFlagsTest, AnItemOnAFileSystemWithoutFlagsIsUnlockedAndCannotBeLocked) {
    const PrivateMount mount("ramfs", "ramfs", path);
    if (!mount.isMounted()) {
        GTEST_SKIP() << needsMount;
    }
    for (const std::string& item : {path, "/proc/self"s + "/task"}) {
        const LogCapture log;
        ChflagsFileFlags flags(ItemFlag::systemImmutable);
        EXPECT_EQ(flags.state(item), LockState::unlocked);
        EXPECT_TRUE(flags.setLocked(false, item)) << "as it is unlocked already";
        EXPECT_FALSE(flags.setLocked(true, item));
        EXPECT_EQ(log.errors(), std::vector<std::string>{"Couldn't lock Halvo: errno 25"});
    }
}

TEST_F(LinuxItemFlagsTest, OnAReadOnlyDiskNothingCanBeLocked) {
    const PrivateMount mount("none", path, path, MS_BIND);
    if (!mount.makeReadOnly()) {
        GTEST_SKIP() << needsMount;
    }
    const LogCapture log;
    EXPECT_FALSE(ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(true, path));
    EXPECT_EQ(log.errors(), std::vector<std::string>{"Couldn't lock Halvo: errno 30"});
}

}  // namespace
}  // namespace halvo
