// How the helper ends, and takes up again what it left.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;
using ::testing::StartsWith;

constexpr int exitWhileHolding = 75;
constexpr Seconds idleLimit{30};
// One tick, and what a busy machine adds.
constexpr Seconds idleLate{4};

class EndingTest : public ::testing::Test {
  protected:
    World world;
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
    const double end = first->wall + first->remaining;
    for (int round = 0; round < 15; ++round) {
        ASSERT_EQ(helper->terminate(), exitWhileHolding);
        helper.emplace();
        const auto state = world.state();
        ASSERT_TRUE(state);
        EXPECT_EQ(state->startedWall, first->startedWall);
        EXPECT_NEAR(state->wall + state->remaining, end, 0.5);
        EXPECT_TRUE(isLocked());
    }
}

TEST_F(EndingTest, OfAHelperThatHoldsNothingIsPlain) {
    RunningHelper helper;
    EXPECT_EQ(helper.terminate(), 0);
    EXPECT_THAT(helper.log(), ElementsAre());
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(EndingTest, RightAfterTheTimeRanOutIsPlainAndLeavesTheRestToTheNext) {
    // Between the deadline and the tick that would see it; not so on a machine that stumbles.
    constexpr int tries = 8;
    for (int i = 0; i < tries; ++i) {
        RunningHelper helper;
        ASSERT_EQ(world.begin(Seconds{1}), Reply::yes);
        const auto held = world.state();
        sleepFor(helper.servedAt() + Seconds{1.6} - timeNow());
        const int status = helper.terminate();
        if (helper.count("Ultra Hard mode let go: deadline") == 1) {
            continue;
        }
        EXPECT_EQ(status, 0);
        EXPECT_FALSE(isLocked());
        const auto left = world.state();
        ASSERT_TRUE(left);
        EXPECT_LE(left->remaining, 0);
        EXPECT_TRUE(left->locked);
        EXPECT_EQ(left->startedWall, held->startedWall);

        RunningHelper next;
        EXPECT_THAT(next.log(), ElementsAre("Ultra Hard mode let go: expiredAtStartup"));
        EXPECT_FALSE(exists(Place::stateFolder));
        EXPECT_FALSE(world.status().holding);
        return;
    }
    FAIL() << "the signal never came between the deadline and the next tick";
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

TEST_F(EndingTest, ComesByItselfAfterThirtyIdleSeconds) {
    const Seconds before = timeNow();
    RunningHelper helper;
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(timeNow() - before, idleLimit);
    EXPECT_FALSE(exists(Place::socket));
    EXPECT_THAT(helper.log(), ElementsAre());
}

TEST_F(EndingTest, ByItselfIsPutOffByEveryConnection) {
    RunningHelper helper;
    sleepFor(Seconds{15});
    const Seconds before = timeNow();
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(timeNow() - before, idleLimit);
}

TEST_F(EndingTest, ByItselfWaitsForAsLongAsAConnectionIsOpen) {
    RunningHelper helper;
    // One that is silent for as long as it may.
    TestProcess caller(
        {.words = {Place::caller, "talk", "Status", "~20", "Status", "~20"}, .person = world.user});
    EXPECT_EQ(caller.wait(), 0);
    EXPECT_EQ(caller.output(), "badb\nbadb\n");
    const Seconds before = timeNow();
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(timeNow() - before, idleLimit);
}

TEST_F(EndingTest, ByItselfIsNotPutOffByStrangers) {
    RunningHelper helper;
    // Nobody, over and over.
    TestProcess strangers({.words = {"/bin/sh", "-c",
                                     "while sleep 1; do " HALVO_TEST_CALLER " --socket " +
                                         Place::socket + " status; done"},
                           .person = world.user});
    EXPECT_EQ(helper.wait(idleLimit + idleLate), 0);
    EXPECT_GE(helper.count("error: Refused a caller: *"), 10);
}

TEST_F(EndingTest, ByItselfNeverComesWhileACommitmentHolds) {
    // Nobody for whom the app would be opened: its connection, too, would keep the helper.
    world.console({"nobody"});
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(always(idleLimit + Seconds{6}, [&] { return helper.isRunning(); }));
    ASSERT_EQ(world.end(), Reply::yes);
    EXPECT_TRUE(helper.isRunning());
}

TEST_F(EndingTest, ByTheKeyboardLeavesEverythingInItsPlace) {
    RunningHelper killed;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    killed.process().send(SIGINT);
    EXPECT_EQ(killed.wait(), 128 + SIGINT);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(world.state()->locked);
    RunningHelper helper;
    EXPECT_TRUE(world.status().holding);
}

}  // namespace
}  // namespace halvo::testing
