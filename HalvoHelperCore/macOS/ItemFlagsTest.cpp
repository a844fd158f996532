#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/ItemFlags.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::TemporaryFolder;

// UF_HIDDEN: a flag of macOS that the helper has no name for.
constexpr std::uint32_t hidden = 0x8000;

class DarwinItemFlagsTest : public ::testing::Test {
  protected:
    DarwinItemFlagsTest() {
        fake::reset();
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
        EXPECT_EQ(symlink("Halvo.app", link.c_str()), 0);
    }

    TemporaryFolder folder;
    std::string path = folder / "Halvo.app";
    std::string link = folder / "Link.app";
    std::string missing = folder / "Missing.app";
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
};

TEST_F(DarwinItemFlagsTest, AreThoseOfTheItem) {
    EXPECT_EQ(itemFlags(path), 0U);
    fake::world().flags[path] = ItemFlag::systemImmutable | hidden;
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable | hidden);
}

TEST_F(DarwinItemFlagsTest, AreSetAsTheyAreWanted) {
    EXPECT_EQ(setItemFlags(path, ItemFlag::userImmutable | hidden), 0);
    EXPECT_EQ(fake::world().flags[path], ItemFlag::userImmutable | hidden);
    EXPECT_EQ(setItemFlags(path, 0), 0);
    EXPECT_EQ(itemFlags(path), 0U);
}

TEST_F(DarwinItemFlagsTest, AreNoneWhereNothingIs) {
    EXPECT_EQ(itemFlags(missing), std::nullopt);
    EXPECT_EQ(itemFlags(path + "/no/folder"), std::nullopt);
    EXPECT_EQ(itemFlags(""), std::nullopt);
    EXPECT_EQ(setItemFlags(missing, hidden), ENOENT);
}

// The kernel would take the path for what stands before the zero byte.
TEST_F(DarwinItemFlagsTest, APathWithAZeroByteNamesNothing) {
    EXPECT_EQ(itemFlags(path + "\0.app"s), std::nullopt);
    EXPECT_EQ(flags.state(path + "\0.app"s), LockState::missing);
    EXPECT_FALSE(flags.setLocked(true, path + "\0.app"s));
    EXPECT_EQ(fake::world().lchflagsCalls, 0);
}

TEST_F(DarwinItemFlagsTest, AreThoseOfASymbolicLinkItself) {
    fake::world().flags[path] = hidden;
    EXPECT_EQ(itemFlags(link), 0U);
    EXPECT_TRUE(flags.setLocked(true, link));
    EXPECT_EQ(flags.state(link), LockState::locked);
    EXPECT_EQ(itemFlags(link), ItemFlag::systemImmutable);
    EXPECT_EQ(itemFlags(path), hidden);
}

TEST_F(DarwinItemFlagsTest, AreThereOnALinkThatLeadsNowhere) {
    ASSERT_EQ(rmdir(path.c_str()), 0);
    EXPECT_EQ(flags.state(link), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(true, link));
    EXPECT_EQ(flags.state(link), LockState::locked);
}

TEST_F(DarwinItemFlagsTest, TellALockedItemFromAnUnlockedAndAMissingOne) {
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    EXPECT_EQ(flags.state(missing), LockState::missing);
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(flags.state(path), LockState::locked);
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    EXPECT_EQ(fake::world().lchflagsCalls, 2);
    EXPECT_TRUE(fake::world().log.empty());
}

TEST_F(DarwinItemFlagsTest, KeepTheOthersWhenLockingAndUnlocking) {
    fake::world().flags[path] = hidden | ItemFlag::noDump;
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(fake::world().flags[path], hidden | ItemFlag::noDump | ItemFlag::systemImmutable);
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(fake::world().flags[path], hidden | ItemFlag::noDump);
}

TEST_F(DarwinItemFlagsTest, NeedNoSystemCallWhereTheyAreAsAskedAlready) {
    EXPECT_TRUE(flags.setLocked(false, path));
    fake::world().flags[path] = ItemFlag::systemImmutable;
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_EQ(fake::world().lchflagsCalls, 0);
}

TEST_F(DarwinItemFlagsTest, OfSeveralBitsAnyOneLocksAndAllAreSet) {
    ChflagsFileFlags several(ItemFlag::systemImmutable | ItemFlag::userImmutable);
    fake::world().flags[path] = ItemFlag::userImmutable;
    EXPECT_EQ(several.state(path), LockState::locked);
    EXPECT_TRUE(several.setLocked(true, path));
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable | ItemFlag::userImmutable);
    EXPECT_TRUE(several.setLocked(false, path));
    EXPECT_EQ(itemFlags(path), 0U);
}

TEST_F(DarwinItemFlagsTest, AreOnTheDiskOnceTheyAreChanged) {
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_TRUE(flags.setLocked(true, path));
    EXPECT_TRUE(flags.setLocked(false, path));
    EXPECT_EQ(fake::world().fullSyncCalls, 2);
    fake::world().fullSyncError = EIO;
    EXPECT_TRUE(flags.setLocked(true, path)) << "they are as asked all the same";
    EXPECT_EQ(fake::world().log, (std::vector<fake::LogEntry>{{"app.halvo", "Helper", true,
                                                               "Couldn't sync Halvo: errno 5"}}));
}

TEST_F(DarwinItemFlagsTest, CannotBeSetOnAMissingItemAndNothingIsSaid) {
    EXPECT_FALSE(flags.setLocked(true, missing));
    EXPECT_FALSE(flags.setLocked(false, missing));
    EXPECT_EQ(fake::world().lchflagsCalls, 0);
    EXPECT_TRUE(fake::world().log.empty());
}

TEST_F(DarwinItemFlagsTest, WhenRefusedAreLoggedWithVerbAndNumber) {
    const std::string locked = folder / "Locked.app";
    ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
    fake::world().flags[locked] = ItemFlag::systemImmutable;
    fake::world().lchflagsError = EPERM;
    EXPECT_EQ(setItemFlags(path, hidden), EPERM);
    EXPECT_FALSE(flags.setLocked(true, path));
    fake::world().lchflagsError = EROFS;
    EXPECT_FALSE(flags.setLocked(false, locked));
    EXPECT_EQ(fake::world().log,
              (std::vector<fake::LogEntry>{
                  {"app.halvo", "Helper", true, "Couldn't lock Halvo: errno 1"},
                  {"app.halvo", "Helper", true, "Couldn't unlock Halvo: errno 30"}}));
    EXPECT_EQ(flags.state(path), LockState::unlocked);
    EXPECT_EQ(flags.state(locked), LockState::locked);
}

}  // namespace
}  // namespace halvo
