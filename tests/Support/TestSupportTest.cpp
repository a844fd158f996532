// Tests of the test support, where a defect would let other tests pass wrongly.

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

TEST(TestProcessTest, ReportsAFailedExpectationOfTheChild) {
    const ChildResult failed = runInChild([] { EXPECT_EQ(1, 2) << "this is why"; });
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.output.find("this is why"), std::string::npos);
}

TEST(TestProcessTest, KillsAChildThatExceedsTheLimitAndFails) {
    ChildResult result;
    EXPECT_NONFATAL_FAILURE(
        result =
            runInChild({.words = {"/bin/sh", "-c", "echo begun; exec sleep 100"}}, Seconds{0.25}),
        "still running after 0.25 s: begun");
    EXPECT_EQ(result, (ChildResult{-1, "begun\n", SIGKILL}));
}

TEST(TestProcessTest, IsKilledByTheDestructor) {
    pid_t pid = 0;
    {
        const TestProcess process([] { pause(); });
        pid = process.pid();
        EXPECT_EQ(kill(pid, 0), 0);
    }
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(WaitingTest, PollsUntilTheConditionHoldsOrTheLimitHasPassed) {
    int looks = 0;
    EXPECT_TRUE(eventually([&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(eventually(Seconds{0.02}, [] { return false; }));
    EXPECT_TRUE(always(Seconds{0.02}, [] { return true; }));
    EXPECT_FALSE(always(timeLimit, [&] { return ++looks < 6; }));
}

struct FaultInjectionTest : ::testing::Test {
    // 0, or errno.
    [[nodiscard]] int makeFolder(const char* name) const {
        return mkdir((folder / name).c_str(), 0700) == 0 ? 0 : errno;
    }

    TemporaryFolder folder;
};

TEST_F(FaultInjectionTest, AFaultThatIsNotTriggeredFailsTheTestAndIsRemoved) {
    EXPECT_NONFATAL_FAILURE(
        { const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC); }, "was not triggered");
    EXPECT_EQ(makeFolder("a"), 0);
}

TEST_F(FaultInjectionTest, AFailingCallHasNoEffectAndADenyingOneHas) {
    {
        const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC, 1);
        EXPECT_EQ(makeFolder("a"), 0);
        EXPECT_EQ(makeFolder("b"), ENOSPC);
        EXPECT_EQ(makeFolder("b"), 0);
    }
    const Fault fault = Fault::denying(SystemCall::mkdir, EIO);
    EXPECT_EQ(makeFolder("c"), EIO);
    EXPECT_EQ(makeFolder("c"), EEXIST);
}

TEST_F(FaultInjectionTest, ATransferIsCutShortOnce) {
    const Descriptor file(open((folder / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const Fault fault = Fault::cutShort(SystemCall::write, 2);
    EXPECT_EQ(write(file.get(), "12345", 5), 2);
    EXPECT_EQ(write(file.get(), "12345", 5), 5);
}

TEST_F(FaultInjectionTest, ATraceLeavesOutFailedCalls) {
    const CallTrace trace;
    const Descriptor file(open((folder / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const Fault lost = Fault::failing(SystemCall::fsync, EIO);
    EXPECT_EQ(fsync(file.get()), -1);
    const Fault denied = Fault::denying(SystemCall::write, EIO);
    EXPECT_EQ(write(file.get(), "12345", 5), -1);
    EXPECT_EQ(makeFolder("a"), EEXIST);
    EXPECT_TRUE(trace.calls().empty());
    EXPECT_TRUE(trace.written().empty());
}

TEST(LogCaptureTest, AnotherSubsystemOrCategoryFailsTheTest) {
    const LogCapture log;
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"app.halvo", "Other"}), "one"), "Other");
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"other", "Helper"}), "one"), "other");
}

TEST(SimulatedWorldTest, CrashesInsteadOfACall) {
    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    world.calls.crashAt(2);
    world.clock.reading();
    EXPECT_THROW(world.flags.setLocked(true, app), Crash);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.calls(), std::vector<std::string>{"reading"});
}

struct ManualMainQueueTest : ::testing::Test {
    // Work that records `name` and the seconds since the start: "a2".
    MainQueue::Work note(const char* name) {
        return [this, name] {
            order += name + std::to_string(static_cast<int>((queue.now() - start).count()));
        };
    }

    CallLog calls;
    SimulatedClock clock{calls};
    ManualMainQueue queue{clock};
    Seconds start = queue.now();
    std::string order;
};

TEST_F(ManualMainQueueTest, RunsEnqueuedWorkBeforeAndBetweenTimers) {
    std::thread([this] { queue.async([this] { queue.async(note("c")); }); }).join();
    queue.async(note("a"));
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, [this] {
        note("t")();
        queue.async(note("w"));
    });
    queue.after(Seconds{3}, note("o"));
    EXPECT_EQ(order, "");
    queue.advance(Seconds{5});
    EXPECT_EQ(order, "a0c0t2w2o3t4w4");
    EXPECT_EQ(queue.now() - start, Seconds{5});
}

TEST_F(ManualMainQueueTest, DoesNotMakeUpForMissedExpirations) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, note("a"));
    clock.advance(Seconds{7});
    queue.advance(Seconds{0});
    EXPECT_EQ(order, "a7");
    queue.advance(Seconds{3});
    EXPECT_EQ(order, "a7a8a10");
}

}  // namespace
}  // namespace halvo::testing
