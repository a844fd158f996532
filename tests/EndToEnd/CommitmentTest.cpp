// A commitment from begin to end with all parts real. The tests of the engine, of the connection
// and of the store cover the rules one by one.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Le;

class CommitmentTest : public ::testing::Test {
  protected:
    World world;
    RunningHelper helper;
};

TEST_F(CommitmentTest, IsHeldSavedAndLockedUntilItEnds) {
    const Status before = world.status();
    EXPECT_FALSE(before.holding);
    EXPECT_EQ(before.until, std::nullopt);
    EXPECT_FALSE(before.locked);

    const double asked = secondsSince1970(wallNow());
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(helper.count("Holding Ultra Hard mode for 59*"), 1);
    const Status after = world.status();
    EXPECT_TRUE(after.holding);
    EXPECT_TRUE(after.locked);
    EXPECT_NEAR(after.until.value_or(0), asked + 600, 5);
    EXPECT_TRUE(isLocked());

    const auto state = world.state();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->appPath, Place::app);
    EXPECT_EQ(state->uid, world.user);
    EXPECT_NEAR(state->startedWall, asked, 5);
    EXPECT_THAT(state->remaining, AllOf(Ge(595), Le(600)));
    EXPECT_THAT(state->capRemaining, AllOf(Ge(86395), Le(86400)));
    EXPECT_TRUE(state->locked);

    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_EQ(helper.count("Ultra Hard mode let go: ended"), 1);
    EXPECT_FALSE(world.status().holding);
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(CommitmentTest, KeepsEvenRootFromMovingTheApp) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const std::string moved = Place::applications + "/Moved.app";
    EXPECT_EQ(rename(Place::app.c_str(), moved.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(open((Place::app + "/new").c_str(), O_CREAT | O_WRONLY, 0600), -1);
    EXPECT_EQ(errno, EPERM);
    const std::string command = "mv " + Place::app + " " + moved + " 2>/dev/null";
    EXPECT_NE(std::system(command.c_str()), 0);
    EXPECT_TRUE(exists(Place::caller));

    ASSERT_EQ(world.end(), Reply::yes);
    EXPECT_EQ(rename(Place::app.c_str(), moved.c_str()), 0);
}

TEST_F(CommitmentTest, EndsAtTheFirstTickAfterItsDeadline) {
    const Seconds begun = timeNow();
    ASSERT_EQ(world.begin(Seconds{5}), Reply::yes);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(helper.says("Ultra Hard mode let go: deadline", Seconds{15}));
    EXPECT_THAT((timeNow() - begun).count(), AllOf(Ge(5), Le(9)));
    EXPECT_TRUE(eventually(Seconds{1}, [] { return !exists(Place::stateFolder); }));
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.ask({"heartbeat"}).status, Reply::no);
}

}  // namespace
}  // namespace halvo::testing
