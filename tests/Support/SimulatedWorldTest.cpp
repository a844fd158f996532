#include <gtest/gtest.h>

#include "HalvoHelperCore/AppLocation.hpp"
#include "tests/Support/Printing.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using Calls = std::vector<std::string>;

class SimulatedWorldTest : public ::testing::Test {
  protected:
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
};

TEST_F(SimulatedWorldTest, ItsBundlesMayBeLocked) {
    EXPECT_TRUE(AppLocation::mayLock(app));
    EXPECT_EQ(world.flags.state(app), LockState::unlocked);
    world.deleteBundle(app);
    EXPECT_FALSE(AppLocation::mayLock(app));
    EXPECT_EQ(world.flags.state(app), LockState::missing);
    world.restoreBundle(app);
    EXPECT_TRUE(AppLocation::mayLock(app));
}

TEST_F(SimulatedWorldTest, BothClocksMoveWithTime) {
    const ClockReading before = world.clock.reading();
    world.clock.advance(Seconds{5});
    const ClockReading after = world.clock.reading();
    EXPECT_EQ(after.sinceBoot - before.sinceBoot, Seconds{5});
    EXPECT_EQ(after.wall - before.wall, Seconds{5});
    EXPECT_EQ(after.bootID, before.bootID);
}

TEST_F(SimulatedWorldTest, ARebootStartsTheOneClockAnew) {
    const ClockReading before = world.clock.reading();
    world.clock.reboot(Seconds{100}, Seconds{20});
    const ClockReading after = world.clock.reading();
    EXPECT_NE(after.bootID, before.bootID);
    EXPECT_EQ(after.sinceBoot, Seconds{20});
    EXPECT_EQ(after.wall - before.wall, Seconds{120});
}

TEST_F(SimulatedWorldTest, FlagsFailWhenToldTo) {
    world.flags.failsToLock = true;
    EXPECT_FALSE(world.flags.setLocked(true, app));
    EXPECT_TRUE(world.flags.setLocked(false, app)) << "as it is so already";
    world.flags.failsToLock = false;
    EXPECT_TRUE(world.flags.setLocked(true, app));
    EXPECT_TRUE(world.flags.isSet(app));
    world.flags.failsToUnlock = true;
    EXPECT_TRUE(world.flags.setLocked(true, app));
    EXPECT_FALSE(world.flags.setLocked(false, app));
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_FALSE(world.flags.setLocked(false, app + "/missing"));
}

TEST_F(SimulatedWorldTest, TheStoreKeepsTheOldRecordWhenItFails) {
    const HelperCommitment first{app, 501, {}, {}, {}, {}, false};
    HelperCommitment second = first;
    second.uid = 502;
    world.store.save(first);
    world.store.failsToSave = true;
    world.store.save(second);
    EXPECT_EQ(world.store.load(), StoredCommitment(first));
    world.store.failsToRemove = true;
    world.store.remove();
    EXPECT_FALSE(world.store.isEmpty());
    world.store.failsToRemove = false;
    world.store.remove();
    EXPECT_TRUE(world.store.isEmpty());
}

TEST_F(SimulatedWorldTest, AppsRunForTheirUser) {
    EXPECT_FALSE(world.session.isAppRunning(app, 501));
    world.session.start(app, 501);
    EXPECT_TRUE(world.session.isAppRunning(app, 501));
    EXPECT_FALSE(world.session.isAppRunning(app, 502));
    world.session.quit(app, 501);
    EXPECT_FALSE(world.session.isAppRunning(app, 501));
}

TEST_F(SimulatedWorldTest, AnOpenedAppComesUpWhenToldTo) {
    world.opener.open(app, 501, true);
    EXPECT_FALSE(world.session.runs(app, 501));
    world.opener.startsApps = true;
    world.clock.advance(Seconds{3});
    world.opener.open(app, 502, false);
    EXPECT_TRUE(world.session.runs(app, 502));
    EXPECT_EQ(world.opener.openings,
              (std::vector<Opening>{{app, 501, true, world.clock.now().sinceBoot - Seconds{3}},
                                    {app, 502, false, world.clock.now().sinceBoot}}));
}

TEST_F(SimulatedWorldTest, EveryCallIsNotedInOrder) {
    world.clock.reading();
    world.flags.state(app);
    world.store.save({app, 501, {}, {}, {}, {}, true});
    world.flags.setLocked(true, app);
    world.flags.setLocked(false, app);
    world.store.load();
    world.store.remove();
    world.session.consoleUser();
    world.session.isAppRunning(app, 501);
    world.opener.open(app, 501, false);
    EXPECT_EQ(world.calls.calls(), (Calls{"reading", "state Halvo.app", "save locked",
                                          "lock Halvo.app", "unlock Halvo.app", "load", "remove",
                                          "console", "running? Halvo.app", "open Halvo.app"}));
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "lock Halvo.app", "unlock Halvo.app",
                                            "remove", "open Halvo.app"}));
    EXPECT_EQ(world.calls.count("load"), 1U);
}

TEST_F(SimulatedWorldTest, ACrashComesInsteadOfTheCall) {
    world.calls.crashAt(2);
    world.clock.reading();
    EXPECT_THROW(world.flags.setLocked(true, app), Crash);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_TRUE(world.flags.setLocked(true, app)) << "there is only one";
    EXPECT_FALSE(world.calls.cancelCrash());
    world.calls.crashAt(1);
    EXPECT_TRUE(world.calls.cancelCrash());
    world.clock.reading();
}

}  // namespace
}  // namespace halvo::testing
