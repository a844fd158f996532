// What becomes of a commitment when the machine is restarted.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

using ::testing::IsEmpty;

struct Restart : ::testing::Test {
    Restart() { machine.install(); }

    BootedMachine machine;
};

TEST_F(Restart, TakesTheCommitmentUpAgainBeforeAnybodyLogsIn) {
    machine.commit(machine.logIn("alice"));
    const Seconds begun = timeNow();
    machine.shutDown();
    EXPECT_FALSE(machine.isLocked()) << "an orderly end takes the lock off";
    ASSERT_TRUE(machine.state().has_value());
    // A while that only the clock on the wall knows of.
    const Seconds off = timeNow();
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return timeNow() - off >= Seconds{10}; }));
    machine.switchOn();
    EXPECT_TRUE(eventually(Seconds{30}, [&] { return machine.isLocked(); }));
    (void)machine.waitFor(Place::helper, Seconds{10});
    EXPECT_EQ(machine.activeState(Unit::service), "active");
    EXPECT_TRUE(machine.says("Holding Ultra Hard mode for another *"));
    const double taken = 1500 - machine.state()->remaining;
    const double passed = (timeNow() - begun).count();
    EXPECT_GT(taken, passed - 5);
    EXPECT_LT(taken, passed + 5);
    // Who logs in gets the app, and not as one that was quit.
    const std::string session = machine.logIn("alice");
    const pid_t app = machine.waitFor(Place::appExecutable, Seconds{60});
    EXPECT_THAT(processWords(app), ::testing::ElementsAre(Place::appExecutable));
    EXPECT_EQ(machine.failedUnits(), "");
}

TEST_F(Restart, HoldsOnAfterAPowerCut) {
    machine.commit(machine.logIn("alice"));
    machine.cutPower();
    EXPECT_TRUE(machine.isLocked()) << "nobody could take the lock off";
    machine.switchOn();
    (void)machine.waitFor(Place::helper, Seconds{30});
    EXPECT_TRUE(machine.says("Holding Ultra Hard mode for another *"));
    EXPECT_TRUE(machine.isLocked());
    EXPECT_GT(machine.state()->remaining, 1400);
}

TEST_F(Restart, LetsGoOfWhatRanOutMeanwhile) {
    machine.commit(machine.logIn("alice"), "0.25");
    machine.cutPower();
    EXPECT_TRUE(machine.isLocked());
    const Seconds off = timeNow();
    EXPECT_TRUE(eventually(Seconds{30}, [&] { return timeNow() - off >= Seconds{16}; }));
    machine.switchOn();
    EXPECT_TRUE(machine.says("Ultra Hard mode let go: expiredAtStartup"));
    EXPECT_FALSE(machine.isLocked());
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    EXPECT_EQ(machine.sh("rm -r " + Place::app + " && echo gone"), "gone\n");
}

TEST_F(Restart, StartsNoHelperWhenNothingIsHeld) {
    machine.commit(machine.logIn("alice"), "0.1");
    ASSERT_TRUE(machine.says("Ultra Hard mode let go: deadline", Seconds{40}));
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    machine.restart();
    EXPECT_EQ(machine.property(Unit::resume, "ConditionResult"), "no");
    EXPECT_EQ(machine.property(Unit::service, "ActiveEnterTimestamp"), "");
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_THAT(machine.running(Place::helper), IsEmpty());
    // It is one call away.
    EXPECT_EQ(machine.runIn(machine.logIn("alice"), {Place::appExecutable}).status, 0);
    EXPECT_EQ(machine.activeState(Unit::service), "active");
}

}  // namespace
}  // namespace halvo::testing
