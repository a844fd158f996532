#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

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

TEST_F(SimulatedWorldTest, ItsClocksMoveTogetherUntilAReboot) {
    const ClockReading before = world.clock.reading();
    world.clock.advance(Seconds{5});
    const ClockReading after = world.clock.reading();
    EXPECT_EQ(after.sinceBoot - before.sinceBoot, Seconds{5});
    EXPECT_EQ(after.wall - before.wall, Seconds{5});
    EXPECT_EQ(after.bootID, before.bootID);
    world.clock.reboot(Seconds{100}, Seconds{20});
    const ClockReading rebooted = world.clock.reading();
    EXPECT_NE(rebooted.bootID, before.bootID);
    EXPECT_EQ(rebooted.sinceBoot, Seconds{20});
    EXPECT_EQ(rebooted.wall - after.wall, Seconds{120});
}

TEST_F(SimulatedWorldTest, FlagsFailWhenToldTo) {
    world.flags.failsToLock = true;
    EXPECT_FALSE(world.flags.setLocked(true, app));
    EXPECT_TRUE(world.flags.setLocked(false, app)) << "as it is so already";
    world.flags.failsToLock = false;
    EXPECT_TRUE(world.flags.setLocked(true, app));
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

TEST_F(SimulatedWorldTest, AppsRunForTheirUserAndComeUpWhenToldTo) {
    world.session.start(app, 501);
    EXPECT_TRUE(world.session.isAppRunning(app, 501));
    EXPECT_FALSE(world.session.isAppRunning(app, 502));
    world.session.quit(app, 501);
    EXPECT_FALSE(world.session.isAppRunning(app, 501));
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

class ManualMainQueueTest : public ::testing::Test {
  protected:
    // Notes when `name` runs: "a2" for a, two seconds after the start.
    MainQueue::Work note(const char* name) {
        return [this, name] {
            order += name + std::to_string(static_cast<int>((queue.now() - start).count()));
        };
    }

    void expectExitAtTermination(int status) {
        try {
            queue.terminate();
            FAIL() << "did not exit";
        } catch (const ProcessExit& exit) {
            EXPECT_EQ(exit.status, status);
        }
    }

    CallLog calls;
    SimulatedClock clock{calls};
    ManualMainQueue queue{clock};
    Seconds start = queue.now();
    std::string order;
};

TEST_F(ManualMainQueueTest, RunsWorkWhenToldToInOrderAndItsWorkAfterWhatWaited) {
    std::thread([this] { queue.async([this] { queue.async(note("c")); }); }).join();
    queue.async(note("a"));
    queue.async(note("b"));
    EXPECT_EQ(order, "");
    queue.runPending();
    EXPECT_EQ(order, "a0b0c0");
}

TEST_F(ManualMainQueueTest, TurnsTimersOnTheirGrid) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0.2}, note("a"));
    queue.repeat(Seconds{3}, Seconds{3}, Seconds{0}, note("b"));
    queue.advance(Seconds{7});
    EXPECT_EQ(order, "a2b3a4a6b6");
    EXPECT_EQ(queue.now() - start, Seconds{7});
    EXPECT_EQ(queue.timers(),
              (std::vector<ManualMainQueue::TimerRequest>{{Seconds{2}, Seconds{2}, Seconds{0.2}},
                                                          {Seconds{3}, Seconds{3}, Seconds{0}}}));
}

TEST_F(ManualMainQueueTest, RunsWorkBeforeTimersAndBetweenTheirTurns) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, [this] {
        note("t")();
        queue.async(note("w"));
    });
    queue.async(note("a"));
    queue.advance(Seconds{4});
    EXPECT_EQ(order, "a0t2w2t4w4");
}

TEST_F(ManualMainQueueTest, MakesUpForNoTurnThatWasMissed) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, note("a"));
    clock.advance(Seconds{7});
    queue.advance(Seconds{0});
    EXPECT_EQ(order, "a7");
    queue.advance(Seconds{3});
    EXPECT_EQ(order, "a7a8a10");
}

TEST_F(ManualMainQueueTest, LetsATimerMakeTimers) {
    queue.repeat(Seconds{2}, Seconds{100}, Seconds{0},
                 [this] { queue.repeat(Seconds{1}, Seconds{1}, Seconds{0}, note("b")); });
    queue.advance(Seconds{4});
    EXPECT_EQ(order, "b3b4");
}

TEST_F(ManualMainQueueTest, RunsDelayedWorkOnceWhenItIsDueBetweenTheTurnsOfTimers) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, note("t"));
    queue.after(Seconds{3}, [this] {
        note("a")();
        queue.async(note("w"));
        queue.after(Seconds{2}, note("b"));
    });
    queue.advance(Seconds{0.5});
    EXPECT_EQ(order, "");
    queue.advance(Seconds{5.5});
    EXPECT_EQ(order, "t2a3w3t4b5t6");
    EXPECT_EQ(queue.delays(), (std::vector<Seconds>{Seconds{3}, Seconds{2}}));
}

TEST_F(ManualMainQueueTest, RunsWorkWithoutADelayLaterButAtOnce) {
    queue.after(Seconds{0}, note("a"));
    queue.after(Seconds{-5}, note("b"));
    queue.after(Seconds{std::nan("")}, note("c"));
    EXPECT_EQ(order, "");
    queue.advance(Seconds{0});
    EXPECT_EQ(order, "a0b0c0");
}

TEST_F(ManualMainQueueTest, DeliversSIGTERMWhichEndsAProcessWithoutAHandler) {
    expectExitAtTermination(143);
    EXPECT_FALSE(queue.handlesTermination());
    queue.onTermination([this] { queue.exit(75); });
    EXPECT_TRUE(queue.handlesTermination());
    queue.async(note("a"));
    expectExitAtTermination(75);
    EXPECT_EQ(order, "a0");
}

TEST_F(ManualMainQueueTest, NeverReturnsFromServing) {
    EXPECT_FALSE(queue.isServed());
    EXPECT_THROW(queue.run(), QueueServed);
    EXPECT_TRUE(queue.isServed());
}

}  // namespace
}  // namespace halvo::testing
