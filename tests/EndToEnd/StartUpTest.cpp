// How the helper starts, ends, and takes up again what it left. What keeps it from starting is held
// by the tests of its entry, of the listener and of the Info.plist.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr int exitSystem = 71;
constexpr int exitWhileHolding = 75;

class StartUpTest : public ::testing::Test {
  protected:
    World world;
};

TEST_F(StartUpTest, YieldsToAHelperThatBeganWhileAnotherEnded) {
    std::optional<RunningHelper> first(std::in_place);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // The late one has opened the first one's lock, and takes it when the first has ended.
    RunningHelper late({.stopped = true});
    Stepper stepper(late.process());
    ASSERT_TRUE(stepper.goTo(1, SYS_flock, [] { return false; }));
    EXPECT_EQ(first->terminate(), exitWhileHolding);
    RunningHelper second;
    EXPECT_TRUE(second.isRunning());
    stepper.leave();
    EXPECT_EQ(late.wait(), exitSystem);
    EXPECT_THAT(late.log(),
                ElementsAre("error: Another helper already runs: it holds " + Place::lock));
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(second.terminate(), exitWhileHolding);
    EXPECT_FALSE(exists(Place::socket));
}

TEST_F(StartUpTest, ServesWithoutStandardDescriptors) {
    RunningHelper helper({.prepare = [] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    }});
    const std::string folder = "/proc/" + std::to_string(helper.process().pid()) + "/fd/";
    for (const char* number : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink(folder + number), "/dev/null");
    }
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(world.state()->locked);
    EXPECT_EQ(helper.terminate(), exitWhileHolding);
    EXPECT_TRUE(world.state()->locked);
}

TEST_F(StartUpTest, OutlivesTheReaderOfItsLog) {
    RunningHelper helper({.prepare = [] {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            _exit(1);
        }
        close(ends[0]);
        close(ends[1]);
    }});
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(world.status().holding) << "it ended when it said so";
    EXPECT_EQ(helper.terminate(), exitWhileHolding);
}

TEST_F(StartUpTest, EndsOnSIGTERMWhateverItInherited) {
    RunningHelper helper({.prepare = [] {
        for (const int signal : {SIGTERM, SIGCHLD, SIGPIPE, SIGHUP}) {
            std::signal(signal, SIG_IGN);
        }
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
    }});
    // With everything blocked from the start, nothing tells from outside when it serves.
    ASSERT_TRUE(
        eventually(Seconds{10}, [this] { return world.ask({"status"}).status == Reply::no; }));
    EXPECT_EQ(helper.terminate(), 0);
}

class EndingTest : public StartUpTest {
  protected:
    static constexpr Seconds idleLimit{30};
    // One tick, and what a busy machine adds.
    static constexpr Seconds idleLate{4};
};

TEST_F(EndingTest, OfAHelperThatHoldsKeepsTheRecordAndTakesTheLockOff) {
    RunningHelper first;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const auto before = world.state();
    sleepFor(Seconds{1});
    EXPECT_EQ(first.terminate(), exitWhileHolding);
    const auto left = world.state();
    ASSERT_TRUE(left);
    EXPECT_TRUE(left->locked);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(left->uid, before->uid);
    EXPECT_EQ(left->startedWall, before->startedWall);
    EXPECT_LE(left->remaining, before->remaining - 1);

    sleepFor(Seconds{1});
    RunningHelper second;
    EXPECT_THAT(second.log(), ElementsAre("Locked Halvo's app again",
                                          StartsWith("Holding Ultra Hard mode for another 59")));
    EXPECT_TRUE(isLocked());
    const auto taken = world.state();
    EXPECT_LE(taken->remaining, left->remaining - 1);
    EXPECT_LE(taken->capRemaining, left->capRemaining - 1);
    EXPECT_TRUE(taken->locked);
    EXPECT_TRUE(world.status().holding);
    EXPECT_NEAR(world.status().until.value_or(0), before->wall + before->remaining, 2);
}

TEST_F(EndingTest, GainsNoTimeOverManyRestarts) {
    std::optional<RunningHelper> helper(std::in_place);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const auto first = world.state();
    for (int round = 0; round < 15; ++round) {
        ASSERT_EQ(helper->terminate(), exitWhileHolding);
        helper.emplace();
        const auto state = world.state();
        ASSERT_TRUE(state);
        EXPECT_EQ(state->startedWall, first->startedWall);
        EXPECT_NEAR(state->wall + state->remaining, first->wall + first->remaining, 0.5);
        EXPECT_TRUE(isLocked());
    }
}

TEST_F(EndingTest, WhileTheTimeRunsOutIsNoticedByTheNext) {
    RunningHelper killed;
    ASSERT_EQ(world.begin(Seconds{1}), Reply::yes);
    killed.kill();
    ASSERT_TRUE(isLocked());
    sleepFor(Seconds{1.2});
    RunningHelper helper;
    EXPECT_THAT(helper.log(), ElementsAre("Ultra Hard mode let go: expiredAtStartup"));
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(EndingTest, ComesByItselfThirtySecondsAfterTheLastConnection) {
    RunningHelper helper;
    // One that is silent for as long as it may.
    const ChildResult answer = world.ask({"talk", "Status", "~20", "Status", "~20"});
    EXPECT_EQ(answer.output, "badb\nbadb\n");
    const Seconds before = timeNow();
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(timeNow() - before, idleLimit);
    EXPECT_FALSE(exists(Place::socket));
    EXPECT_THAT(helper.log(), ElementsAre());
}

TEST_F(EndingTest, ByItselfIsNotPutOffByStrangers) {
    RunningHelper helper;
    TestProcess strangers({.words = {"/bin/sh", "-c",
                                     "while sleep 1; do " HALVO_TEST_CALLER " --socket " +
                                         Place::socket + " status; done"},
                           .person = world.user});
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(helper.count("error: Refused a caller: *"), 10);
}

}  // namespace
}  // namespace halvo::testing
