// A helper that is killed at any moment comes back to the commitment it had, and a lock is never
// left without the record that owes its removal.

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

    // What must be so whenever no helper runs.
    [[nodiscard]] std::optional<State> expectConsistent() const {
        auto state = world.state();
        if (isLocked()) {
            EXPECT_TRUE(state && state->locked) << "locked, and nothing owes its removal";
        }
        if (state) {
            EXPECT_EQ(state->appPath, Place::app);
            EXPECT_EQ(state->uid, world.user);
        }
        return state;
    }

    // The next helper holds what the record says, and lets go of all of it.
    void expectRecovery(const std::optional<State>& state) {
        RunningHelper next;
        EXPECT_EQ(next.count("error: *"), 0) << next.process().output();
        const Told told = world.status();
        EXPECT_EQ(told.holding, state.has_value());
        EXPECT_EQ(isLocked(), state.has_value() && state->locked);
        if (state) {
            EXPECT_NEAR(told.until.value_or(0), state->wall + state->remaining, 1);
        } else {
            // What was left of an empty folder goes with the next commitment.
            ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
        }
        EXPECT_EQ(world.end(), Reply::yes);
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
    }

    // A machine with a commitment of ten minutes, whose helper was killed.
    [[nodiscard]] State commit() const {
        RunningHelper helper;
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        helper.kill();
        EXPECT_TRUE(isLocked());
        return world.state().value_or(State{});
    }

    // What a helper does while it is killed at each of its system calls.
    struct Deed {
        // How it is started. One that is `stopped` is followed from the call on that makes it the
        // only helper, until it serves.
        Start start{};
        // What it is asked meanwhile. Without, and not stopped, it is to end.
        std::vector<std::string> request{};
        // What is so before each helper.
        std::function<void()> prepare = [] {};
        // Looks at the record that is left, and whether the caller was answered.
        std::function<void(const std::optional<State>&, bool)> check;
    };

    void killDuring(const Deed& deed) {
        for (int call = 1;; ++call) {
            SCOPED_TRACE("killed at system call " + std::to_string(call));
            deed.prepare();
            bool killed = false;
            bool answered = false;
            {
                RunningHelper helper(deed.start);
                Stepper stepper(helper.process());
                if (deed.start.stopped) {
                    killed = stepper.goTo(call, SYS_flock, isQuiet(helper));
                } else if (deed.request.empty()) {
                    helper.process().send(SIGTERM);
                    killed = stepper.goTo(call, {}, [] { return false; });
                } else {
                    TestProcess caller = world.startCaller(deed.request);
                    killed = stepper.goTo(call, {}, [&] { return !caller.isRunning(); });
                    helper.kill();
                    answered = caller.wait() == Reply::yes;
                }
                helper.kill();
            }
            deed.check(expectConsistent(), answered);
            expectRecovery(world.state());
            if (!killed || HasFailure()) {
                EXPECT_GE(call, 15) << "that few system calls cannot be all";
                return;
            }
        }
    }

    // Whether it waits for callers, and makes no more calls.
    static std::function<bool()> isQuiet(RunningHelper& helper) {
        return [&helper, since = std::optional<Seconds>()]() mutable {
            if (serves(helper.process().pid()) && !since) {
                since = timeNow();
            }
            return since && timeNow() - *since > Seconds{0.05};
        };
    }

    // Whether it is the commitment from before, with as much time left.
    void expectAsBefore(const std::optional<State>& state) const {
        ASSERT_TRUE(state) << "the commitment is gone";
        EXPECT_TRUE(state->locked);
        EXPECT_EQ(state->startedWall, before.startedWall);
        EXPECT_NEAR(state->wall + state->remaining, before.wall + before.remaining, 1);
    }

    const std::function<void()> commits = [this] { before = commit(); };

    World world;
    // The record before the helper that is killed.
    State before;
};

TEST_F(KillTest, DuringABegin) {
    int whole = 0;
    int none = 0;
    killDuring({.request = {"begin", ".", "600", "0"},
                .check = [&](const std::optional<State>& state, bool answered) {
                    EXPECT_TRUE(state || !answered) << "what was promised is gone";
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
                    EXPECT_FALSE(state && answered) << "what was let go is back";
                    if (state) {
                        expectAsBefore(state);
                    }
                }});
}

TEST_F(KillTest, DuringItsEnd) {
    // Leaks cannot be looked for in a process that is traced when it ends.
    killDuring({.start = {.environment = {"ASAN_OPTIONS=detect_leaks=0"}},
                .prepare = commits,
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, WhileItTakesUpACommitment) {
    killDuring({.start = {.stopped = true},
                .prepare = commits,
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, WhileItLocksWhatAnEndedOneUnlocked) {
    killDuring({.start = {.stopped = true},
                .prepare =
                    [&] {
                        commits();
                        RunningHelper().terminate();
                        ASSERT_FALSE(isLocked());
                    },
                .check = [&](const auto& state, bool) { expectAsBefore(state); }});
}

TEST_F(KillTest, WhileItLetsGoWhatRanOut) {
    killDuring({.start = {.stopped = true},
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
