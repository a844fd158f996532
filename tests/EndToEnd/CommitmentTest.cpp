// What a commitment does, from its begin to its end.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;

const std::string again = "Locked Halvo's app again";

double wall() { return secondsSince1970(wallNow()); }

class CommitmentTest : public ::testing::Test {
  protected:
    World world;
    RunningHelper helper;
};

TEST_F(CommitmentTest, IsHeldSavedAndLocked) {
    const Told before = world.status();
    EXPECT_FALSE(before.holding);
    EXPECT_EQ(before.until, std::nullopt);
    EXPECT_FALSE(before.locked);

    const double asked = wall();
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(helper.count("Holding Ultra Hard mode for 59*"), 1);
    const Told after = world.status();
    EXPECT_TRUE(after.holding);
    EXPECT_TRUE(after.locked);
    EXPECT_NEAR(after.until.value_or(0), asked + 600, 5);
    EXPECT_TRUE(isLocked());

    EXPECT_EQ(modeOf(Place::stateFolder), 0700);
    EXPECT_EQ(modeOf(Place::stateFile), 0600);
    const auto state = world.state();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->appPath, Place::app);
    EXPECT_EQ(state->uid, world.user);
    EXPECT_NEAR(state->startedWall, asked, 5);
    EXPECT_THAT(state->remaining, AllOf(Ge(595), Le(600)));
    EXPECT_THAT(state->capRemaining, AllOf(Ge(86395), Le(86400)));
    EXPECT_TRUE(state->locked);
}

TEST_F(CommitmentTest, LeavesNothingBehindInTheStateFolder) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Place::stateFolder)) {
        names.push_back(entry.path().filename());
    }
    EXPECT_THAT(names, ElementsAre("commitment.json"));
}

TEST_F(CommitmentTest, KeepsRootItselfFromMovingTheApp) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const std::string moved = Place::applications + "/Moved.app";
    EXPECT_EQ(rename(Place::app.c_str(), moved.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(rmdir(Place::app.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(chmod(Place::app.c_str(), 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(open((Place::app + "/new").c_str(), O_CREAT | O_WRONLY, 0600), -1);
    EXPECT_EQ(errno, EPERM);
    const std::string command = "mv " + Place::app + " " + moved + " 2>/dev/null";
    EXPECT_NE(std::system(command.c_str()), 0);
    EXPECT_TRUE(exists(Place::caller));

    ASSERT_EQ(world.end(), Reply::yes);
    EXPECT_EQ(rename(Place::app.c_str(), moved.c_str()), 0);
}

TEST_F(CommitmentTest, IsExtendedByAnotherBegin) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const auto first = world.state();
    sleepFor(Seconds{0.5});
    ASSERT_EQ(world.begin(Seconds{1200}), Reply::yes);
    const auto second = world.state();
    EXPECT_EQ(second->startedWall, first->startedWall);
    EXPECT_THAT(second->remaining, AllOf(Ge(1195), Le(1200)));
    EXPECT_LT(second->capRemaining, first->capRemaining - 0.4);
    EXPECT_TRUE(second->locked);
    EXPECT_TRUE(isLocked());
}

TEST_F(CommitmentTest, IsNeverExtendedPastADayFromItsFirstStart) {
    // Started 23 hours ago: an hour is left of the day.
    EXPECT_EQ(world.ask({"begin", ".", "10800", "-82800"}).status, Reply::yes);
    EXPECT_EQ(helper.count("Holding Ultra Hard mode for 359*"), 1);
    EXPECT_EQ(world.ask({"begin", ".", "10800", "0"}).status, Reply::yes);
    EXPECT_EQ(helper.count("Holding Ultra Hard mode for 359*"), 2);
    const Told told = world.status();
    EXPECT_NEAR(told.until.value_or(0), wall() + 3600, 5);
}

TEST_F(CommitmentTest, IsShortenedByABeginWithAnEarlierEnd) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    ASSERT_EQ(world.begin(Seconds{60}), Reply::yes);
    EXPECT_NEAR(world.status().until.value_or(0), wall() + 60, 5);
    EXPECT_THAT(world.state()->remaining, AllOf(Ge(55), Le(60)));
    EXPECT_TRUE(isLocked());
}

TEST_F(CommitmentTest, IsLetGoByABeginWhoseEndHasPassed) {
    EXPECT_EQ(world.begin(Seconds{-10}), Reply::no);
    EXPECT_THAT(helper.log(), ElementsAre());
    EXPECT_FALSE(exists(Place::stateFolder));

    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(world.begin(Seconds{-10}), Reply::no);
    EXPECT_EQ(helper.count("Ultra Hard mode let go: ended"), 1);
    EXPECT_FALSE(world.status().holding);
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(CommitmentTest, IsLetGoByAnEnd) {
    EXPECT_EQ(world.end(), Reply::no);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_EQ(helper.count("Ultra Hard mode let go: ended"), 1);
    EXPECT_FALSE(world.status().holding);
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(exists(Place::stateFolder));
    EXPECT_EQ(world.end(), Reply::no);
}

TEST_F(CommitmentTest, IsLetGoAtItsDeadline) {
    ASSERT_EQ(world.begin(Seconds{3}), Reply::yes);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(helper.says("Ultra Hard mode let go: deadline", Seconds{10}));
    EXPECT_TRUE(eventually(Seconds{1}, [] { return !exists(Place::stateFolder); }));
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(world.status().holding);
    EXPECT_EQ(world.heartbeat(), Reply::no);
}

TEST_F(CommitmentTest, LastsUntilItsDeadline) {
    const Seconds begun = timeNow();
    ASSERT_EQ(world.begin(Seconds{5}), Reply::yes);
    EXPECT_TRUE(helper.says("Ultra Hard mode let go: deadline", Seconds{15}));
    // At the first tick after it.
    EXPECT_THAT((timeNow() - begun).count(), AllOf(Ge(5), Le(9)));
}

TEST_F(CommitmentTest, BelongsToOnePerson) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(world.begin(Seconds{1200}, world.other), Reply::no);
    EXPECT_EQ(helper.count("error: Refused a begin while another person's Ultra Hard mode runs"),
              1);
    EXPECT_EQ(world.begin(Seconds{-10}, world.other), Reply::no);
    EXPECT_EQ(world.ask({"end"}, world.other).status, Reply::no);
    EXPECT_EQ(world.ask({"heartbeat"}, world.other).status, Reply::no);
    EXPECT_FALSE(world.status(world.other).holding);
    EXPECT_FALSE(world.status(world.other).locked);
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.state()->uid, world.user);
    EXPECT_TRUE(isLocked());

    ASSERT_EQ(world.end(), Reply::yes);
    EXPECT_EQ(world.begin(Seconds{600}, world.other), Reply::yes);
    EXPECT_EQ(world.state()->uid, world.other);
}

TEST_F(CommitmentTest, BindsTheCallersOwnBundleOnly) {
    world.installApp(Place::applications + "/Other.app");
    for (const char* path :
         {"/Applications/Other.app", "/Applications/Missing.app", "/Applications", "/", "Halvo.app",
          "", "/Applications/Halvo.app/Contents/MacOS/Inner.app"}) {
        const ChildResult answer = world.ask({"begin", path, "600", "0"});
        EXPECT_EQ(answer.status, Reply::no) << path << ": " << answer.output;
    }
    EXPECT_EQ(helper.count("error: Refused a begin for a bundle that isn't the caller's own"), 7);
    EXPECT_FALSE(isLocked("/Applications/Other.app"));
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(CommitmentTest, BindsWhatALinkToTheBundleLeadsTo) {
    fs::create_directory_symlink(Place::applications, "/tmp/Apps");
    for (const char* path : {"/tmp/Apps/Halvo.app", "/Applications/../Applications/./Halvo.app/",
                             "//Applications//Halvo.app"}) {
        EXPECT_EQ(world.ask({"begin", path, "600", "0"}).status, Reply::yes) << path;
        EXPECT_EQ(world.state()->appPath, Place::app);
        EXPECT_EQ(world.end(), Reply::yes);
    }
    fs::remove("/tmp/Apps");
}

TEST_F(CommitmentTest, HoldsWithoutTheLockOutsideOfApplications) {
    const std::string elsewhere = "/Library/Halvo.app";
    fs::remove_all(elsewhere);
    world.installApp(elsewhere);
    TestProcess caller(
        {.words = {elsewhere + "/Contents/MacOS/TestCaller", "begin", ".", "600", "0"},
         .person = world.user});
    EXPECT_EQ(caller.wait(), Reply::yes);
    EXPECT_FALSE(isLocked(elsewhere));
    const Told told = world.status();
    EXPECT_TRUE(told.holding);
    EXPECT_FALSE(told.locked);

    // From one bundle to the other, the lock follows.
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(isLocked());
    TestProcess back({.words = {elsewhere + "/Contents/MacOS/TestCaller", "begin", ".", "600", "0"},
                      .person = world.user});
    EXPECT_EQ(back.wait(), Reply::yes);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.state()->appPath, elsewhere);
    EXPECT_FALSE(world.state()->locked);
    fs::remove_all(elsewhere);
}

TEST_F(CommitmentTest, SetsTheLockAgainWithinATick) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    for (int times = 1; times <= 2; ++times) {
        setLockedByHand(false);
        const Seconds cleared = timeNow();
        EXPECT_TRUE(eventually(Seconds{10}, [] { return isLocked(); }));
        EXPECT_LT(timeNow() - cleared, Seconds{3});
        EXPECT_TRUE(eventually(Seconds{1}, [&] { return helper.count(again) == times; }));
    }
}

TEST_F(CommitmentTest, NeverTakesOffALockThatSomebodyElseSet) {
    setLockedByHand(true);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_FALSE(world.status().locked);
    EXPECT_FALSE(world.state()->locked);
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_TRUE(isLocked());

    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_EQ(helper.terminate(), 75);
    EXPECT_TRUE(isLocked());
}

TEST_F(CommitmentTest, DoesNotChaseAnAppThatIsGone) {
    ASSERT_EQ(world.begin(Seconds{6}), Reply::yes);
    const std::string moved = Place::applications + "/Moved.app";
    // A tick may come in between.
    EXPECT_TRUE(eventually(Seconds{5}, [&] {
        setLockedByHand(false);
        return rename(Place::app.c_str(), moved.c_str()) == 0;
    }));
    EXPECT_TRUE(helper.says("Ultra Hard mode let go: deadline", Seconds{15}));
    EXPECT_LE(helper.count(again), 1);
    EXPECT_FALSE(exists(Place::stateFolder));
    EXPECT_FALSE(isLocked(moved));
}

}  // namespace
}  // namespace halvo::testing
