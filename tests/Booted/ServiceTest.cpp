// The helper as a service: stopped, killed, hung, idle.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <csignal>
#include <string>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

struct Service : ::testing::Test {
    Service() {
        machine.install();
        session = machine.logIn("alice");
    }

    [[nodiscard]] pid_t helper() const { return machine.waitFor(Place::helper, Seconds{30}); }

    [[nodiscard]] double remaining() const {
        const auto state = machine.state();
        EXPECT_TRUE(state.has_value()) << "nothing is stored";
        return state ? state->remaining : -1;
    }

    BootedMachine machine;
    std::string session;
};

TEST_F(Service, LetsGoOfTheLockWhileItIsStoppedAndNeitherLosesNorGivesTime) {
    machine.commit(session);
    const Seconds begun = timeNow();
    machine.must({"systemctl", "stop", Unit::socket, Unit::service});
    EXPECT_EQ(machine.activeState(Unit::service), "inactive");
    EXPECT_EQ(machine.property(Unit::service, "Result"), "success");
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "75");
    EXPECT_FALSE(machine.isLocked());
    const double stored = remaining();
    // Long enough to be told from what the test itself takes.
    EXPECT_TRUE(always(Seconds{8}, [&] { return !machine.isLocked(); }));
    EXPECT_EQ(remaining(), stored) << "somebody wrote while nothing ran";
    machine.start(Unit::service);
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return machine.isLocked(); }));
    const double taken = 1500 - remaining();
    const double passed = (timeNow() - begun).count();
    EXPECT_GT(taken, passed - 3);
    EXPECT_LT(taken, passed + 5);
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
}

TEST_F(Service, IsStartedAgainAfterASignalWhileItHolds) {
    machine.commit(session);
    const pid_t first = helper();
    // The app would have the socket start it.
    for (const pid_t app : machine.running(Place::appExecutable)) {
        kill(app, SIGKILL);
    }
    kill(first, SIGTERM);
    const pid_t second = machine.waitFor(Place::helper, Seconds{30}, {first});
    EXPECT_NE(second, first);
    EXPECT_TRUE(eventually(Seconds{20}, [&] {
        return machine.isLocked() && machine.activeState(Unit::service) == "active";
    }));
    EXPECT_GT(remaining(), 1400);
}

TEST_F(Service, EndsForGoodAfterASignalWhenItHoldsNothing) {
    EXPECT_EQ(machine.runIn(session, {Place::appExecutable}).status, 0);
    kill(helper(), SIGTERM);
    EXPECT_TRUE(
        eventually(Seconds{20}, [&] { return machine.activeState(Unit::service) == "inactive"; }));
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "0");
    EXPECT_TRUE(always(Seconds{4}, [&] { return machine.running(Place::helper).empty(); }));
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
}

TEST_F(Service, ComesBackHoweverOftenItIsKilled) {
    machine.commit(session);
    pid_t last = helper();
    for (int time = 0; time < 10; ++time) {
        kill(last, SIGKILL);
        last = machine.waitFor(Place::helper, Seconds{30}, {last});
    }
    ASSERT_TRUE(
        eventually(Seconds{30}, [&] { return machine.activeState(Unit::service) == "active"; }));
    EXPECT_EQ(machine.property(Unit::service, "NRestarts"), "10");
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_TRUE(machine.isLocked());
    EXPECT_GT(remaining(), 1300);
    machine.must({"chattr", "-i", Place::app});
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return machine.isLocked(); }));
}

TEST_F(Service, IsStartedAgainWhenItHangs) {
    machine.commit(session);
    const pid_t hung = helper();
    kill(hung, SIGSTOP);
    const Seconds since = timeNow();
    const pid_t next = machine.waitFor(Place::helper, Seconds{120}, {hung});
    EXPECT_NE(next, hung);
    EXPECT_FALSE(isAlive(hung));
    EXPECT_GT(timeNow() - since, Seconds{10}) << "it was not the watchdog";
    EXPECT_TRUE(eventually(Seconds{20}, [&] {
        return machine.isLocked() && machine.activeState(Unit::service) == "active";
    }));
    EXPECT_NE(machine.sh("journalctl --no-pager --unit=" + Unit::service).find("Watchdog timeout"),
              std::string::npos);
}

TEST_F(Service, EndsAfterThirtyIdleSecondsAndIsStartedByTheNextCall) {
    EXPECT_EQ(machine.runIn(session, {Place::appExecutable}).status, 0);
    const pid_t first = helper();
    const Seconds called = timeNow();
    ASSERT_TRUE(eventually(Seconds{60}, [&] { return !isAlive(first); }));
    EXPECT_GT(timeNow() - called, Seconds{25});
    ASSERT_TRUE(
        eventually(Seconds{10}, [&] { return machine.activeState(Unit::service) == "inactive"; }));
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "0");
    EXPECT_EQ(machine.property(Unit::service, "NRestarts"), "0");
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    machine.commit(session);
    EXPECT_NE(helper(), first);
}

}  // namespace
}  // namespace halvo::testing
