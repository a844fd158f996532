#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelperCore/RecordedLocks.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo {
namespace {

using testing::LogCapture;
using testing::SimulatedWorld;

constexpr const char* refused = "Didn't lock Halvo: no record on the disk owes the unlock";

class RecordedLocksTest : public ::testing::Test {
  protected:
    // Whether the save lasts.
    bool save(const std::string& path, bool locked) {
        HelperCommitment commitment;
        commitment.appPath = path;
        commitment.locked = locked;
        return locks.save(commitment);
    }

    // Whether `path` can be locked now. Where it cannot, the log says why, and nothing else.
    bool locksNow(const std::string& path) {
        log.clear();
        const bool isLocked = locks.setLocked(true, path);
        EXPECT_EQ(world.flags.isSet(path), isLocked);
        EXPECT_EQ(log.errors(),
                  isLocked ? std::vector<std::string>{} : std::vector<std::string>{refused});
        EXPECT_TRUE(locks.setLocked(false, path)) << "nothing is asked of an unlock";
        return isLocked;
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    std::string otherApp = world.addBundle("Applications/Other.app");
    RecordedLocks locks{world.store, world.flags};
};

TEST_F(RecordedLocksTest, LocksTheBundleThatTheLastRecordOwesAndNoOther) {
    EXPECT_FALSE(locksNow(app));
    save(app, true);
    EXPECT_TRUE(locksNow(app));
    EXPECT_FALSE(locksNow(otherApp));
    save(otherApp, true);
    EXPECT_FALSE(locksNow(app));
    save(otherApp, false);
    EXPECT_FALSE(locksNow(otherApp));
}

TEST_F(RecordedLocksTest, AfterAFailedSaveLocksOnlyWhatBothRecordsOwe) {
    struct Row {
        std::string before;
        bool owedBefore;
        std::string after;
        bool owedAfter;
        bool locks;
    };

    for (bool testing::SimulatedStore::* fault :
         {&testing::SimulatedStore::failsToSave, &testing::SimulatedStore::failsToSync}) {
        for (const Row& row : std::vector<Row>{{app, true, app, true, true},
                                               {app, true, app, false, false},
                                               {app, false, app, true, false},
                                               {otherApp, true, app, true, false}}) {
            world.store.*fault = false;
            EXPECT_TRUE(save(row.before, row.owedBefore));
            world.store.*fault = true;
            EXPECT_FALSE(save(row.after, row.owedAfter));
            EXPECT_EQ(locksNow(app), row.locks);
            EXPECT_FALSE(locksNow(otherApp));
        }
        world.store.*fault = false;
        save(app, true);
        EXPECT_TRUE(locksNow(app)) << "forgotten with the next save that succeeds";
    }
}

TEST_F(RecordedLocksTest, LocksNothingOnceTheRecordIsRemovedEvenIfThatFails) {
    world.store.failsToRemove = true;
    save(app, true);
    locks.remove();
    EXPECT_FALSE(world.store.isEmpty());
    EXPECT_FALSE(locksNow(app));
}

TEST_F(RecordedLocksTest, LocksAtTheStartWhatTheRecordThatItFindsOwes) {
    save(app, true);
    RecordedLocks next(world.store, world.flags);
    EXPECT_EQ(next.load(), world.store.stored);
    EXPECT_TRUE(next.setLocked(true, app));
    EXPECT_TRUE(next.setLocked(false, app));
    for (const StoredCommitment& stored :
         {StoredCommitment(UnreadableCommitment{app, true}), StoredCommitment(NoCommitment{})}) {
        world.store.stored = stored;
        EXPECT_EQ(locks.load(), stored);
        EXPECT_FALSE(locksNow(app));
    }
}

TEST_F(RecordedLocksTest, TellsTheFlagsAsTheyAreAndFailsAsTheyDo) {
    EXPECT_EQ(locks.state(app), LockState::unlocked);
    EXPECT_EQ(locks.state(app + "/missing"), LockState::missing);
    save(app, true);
    world.flags.failsToLock = true;
    EXPECT_FALSE(locks.setLocked(true, app));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(RecordedLocksTest, SyncsALockThatAnotherProcessHasClearedBeforeItsRecordGoes) {
    save(app, true);
    EXPECT_TRUE(locks.setLocked(true, app));
    EXPECT_TRUE(locks.setLocked(false, app));
    EXPECT_EQ(world.calls.count("sync Halvo.app"), 0U) << "a change is synced with itself";
    EXPECT_TRUE(locks.setLocked(false, app));
    EXPECT_EQ(world.calls.count("sync Halvo.app"), 1U);
}

TEST_F(RecordedLocksTest, ABeginThatCannotBeSavedIsHeldWithoutALock) {
    HelperEngine engine = world.makeEngine();
    world.store.failsToSave = true;
    const WallDate now = world.clock.now().wall;
    EXPECT_TRUE(engine.begin(app, now + Seconds{60}, now, {501, app}));
    EXPECT_FALSE(engine.commitment()->locked);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(log.errors(), (std::vector<std::string>{refused, "Couldn't lock Halvo's app"}));
}

}  // namespace
}  // namespace halvo
