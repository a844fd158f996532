#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
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

TEST_F(DarwinItemFlagsTest, AreThoseOfTheItemAndSetAsTheyAreWanted) {
    EXPECT_EQ(itemFlags(path), 0U);
    fake::world().flags[path] = ItemFlag::systemImmutable | hidden;
    EXPECT_EQ(itemFlags(path), ItemFlag::systemImmutable | hidden);
    EXPECT_EQ(setItemFlags(path, ItemFlag::userImmutable | hidden).refused, 0);
    EXPECT_EQ(fake::world().flags[path], ItemFlag::userImmutable | hidden);
    EXPECT_EQ(ItemFlag::systemImmutable, 131072U) << "SF_IMMUTABLE";
    EXPECT_EQ(ItemFlag::userImmutable, 2U) << "UF_IMMUTABLE";
}

// The kernel would take a path with a zero byte for what stands before it.
TEST_F(DarwinItemFlagsTest, AreNoneWhereNothingIsAndNothingIsSaid) {
    for (const std::string& path : {missing, path + "/no/folder", ""s, path + "\0.app"s}) {
        EXPECT_EQ(itemFlags(path), std::nullopt);
        EXPECT_EQ(flags.state(path), LockState::missing);
        EXPECT_FALSE(flags.setLocked(true, path));
        EXPECT_FALSE(flags.setLocked(false, path));
    }
    EXPECT_EQ(fake::world().lchflagsCalls, 0);
    EXPECT_TRUE(fake::world().log.empty());
    EXPECT_EQ(setItemFlags(missing, hidden).refused, ENOENT);
}

TEST_F(DarwinItemFlagsTest, AreThoseOfASymbolicLinkItself) {
    fake::world().flags[path] = hidden;
    EXPECT_EQ(itemFlags(link), 0U);
    EXPECT_EQ(setItemFlags(link, ItemFlag::systemImmutable).unsynced, ELOOP);
    EXPECT_EQ(flags.state(link), LockState::locked);
    EXPECT_EQ(itemFlags(path), hidden);
    ASSERT_EQ(rmdir(path.c_str()), 0);
    EXPECT_EQ(flags.state(link), LockState::locked) << "wherever it leads";
}

TEST_F(DarwinItemFlagsTest, OfTheLockAreChangedAloneAndAnyOfThemIsALock) {
    constexpr std::uint32_t immutable = ItemFlag::systemImmutable;
    constexpr std::uint32_t user = ItemFlag::userImmutable;

    struct Row {
        std::uint32_t flag;
        std::uint32_t before;
        LockState state;
        std::uint32_t locked;
        std::uint32_t unlocked;
    };

    for (const Row& row : {Row{immutable, 0, LockState::unlocked, immutable, 0},
                           Row{immutable, hidden, LockState::unlocked, hidden | immutable, hidden},
                           Row{immutable | user, user, LockState::locked, immutable | user, 0}}) {
        ChflagsFileFlags several(row.flag);
        fake::world().flags[path] = row.before;
        EXPECT_EQ(several.state(path), row.state);
        EXPECT_TRUE(several.setLocked(true, path));
        EXPECT_EQ(several.state(path), LockState::locked);
        EXPECT_EQ(fake::world().flags[path], row.locked);
        EXPECT_TRUE(several.setLocked(false, path));
        EXPECT_EQ(fake::world().flags[path], row.unlocked);
    }
    EXPECT_TRUE(fake::world().log.empty());
}

TEST_F(DarwinItemFlagsTest, AreOnTheDiskOnceTheyAreChanged) {
    for (const bool locked : {false, true, true, false}) {
        EXPECT_TRUE(flags.setLocked(locked, path));
    }
    EXPECT_EQ(fake::world().lchflagsCalls, 2) << "none where they are as asked already";
    EXPECT_EQ(fake::world().fullSyncCalls, 2);
    fake::world().fullSyncError = EIO;
    EXPECT_TRUE(flags.setLocked(true, path)) << "they are as asked all the same";
    fake::world().lchflagsError = EPERM;
    EXPECT_FALSE(flags.setLocked(false, path));
    EXPECT_EQ(flags.state(path), LockState::locked);
    EXPECT_EQ(fake::world().fullSyncCalls, 3);
    EXPECT_EQ(fake::errors(), (std::vector<std::string>{"Couldn't sync Halvo: errno 5",
                                                        "Couldn't unlock Halvo: errno 1"}));
}

}  // namespace
}  // namespace halvo
