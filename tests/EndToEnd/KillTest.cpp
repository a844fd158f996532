// After SIGKILL at any moment the next helper resumes the commitment, and no bundle is locked
// without a record that owes the unlock.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

class KillTest : public ::testing::Test {
  protected:
    void SetUp() override { world.leaveConsole(); }

    // The invariants while no helper runs.
    [[nodiscard]] std::optional<State> expectConsistent() const {
        auto state = world.state();
        if (isLocked()) {
            EXPECT_TRUE(state && state->locked) << "locked, and no record owes the unlock";
        }
        if (state) {
            EXPECT_EQ(state->appPath, Place::app);
            EXPECT_EQ(state->uid, world.user);
        }
        return state;
    }

    // The next helper holds what the record says, and can end it.
    void expectRecovery(const std::optional<State>& state) {
        RunningHelper next;
        EXPECT_EQ(next.count("error: *"), 0) << next.process().output();
        const Status status = world.status();
        EXPECT_EQ(status.holding, state.has_value());
        EXPECT_EQ(isLocked(), state.has_value() && state->locked);
        if (state) {
            EXPECT_NEAR(status.until.value_or(0), state->wall + state->remaining, 1);
        } else {
            // A folder left empty is removed with the next commitment.
            ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
        }
        EXPECT_EQ(world.end(), Reply::yes);
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
    }

    // An operation of the helper, during which it is killed at each of its system calls that other
    // processes can notice.
    struct Operation {
        // How the helper is started. With `stopped`, the operation is its start-up, from flock(2)
        // of its lock file until it serves.
        ProcessOptions options{};
        // The caller's request. Without one, and not stopped, the operation is SIGTERM.
        std::vector<std::string> request{};
        // Runs before each helper is started.
        std::function<void()> prepare = [] {};
        // Checks the record that is left, given whether the caller got a yes.
        std::function<void(const std::optional<State>&, bool)> check;
    };

    void killDuring(const Operation& operation) {
        for (int call = 1;; ++call) {
            SCOPED_TRACE("killed at system call " + std::to_string(call));
            operation.prepare();
            bool killed = false;
            bool answered = false;
            {
                RunningHelper helper(operation.options);
                Stepper stepper(helper.process());
                if (operation.options.stopped) {
                    killed = stepper.goTo(call, SYS_flock, isQuiet(helper));
                } else if (operation.request.empty()) {
                    helper.process().send(SIGTERM);
                    killed = stepper.goTo(call, {}, [] { return false; });
                } else {
                    TestProcess caller = world.startCaller(operation.request);
                    killed = stepper.goTo(call, {}, [&] { return !caller.isRunning(); });
                    helper.kill();
                    answered = caller.wait() == Reply::yes;
                }
                helper.kill();
            }
            operation.check(expectConsistent(), answered);
            expectRecovery(world.state());
            if (!killed || HasFailure()) {
                EXPECT_GE(call, 15) << "too few system calls for the operation";
                return;
            }
        }
    }

    // Whether it serves, and has made no system call for a while.
    static std::function<bool()> isQuiet(RunningHelper& helper) {
        return [&helper, since = std::optional<Seconds>()]() mutable {
            if (serves(helper.process().pid()) && !since) {
                since = timeNow();
            }
            return since && timeNow() - *since > Seconds{0.05};
        };
    }

    // It is the commitment `before`, with the time left that it should have.
    void expectAsBefore(const std::optional<State>& state) const {
        ASSERT_TRUE(state) << "the commitment is lost";
        EXPECT_TRUE(state->locked);
        EXPECT_EQ(state->startedWall, before.startedWall);
        EXPECT_NEAR(state->wall + state->remaining, before.wall + before.remaining, 1);
    }

    const std::function<void()> commits = [this] {
        leaveCommitment(world);
        before = world.state().value_or(State{});
    };

    World world;
    // The stored state when the killed helper is started.
    State before;
};

TEST_F(KillTest, DuringABegin) {
    int whole = 0;
    int none = 0;
    killDuring({.request = {"begin", ".", "600", "0"},
                .check = [&](const std::optional<State>& state, bool answered) {
                    EXPECT_TRUE(state || !answered) << "an acknowledged commitment is lost";
                    ++(state ? whole : none);
                }});
    EXPECT_GE(whole, 1);
    EXPECT_GE(none, 1);
}

TEST_F(KillTest, DuringAnExtension) {
    killDuring({.request = {"begin", ".", "1200", "0"},
                .prepare = commits,
                .check = [&](std::optional<State> state, bool answered) {
                    EXPECT_TRUE(isLocked());
                    const double end = before.wall + 1200;
                    if (state && (answered || state->wall + state->remaining > end - 300)) {
                        EXPECT_NEAR(state->wall + state->remaining, end, 30);
                        state->wall = before.wall;
                        state->remaining = before.remaining;
                    }
                    expectAsBefore(state);
                }});
}

TEST_F(KillTest, DuringAnEnd) {
    killDuring({.request = {"end"},
                .prepare = commits,
                .check = [&](const std::optional<State>& state, bool answered) {
                    EXPECT_FALSE(state && answered) << "an ended commitment is back";
                    if (state) {
                        expectAsBefore(state);
                    }
                }});
}

TEST_F(KillTest, DuringTermination) {
    // LeakSanitizer cannot run in a traced process.
    killDuring({.options = {.environment = {"ASAN_OPTIONS=detect_leaks=0"}},
                .prepare = commits,
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, DuringAStartUpThatResumes) {
    killDuring({.options = {.stopped = true},
                .prepare = commits,
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, DuringAStartUpThatLocksAgain) {
    killDuring({.options = {.stopped = true},
                .prepare =
                    [&] {
                        commits();
                        RunningHelper().terminate();
                        ASSERT_FALSE(isLocked());
                    },
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, DuringAStartUpThatExpires) {
    killDuring({.options = {.stopped = true},
                .prepare =
                    [&] {
                        commits();
                        auto record = nlohmann::json::parse(readTestFile(Place::stateFile));
                        record["remaining"] = 0.0;
                        put(Place::stateFile, record.dump(), 0600);
                    },
                .check =
                    [&](const std::optional<State>& state, bool) {
                        const RunningHelper next;
                        EXPECT_EQ(next.count("error: *"), 0);
                        EXPECT_EQ(next.count("Ultra Hard mode let go: expiredAtStartup"),
                                  state ? 1 : 0);
                        EXPECT_FALSE(isLocked());
                    }});
}

}  // namespace
}  // namespace halvo::testing
