// What becomes of a commitment when the disk fails it. What a store does with each kind of damage
// and failure is held by its own tests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;
using ::testing::StartsWith;

class DiskTest : public ::testing::Test {
  protected:
    // The next begin is saved, and sets the lock.
    void expectSaved() {
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        const auto state = world.state();
        ASSERT_TRUE(state);
        EXPECT_TRUE(state->locked);
        EXPECT_TRUE(isLocked());
    }

    World world;
};

// Takes all the room there is at `folder`.
void fill(const std::string& folder) {
    std::ofstream file(folder + "/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
    ASSERT_TRUE(exists(folder + "/filler"));
}

TEST_F(DiskTest, ThatIsFullLocksNothingAndIsTriedAgainEveryMinute) {
    const std::string couldNotSave =
        "error: Couldn't save the state: " + Place::stateFile + ": No space left on device";
    const Mount disk(Place::support, "size=64k");
    fill(Place::support);
    RunningHelper helper;
    // Held and told, though each of the two saves failed: nothing is locked that a crash could
    // leave locked for ever.
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_THAT(
        helper.log(),
        ElementsAre(couldNotSave, "error: Didn't lock Halvo: no record on the disk owes the unlock",
                    "error: Couldn't lock Halvo's app", couldNotSave, StartsWith("Holding")));
    const Told told = world.status();
    EXPECT_TRUE(told.holding);
    EXPECT_FALSE(told.locked);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.heartbeat(), Reply::yes);
    EXPECT_TRUE(fs::is_empty(Place::stateFolder)) << "half a file was left";

    fs::remove(Place::support + "/filler");
    EXPECT_TRUE(eventually(Seconds{66}, [] { return exists(Place::stateFile); }));
    const auto state = world.state();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->locked);
    EXPECT_THAT(state->remaining, AllOf(Ge(530), Le(541)));
    EXPECT_EQ(helper.count("error: Couldn't save the state: *"), 2);
    expectSaved();
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(DiskTest, ThatBecomesFullKeepsTheRecordBefore) {
    const Mount disk(Place::support, "size=64k");
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const std::string before = readTestFile(Place::stateFile);
    fill(Place::support);
    EXPECT_EQ(world.begin(Seconds{1200}), Reply::yes);
    EXPECT_EQ(helper.count("error: Couldn't save the state: *"), 1);
    EXPECT_EQ(readTestFile(Place::stateFile), before);
    EXPECT_TRUE(isLocked()) << "as the record before owes it";
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
    fs::remove(Place::support + "/filler");
    expectSaved();
    EXPECT_NE(readTestFile(Place::stateFile), before);
}

TEST_F(DiskTest, WithAFolderInTheFilesPlaceHolds) {
    fs::create_directories(Place::stateFile);
    RunningHelper helper;
    EXPECT_THAT(helper.log(), ElementsAre());
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(
        helper.count("error: Couldn't save the state: " + Place::stateFile + ": Is a directory"),
        2);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(DiskTest, WithoutTheRightToLockHolds) {
    const RunningHelper helper(withoutCapability(CAP_LINUX_IMMUTABLE));
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_THAT(helper.log(), ElementsAre("error: Couldn't lock Halvo: errno 1",
                                          "error: Couldn't lock Halvo's app",
                                          StartsWith("Holding Ultra Hard mode for 59")));
    const Told told = world.status();
    EXPECT_TRUE(told.holding);
    EXPECT_FALSE(told.locked);
    ASSERT_TRUE(world.state());
    EXPECT_FALSE(world.state()->locked);
    // No tick tries again.
    sleepFor(Seconds{2.5});
    EXPECT_EQ(helper.log().size(), 3);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.end(), Reply::yes);
}

// A state file that cannot be taken for a record.

class DamagedStateTest : public DiskTest {
  protected:
    // What a helper logs that starts on a state file that holds `bytes`, which it takes away.
    std::vector<std::string> logOfAStartOn(const std::string& bytes) {
        fs::create_directories(Place::stateFolder);
        put(Place::stateFile, bytes, 0600);
        const RunningHelper helper;
        EXPECT_FALSE(exists(Place::stateFolder));
        EXPECT_FALSE(world.status().holding);
        return helper.log();
    }

    const std::string unreadable = "error: The state file couldn't be read; everything was lifted";
};

TEST_F(DamagedStateTest, IsForgottenAndTheUnlockThatItStillOwesIsMade) {
    const std::string owing = R"({"appPath": "/Applications/Halvo.app", "locked": true)";

    struct Row {
        std::string bytes;
        bool unlocks;
    };

    const Row rows[] = {
        {owing + "}", true},
        {owing + R"(, "uid": -1, "remaining": "600"})", true},
        {R"({"appPath": "/Applications/Halvo.app", "locked": false})", false},
        {owing, false},
        {"", false},
        // Longer than is read.
        {std::string(20'000'000, ' ') + owing + "}", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes.substr(0, 200));
        setLockedByHand(true);
        EXPECT_THAT(logOfAStartOn(row.bytes), ElementsAre(unreadable));
        EXPECT_EQ(isLocked(), !row.unlocks);
    }
}

TEST_F(DamagedStateTest, NeverUnlocksAnythingButAnApp) {
    const std::string folder = Place::applications + "/Folder";
    const std::string other = "/Library/Other.app";
    for (const std::string& item : {folder, other}) {
        fs::create_directories(item);
        setLockedByHand(true, item);
    }
    fs::create_directory_symlink(other, Place::applications + "/Link.app");
    for (const std::string& target : {folder, other, Place::applications + "/Link.app",
                                      Place::applications + "/../Library/Other.app"}) {
        EXPECT_THAT(logOfAStartOn(R"({"locked": true, "appPath": ")" + target + R"("})"),
                    ElementsAre(unreadable));
    }
    EXPECT_TRUE(isLocked(folder));
    EXPECT_TRUE(isLocked(other));
    setLockedByHand(false, other);
    fs::remove_all(other);
}

}  // namespace
}  // namespace halvo::testing
