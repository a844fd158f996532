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

    // Kills a helper at each of its system calls while it carries out a caller's `words`, and calls
    // `check` with the record and with whether the caller was answered.
    void killWhileAsked(const std::vector<std::string>& words, bool committed,
                        const std::function<void(const std::optional<State>&, bool)>& check) {
        for (int call = 1;; ++call) {
            SCOPED_TRACE("killed at system call " + std::to_string(call));
            if (committed) {
                before = commit();
            }
            bool killed = false;
            bool answered = false;
            {
                RunningHelper helper;
                Stepper stepper(helper.process());
                TestProcess caller = world.startCaller(words);
                killed = stepper.goTo(call, {}, [&] { return !caller.isRunning(); });
                helper.kill();
                answered = caller.wait() == Reply::yes;
            }
            const auto state = expectConsistent();
            check(state, answered);
            expectRecovery(state);
            if (!killed || HasFailure()) {
                EXPECT_GE(call, 20) << "that few system calls cannot be all";
                return;
            }
        }
    }

    World world;
    // The record before the helper that is killed.
    State before;
};

TEST_F(KillTest, DuringABegin) {
    int whole = 0;
    int none = 0;
    killWhileAsked({"begin", ".", "600", "0"}, false,
                   [&](const std::optional<State>& state, bool answered) {
                       EXPECT_TRUE(state || !answered) << "what was promised is gone";
                       ++(state ? whole : none);
                   });
    EXPECT_GE(whole, 1);
    EXPECT_GE(none, 1);
}

TEST_F(KillTest, DuringAnExtension) {
    killWhileAsked({"begin", ".", "1200", "0"}, true,
                   [&](const std::optional<State>& state, bool answered) {
                       ASSERT_TRUE(state) << "the commitment is gone";
                       EXPECT_TRUE(state->locked);
                       EXPECT_TRUE(isLocked());
                       EXPECT_EQ(state->startedWall, before.startedWall);
                       const double end = state->wall + state->remaining;
                       if (answered || end > before.wall + 900) {
                           EXPECT_NEAR(end, before.wall + 1200, 30);
                       } else {
                           EXPECT_NEAR(end, before.wall + before.remaining, 1);
                       }
                   });
}

TEST_F(KillTest, DuringAnEnd) {
    killWhileAsked({"end"}, true, [&](const std::optional<State>& state, bool answered) {
        EXPECT_FALSE(state && answered) << "what was let go is back";
        if (state) {
            EXPECT_EQ(state->startedWall, before.startedWall);
            EXPECT_NEAR(state->wall + state->remaining, before.wall + before.remaining, 1);
        }
    });
}

TEST_F(KillTest, DuringItsEnd) {
    for (int call = 1;; ++call) {
        SCOPED_TRACE("killed at system call " + std::to_string(call));
        before = commit();
        bool killed = false;
        {
            // Leaks cannot be looked for in a process that is traced when it ends.
            RunningHelper helper({.environment = {"ASAN_OPTIONS=detect_leaks=0"}});
            Stepper stepper(helper.process());
            helper.process().send(SIGTERM);
            killed = stepper.goTo(call, {}, [] { return false; });
            helper.kill();
        }
        const auto state = expectConsistent();
        ASSERT_TRUE(state);
        EXPECT_TRUE(state->locked);
        EXPECT_EQ(state->startedWall, before.startedWall);
        expectRecovery(state);
        if (!killed || HasFailure()) {
            EXPECT_GE(call, 15);
            return;
        }
    }
}

// Kills one that starts at each system call from the one on that makes it the only helper.
void killWhileStarting(const std::function<void()>& prepare, const std::function<void()>& check) {
    constexpr Seconds quiet{0.05};
    for (int call = 1;; ++call) {
        SCOPED_TRACE("killed at system call " + std::to_string(call));
        prepare();
        bool killed = false;
        {
            RunningHelper helper({.stopped = true});
            Stepper stepper(helper.process());
            std::optional<Seconds> quietSince;
            // It waits for callers, and makes no more calls.
            killed = stepper.goTo(call, SYS_flock, [&] {
                if (serves(helper.process().pid()) && !quietSince) {
                    quietSince = timeNow();
                }
                return quietSince && timeNow() - *quietSince > quiet;
            });
            helper.kill();
        }
        check();
        if (!killed || ::testing::Test::HasFailure()) {
            EXPECT_GE(call, 25);
            return;
        }
    }
}

TEST_F(KillTest, WhileItTakesUpACommitment) {
    killWhileStarting([this] { before = commit(); },
                      [this] {
                          const auto state = expectConsistent();
                          ASSERT_TRUE(state);
                          EXPECT_TRUE(state->locked);
                          EXPECT_EQ(state->startedWall, before.startedWall);
                          EXPECT_NEAR(state->wall + state->remaining,
                                      before.wall + before.remaining, 1);
                          expectRecovery(state);
                      });
}

TEST_F(KillTest, WhileItLocksWhatAnEndedOneUnlocked) {
    killWhileStarting(
        [this] {
            before = commit();
            RunningHelper helper;
            helper.terminate();
            ASSERT_FALSE(isLocked());
        },
        [this] {
            const auto state = expectConsistent();
            ASSERT_TRUE(state);
            EXPECT_TRUE(state->locked);
            expectRecovery(state);
        });
}

TEST_F(KillTest, WhileItLetsGoWhatRanOut) {
    killWhileStarting(
        [this] {
            before = commit();
            auto record = nlohmann::json::parse(readTestFile(Place::stateFile));
            record["remaining"] = 0.0;
            put(Place::stateFile, record.dump(), 0600);
        },
        [this] {
            const auto state = expectConsistent();
            {
                RunningHelper next;
                EXPECT_EQ(next.count("error: *"), 0);
                EXPECT_EQ(next.count("Ultra Hard mode let go: expiredAtStartup"), state ? 1 : 0);
                EXPECT_FALSE(isLocked());
            }
            expectRecovery(std::nullopt);
        });
}

}  // namespace
}  // namespace halvo::testing
