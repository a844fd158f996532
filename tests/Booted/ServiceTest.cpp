// The service when it is stopped, killed, hung or idle, and across restarts of the machine.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <csignal>
#include <string>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

using ::testing::IsEmpty;

struct Service : ::testing::Test {
    Service() {
        machine.install();
        session = machine.logIn("alice");
    }

    [[nodiscard]] pid_t helper() const { return machine.waitFor(Place::helper, Seconds{30}); }

    [[nodiscard]] double remaining() const {
        const auto state = machine.state();
        EXPECT_TRUE(state.has_value()) << "no commitment is stored";
        return state ? state->remaining : -1;
    }

    BootedMachine machine;
    std::string session;
};

TEST_F(Service, UnlocksWhileStoppedAndCountsThatTime) {
    machine.commit(session);
    const Seconds begun = timeNow();
    machine.must({"systemctl", "stop", Unit::socket, Unit::service});
    EXPECT_EQ(machine.activeState(Unit::service), "inactive");
    EXPECT_EQ(machine.property(Unit::service, "Result"), "success");
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "75");
    EXPECT_FALSE(machine.isLocked());
    const double stored = remaining();
    // Well above the tolerances below.
    EXPECT_TRUE(always(Seconds{8}, [&] { return !machine.isLocked(); }));
    EXPECT_EQ(remaining(), stored) << "the record changed while no helper ran";
    machine.start(Unit::service);
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return machine.isLocked(); }));
    const double taken = 1500 - remaining();
    const double passed = (timeNow() - begun).count();
    EXPECT_GT(taken, passed - 3);
    EXPECT_LT(taken, passed + 5);
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
}

TEST_F(Service, RestartsAfterSIGTERMWhileHolding) {
    machine.commit(session);
    const pid_t first = helper();
    // The app would start it through the socket.
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

TEST_F(Service, StaysInactiveAfterSIGTERMWhenIdle) {
    EXPECT_EQ(machine.runIn(session, {Place::appExecutable}).status, 0);
    kill(helper(), SIGTERM);
    EXPECT_TRUE(
        eventually(Seconds{20}, [&] { return machine.activeState(Unit::service) == "inactive"; }));
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "0");
    EXPECT_TRUE(always(Seconds{4}, [&] { return machine.running(Place::helper).empty(); }));
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
}

TEST_F(Service, RestartsAfterEachOfTenKills) {
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

TEST_F(Service, IsRestartedByTheWatchdogWhenItHangs) {
    machine.commit(session);
    const pid_t hung = helper();
    kill(hung, SIGSTOP);
    const Seconds since = timeNow();
    const pid_t next = machine.waitFor(Place::helper, Seconds{120}, {hung});
    EXPECT_NE(next, hung);
    EXPECT_FALSE(isAlive(hung));
    EXPECT_GT(timeNow() - since, Seconds{10}) << "sooner than the watchdog";
    EXPECT_TRUE(eventually(Seconds{20}, [&] {
        return machine.isLocked() && machine.activeState(Unit::service) == "active";
    }));
    EXPECT_NE(machine.sh("journalctl --no-pager --unit=" + Unit::service).find("Watchdog timeout"),
              std::string::npos);
}

// Of the machine.
struct Restart : ::testing::Test {
    Restart() { machine.install(); }

    BootedMachine machine;
};

TEST_F(Restart, ResumesTheCommitmentBeforeAnyLogin) {
    machine.logInAndCommit();
    const Seconds begun = timeNow();
    machine.shutDown();
    EXPECT_FALSE(machine.isLocked()) << "a shutdown unlocks";
    ASSERT_TRUE(machine.state().has_value());
    // Time that only the wall clock counts.
    sleepFor(Seconds{10});
    machine.switchOn();
    EXPECT_TRUE(eventually(Seconds{30}, [&] { return machine.isLocked(); }));
    (void)machine.waitFor(Place::helper, Seconds{10});
    EXPECT_EQ(machine.activeState(Unit::service), "active");
    EXPECT_TRUE(machine.says("Holding Ultra Hard mode for another *"));
    const double taken = 1500 - machine.state()->remaining;
    const double passed = (timeNow() - begun).count();
    EXPECT_GT(taken, passed - 5);
    EXPECT_LT(taken, passed + 5);
    // The app is opened at login, and not as after a quit.
    const std::string session = machine.logIn("alice");
    const pid_t app = machine.waitFor(Place::appExecutable, Seconds{60});
    EXPECT_THAT(processWords(app), ::testing::ElementsAre(Place::appExecutable));
    EXPECT_EQ(machine.failedUnits(), "");
}

TEST_F(Restart, ResumesTheCommitmentAfterAPowerCut) {
    machine.logInAndCommit();
    machine.cutPower();
    EXPECT_TRUE(machine.isLocked()) << "a power cut leaves the lock";
    machine.switchOn();
    (void)machine.waitFor(Place::helper, Seconds{30});
    EXPECT_TRUE(machine.says("Holding Ultra Hard mode for another *"));
    EXPECT_TRUE(machine.isLocked());
    EXPECT_GT(machine.state()->remaining, 1400);
}

TEST_F(Restart, EndsACommitmentThatExpiredMeanwhile) {
    machine.logInAndCommit("0.25");
    const Seconds end = timeNow() + Seconds{16};
    machine.cutPower();
    EXPECT_TRUE(machine.isLocked());
    sleepFor(end - timeNow());
    machine.switchOn();
    EXPECT_TRUE(machine.says("Ultra Hard mode let go: expiredAtStartup"));
    EXPECT_FALSE(machine.isLocked());
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    EXPECT_EQ(machine.sh("rm -r " + Place::app + " && echo gone"), "gone\n");
}

TEST_F(Restart, StartsNoHelperWithoutACommitment) {
    machine.logInAndCommit("0.1");
    ASSERT_TRUE(machine.says("Ultra Hard mode let go: deadline", Seconds{40}));
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    machine.restart();
    EXPECT_EQ(machine.property(Unit::resume, "ConditionResult"), "no");
    EXPECT_EQ(machine.property(Unit::service, "ActiveEnterTimestamp"), "");
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_THAT(machine.running(Place::helper), IsEmpty());
    // The first call starts it.
    EXPECT_EQ(machine.runIn(machine.logIn("alice"), {Place::appExecutable}).status, 0);
    EXPECT_EQ(machine.activeState(Unit::service), "active");
}

}  // namespace
}  // namespace halvo::testing
