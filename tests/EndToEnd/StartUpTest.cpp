// Start-up and exit of the helper. Failures of the start-up are covered by the tests of main(), of
// the listener and of the Info.plist; what is resumed by those of the engine, KillTest and
// tests/Booted.

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

using ::testing::ElementsAre;

constexpr int exitSystem = 71;
constexpr int exitWhileHolding = 75;

class StartUpTest : public ::testing::Test {
  protected:
    World world;
};

TEST_F(StartUpTest, ExitsWhenAnotherHelperIsFasterToReplaceTheLast) {
    std::optional<RunningHelper> first(std::in_place);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // It has opened the lock file of the first helper, and calls flock(2) after that has exited.
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

TEST_F(StartUpTest, SurvivesAClosedLogPipe) {
    RunningHelper helper({.prepare = [] {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            _exit(1);
        }
        close(ends[0]);
        close(ends[1]);
    }});
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(world.status().holding) << "it exited when it logged that";
    EXPECT_EQ(helper.terminate(), exitWhileHolding);
}

TEST_F(StartUpTest, ResetsInheritedSignalsAndDescriptors) {
    RunningHelper helper({.prepare = [] {
        close_range(STDIN_FILENO, STDERR_FILENO, 0);
        for (const int signal : {SIGTERM, SIGCHLD, SIGPIPE, SIGHUP}) {
            std::signal(signal, SIG_IGN);
        }
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
    }});
    // serves() cannot tell here: SIGTERM is blocked from the start.
    ASSERT_TRUE(
        eventually(Seconds{10}, [this] { return world.ask({"status"}).status == Reply::no; }));
    const std::string folder = "/proc/" + std::to_string(helper.process().pid()) + "/fd/";
    for (const char* number : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(folder + number), "/dev/null");
    }
    EXPECT_EQ(helper.terminate(), 0);
}

TEST_F(StartUpTest, ExitsAfterThirtyIdleSecondsDespiteRefusedCallers) {
    RunningHelper helper;
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    const Seconds before = timeNow();
    TestProcess refused({.words = {"/bin/sh", "-c",
                                   "while sleep 1; do " HALVO_TEST_CALLER " --socket " +
                                       Place::socket + " status; done"},
                         .person = world.user});
    constexpr Seconds idleLimit{30};
    // A tick, and a busy machine.
    constexpr Seconds late{4};
    EXPECT_EQ(helper.wait(idleLimit + late), 0);
    EXPECT_GE(timeNow() - before, idleLimit - Seconds{1});
    EXPECT_GE(helper.count("error: Refused a caller: *"), 10);
    EXPECT_FALSE(exists(Place::socket));
}

}  // namespace
}  // namespace halvo::testing
