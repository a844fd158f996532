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

TEST(ItemFlagTest, NumbersTheFlagsAsBSDDoes) {
    EXPECT_EQ(ItemFlag::systemImmutable, 131072U);
    EXPECT_EQ(ItemFlag::userImmutable, 2U);
}

// On the real kernel.
class ChflagsFileFlagsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        if (setItemFlags(path, ItemFlag::systemImmutable) != 0) {
            GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
        }
        ASSERT_EQ(setItemFlags(path, 0), 0);
    }

    // How often the flags of an item were read or written by descriptor.
    static std::size_t flagCalls() { return testing::callsMade(SystemCall::ioctl); }

    LogCapture log;
    TemporaryFolder folder;
    std::string path = folder / "Halvo.app";
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
};

TEST_F(ChflagsFileFlagsTest, AMissingItemIsMissing) {
    EXPECT_EQ(flags.state(folder / "Missing.app"), LockState::missing);
    EXPECT_EQ(flags.state(path + "/no/folder"), LockState::missing);
    EXPECT_EQ(flags.state(""), LockState::missing);
    EXPECT_EQ(flags.state("/" + std::string(5000, 'x')), LockState::missing);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ChflagsFileFlagsTest, AnItemThatCannotBeLookedAtIsMissing) {
    const Fault fault = Fault::failing(SystemCall::statx, EACCES);
    EXPECT_EQ(flags.state(path), LockState::missing);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ChflagsFileFlagsTest, AnItemWithoutTheFlagIsUnlocked) {
    EXPECT_EQ(flags.state(path), LockState::unlocked);
}

TEST_F(ChflagsFileFlagsTest, AnItemIsLockedOnceItWasLocked) {
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(path), LockState::locked);
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(flags.state(path), LockState::unlocked);
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

TEST_F(ChflagsFileFlagsTest, LockingIsNotRecursive) {
    const std::string inside = path + "/Contents";
    ASSERT_EQ(mkdir(inside.c_str(), 0755), 0);
    ASSERT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(inside), LockState::unlocked);
    EXPECT_EQ(flags.state(folder.path()), LockState::unlocked);
}

TEST_F(ChflagsFileFlagsTest, LocksAFileToo) {
    const std::string file = folder / "file";
    writeTestFile(file, "");
    EXPECT_TRUE(flags.setLocked(true, file));
    EXPECT_EQ(flags.state(file), LockState::locked);
    EXPECT_TRUE(flags.setLocked(false, file));
}

TEST_F(ChflagsFileFlagsTest, LockingALockedItemSucceedsWithoutASystemCall) {
    ASSERT_TRUE(flags.setLocked(true, path));
    const std::size_t calls = flagCalls();
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flagCalls(), calls);
    EXPECT_EQ(flags.state(path), LockState::locked);
}

TEST_F(ChflagsFileFlagsTest, UnlockingAnUnlockedItemSucceedsWithoutASystemCall) {
    const std::size_t calls = flagCalls();
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(flagCalls(), calls);
    EXPECT_EQ(flags.state(path), LockState::unlocked);
}

TEST_F(ChflagsFileFlagsTest, AMissingItemCanBeNeitherLockedNorUnlockedAndNothingIsSaid) {
    EXPECT_FALSE(flags.setLocked(true, folder / "Missing.app"));
    EXPECT_FALSE(flags.setLocked(false, folder / "Missing.app"));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ChflagsFileFlagsTest, KeepsOtherFlagsWhenLockingAndUnlocking) {
    ASSERT_EQ(setItemFlags(path, ItemFlag::noDump), 0);
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(itemFlags(path), ItemFlag::noDump | ItemFlag::systemImmutable);
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(itemFlags(path), ItemFlag::noDump);
}

TEST_F(ChflagsFileFlagsTest, AnyOneOfSeveralBitsMakesAnItemLocked) {
    ChflagsFileFlags several(ItemFlag::systemImmutable | ItemFlag::noDump);
    EXPECT_EQ(several.state(path), LockState::unlocked);
    ASSERT_EQ(setItemFlags(path, ItemFlag::noDump), 0);
    EXPECT_EQ(several.state(path), LockState::locked);
    ASSERT_EQ(setItemFlags(path, ItemFlag::systemImmutable), 0);
    EXPECT_EQ(several.state(path), LockState::locked);
}

TEST_F(ChflagsFileFlagsTest, LockingSetsAllOfSeveralBitsAndUnlockingClearsThem) {
    ChflagsFileFlags several(ItemFlag::systemImmutable | ItemFlag::noDump);
    ASSERT_EQ(setItemFlags(path, ItemFlag::noDump), 0);
    EXPECT_TRUE(several.setLocked(true, path));
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable | ItemFlag::noDump);
    EXPECT_TRUE(several.setLocked(false, path));
    EXPECT_EQ(itemFlags(path), 0U);
    ASSERT_EQ(setItemFlags(path, ItemFlag::noDump), 0);
    EXPECT_TRUE(several.setLocked(false, path));
    EXPECT_EQ(itemFlags(path), 0U);
}

TEST_F(ChflagsFileFlagsTest, ARefusedLockIsLoggedWithVerbAndNumber) {
    const Fault fault = Fault::failing(SystemCall::ioctl, EROFS, 1);
    EXPECT_FALSE(flags.setLocked(true, path));
    EXPECT_EQ(
        log.messages(),
        (std::vector<testing::LogMessage>{{LogLevel::Error, "Couldn't lock Halvo: errno 30"}}));
    EXPECT_EQ(flags.state(path), LockState::unlocked);
}

TEST_F(ChflagsFileFlagsTest, ARefusedUnlockIsLoggedWithVerbAndNumber) {
    ASSERT_TRUE(flags.setLocked(true, path));
    const Fault fault = Fault::failing(SystemCall::ioctl, EIO, 1);
    EXPECT_FALSE(flags.setLocked(false, path));
    EXPECT_EQ(
        log.messages(),
        (std::vector<testing::LogMessage>{{LogLevel::Error, "Couldn't unlock Halvo: errno 5"}}));
    EXPECT_EQ(flags.state(path), LockState::locked);
}

TEST_F(ChflagsFileFlagsTest, AnItemThatVanishesBetweenLookAndChangeIsLogged) {
    const Fault fault = Fault::failing(SystemCall::open, ENOENT);
    EXPECT_FALSE(flags.setLocked(true, path));
    EXPECT_EQ(log.errors(), std::vector<std::string>{"Couldn't lock Halvo: errno 2"});
}

TEST_F(ChflagsFileFlagsTest, EachChangeIsOnTheDiskWhenItIsDone) {
    const testing::CallTrace trace;
    ASSERT_TRUE(flags.setLocked(true, path));
    ASSERT_TRUE(flags.setLocked(true, path));
    ASSERT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(trace.calls(), (std::vector<std::string>{"lock " + path, "fsync " + path,
                                                       "unlock " + path, "fsync " + path}));
}

TEST_F(ChflagsFileFlagsTest, AChangeThatDoesNotReachTheDiskIsLoggedAndStandsAllTheSame) {
    for (const bool locked : {true, false}) {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO);
        EXPECT_TRUE(flags.setLocked(locked, path));
        EXPECT_EQ(
            log.messages(),
            (std::vector<testing::LogMessage>{{LogLevel::Error, "Couldn't sync Halvo: errno 5"}}));
        EXPECT_EQ(flags.state(path), locked ? LockState::locked : LockState::unlocked);
        log.clear();
    }
    const Fault fault = Fault::failing(SystemCall::open, EMFILE, 1);
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(log.errors(), std::vector<std::string>{"Couldn't sync Halvo: errno 24"});
}

TEST_F(ChflagsFileFlagsTest, ASymbolicLinkIsLookedAtItself) {
    const std::string link = folder / "Link.app";
    ASSERT_EQ(symlink("Halvo.app", link.c_str()), 0);
    ASSERT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(link), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(false, link)) << "as it is unlocked already";
    EXPECT_EQ(flags.state(path), LockState::locked);
}

TEST_F(ChflagsFileFlagsTest, ALinkThatLeadsNowhereIsThere) {
    const std::string link = folder / "Link.app";
    ASSERT_EQ(symlink("Missing.app", link.c_str()), 0);
    EXPECT_EQ(flags.state(link), LockState::unlocked);
}

}  // namespace
}  // namespace halvo
