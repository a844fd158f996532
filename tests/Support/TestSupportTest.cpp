// What tests of everything else stand on: processes, injected failures, the captured log.

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using Texts = std::vector<std::string>;

// --------------------------------------------------------------------------------------- processes

TEST(RunInChildTest, TellsHowAFunctionEndedAndWhatItSaid) {
    EXPECT_EQ(runInChild([] {
                  std::fputs("one ", stderr);
                  std::fputs("two", stdout);
              }),
              (ChildResult{0, "one two"}));
    EXPECT_EQ(runInChild([] { std::exit(75); }), (ChildResult{75, ""}));
    EXPECT_EQ(runInChild([] { kill(getpid(), SIGKILL); }), (ChildResult{-1, "", SIGKILL}));
    const ChildResult failed = runInChild([] { EXPECT_EQ(1, 2) << "this is why"; });
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.output.find("this is why"), std::string::npos);
    static int number = 1;
    runInChild([] { number = 2; });
    EXPECT_EQ(number, 1) << "the test is another process";
}

TEST(RunInChildTest, GivesAProgramItsArgumentsAndEnvironmentAndNothingToRead) {
    EXPECT_EQ(runInChild({.words = {"/bin/sh", "-c", "cat; echo $1 $HALVO_X ${HOME:-homeless}", "-",
                                    "argument"},
                          .environment = {"HALVO_X=value"}}),
              (ChildResult{0, "argument value homeless\n"}));
    EXPECT_EQ(runInChild({.words = {"/none"}}),
              (ChildResult{127, "/none: No such file or directory\n"}));
}

TEST(RunInChildTest, PreparesAndThenBecomesThePerson) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const ChildResult result = runInChild(
        {.words = {"/bin/sh", "-c", "id -u; id -G"}, .person = Person{65534, 65533}, .prepare = [] {
             std::printf("%u\n", geteuid()), std::fflush(stdout);
         }});
    EXPECT_EQ(result, (ChildResult{0, "0\n65534\n65533\n"}));
}

TEST(RunInChildTest, KillsWhatTakesTooLongAndFails) {
    ChildResult result;
    EXPECT_NONFATAL_FAILURE(
        result =
            runInChild({.words = {"/bin/sh", "-c", "echo begun; exec sleep 100"}}, Seconds{0.25}),
        "still running after 0.25 s: begun");
    EXPECT_EQ(result, (ChildResult{-1, "begun\n", SIGKILL}));
}

TEST(TestProcessTest, IsToldAndHeardLineByLine) {
    TestProcess echo({.words = {"/bin/sh", "-c", "cat; printf more; printf end"}});
    EXPECT_FALSE(echo.hasLine());
    echo.tell("one");
    echo.tell("two");
    EXPECT_EQ(echo.readLine(), "one");
    EXPECT_EQ(echo.readLine(), "two");
    EXPECT_TRUE(echo.isRunning());
    echo.closeInput();
    EXPECT_EQ(echo.readLine(), "moreend");
    EXPECT_EQ(echo.readLine(), "");
    EXPECT_EQ(echo.readAll(), "");
    EXPECT_EQ(echo.output(), "one\ntwo\nmoreend");
    EXPECT_EQ(echo.wait(), 0);
}

TEST(TestProcessTest, EndsWithTheNumberOfItsSignal) {
    TestProcess sleeper([] { pause(); });
    EXPECT_TRUE(sleeper.isRunning());
    sleeper.send(SIGTERM);
    EXPECT_EQ(sleeper.wait(), 128 + SIGTERM);
    EXPECT_EQ(sleeper.endingSignal(), SIGTERM);
    EXPECT_FALSE(sleeper.isRunning());
}

TEST(TestProcessTest, IsStoppedBeforeTheProgramAndWheneverAsked) {
    TestProcess program({.words = {"/bin/cat"}, .stopped = true});
    EXPECT_EQ(processField(program.pid(), "State"), "T (stopped)");
    EXPECT_NE(processWords(program.pid()), Texts{"/bin/cat"});
    program.goOn();
    EXPECT_TRUE(eventually([&] { return processWords(program.pid()) == Texts{"/bin/cat"}; }));
    const std::vector<pid_t> all = processesRunning(std::filesystem::canonical("/bin/cat"));
    EXPECT_NE(std::ranges::find(all, program.pid()), all.end());
    EXPECT_TRUE(processesRunning("/none").empty());
    program.stop();
    EXPECT_EQ(processField(program.pid(), "State"), "T (stopped)");
    program.kill();
    EXPECT_EQ(program.wait(), 128 + SIGKILL);
}

TEST(TestProcessTest, IsKilledWithItsObjectWhichMayMove) {
    pid_t pid = 0;
    {
        TestProcess first([] { pause(); });
        pid = first.pid();
        const TestProcess second(std::move(first));
        EXPECT_EQ(second.pid(), pid);
        EXPECT_EQ(kill(pid, 0), 0);
    }
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(WaitingTest, LooksUntilTheConditionHoldsOrTheTimeIsUp) {
    int looks = 0;
    EXPECT_TRUE(eventually([&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(eventually(Seconds{0.02}, [] { return false; }));
    EXPECT_TRUE(always(Seconds{0.02}, [] { return true; }));
    EXPECT_FALSE(always(timeLimit, [&] { return ++looks < 6; }));
}

// --------------------------------------------------------------------------------- injected
// failures

class FaultInjectionTest : public ::testing::Test {
  protected:
    // Gives 0 or the errno; fails the test when it returns anything but 0 or -1.
    [[nodiscard]] int makeFolder(const char* name) const {
        const int result = mkdir((folder / name).c_str(), 0700);
        EXPECT_TRUE(result == 0 || result == -1) << result;
        return result == 0 ? 0 : errno;
    }

    TemporaryFolder folder;
};

TEST_F(FaultInjectionTest, WithoutAFaultCallsAreCarriedOutAndCounted) {
    const std::size_t before = callsMade(SystemCall::mkdir);
    EXPECT_EQ(makeFolder("a"), 0);
    EXPECT_EQ(makeFolder("a"), EEXIST);
    EXPECT_EQ(callsMade(SystemCall::mkdir), before + 2);
}

TEST_F(FaultInjectionTest, OneCallFailsOrIsDeniedOrReturnsWhatItIsToldTo) {
    {
        const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC, 1);
        EXPECT_EQ(makeFolder("a"), 0);
        EXPECT_EQ(makeFolder("b"), ENOSPC);
        EXPECT_EQ(makeFolder("b"), 0) << "only one call goes wrong, and has no effect";
    }
    {
        const Fault fault = Fault::denying(SystemCall::mkdir, EIO);
        EXPECT_EQ(makeFolder("c"), EIO);
        EXPECT_EQ(makeFolder("c"), EEXIST) << "it had its effect";
    }
    const Fault fault = Fault::returning(SystemCall::mkdir, 7);
    EXPECT_EQ(mkdir((folder / "d").c_str(), 0700), 7);
    EXPECT_EQ(makeFolder("d"), 0) << "it had no effect";
}

TEST_F(FaultInjectionTest, ATransferIsCutShortOnce) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Descriptor input(ends[0]);
    const Descriptor output(ends[1]);
    const Fault fault = Fault::cutShort(SystemCall::write, 2);
    EXPECT_EQ(write(output.get(), "12345", 5), 2);
    EXPECT_EQ(write(output.get(), "12345", 5), 5);
}

TEST_F(FaultInjectionTest, AFaultThatDoesNotHappenFailsTheTestAndIsOver) {
    EXPECT_NONFATAL_FAILURE(
        { const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC); }, "was not made");
    EXPECT_EQ(makeFolder("a"), 0);
}

TEST_F(FaultInjectionTest, FaultsOfDifferentCallsDoNotMeet) {
    const Fault first = Fault::failing(SystemCall::mkdir, ENOSPC);
    const Fault second = Fault::failing(SystemCall::chmod, EPERM);
    EXPECT_EQ(chmod(folder.path().c_str(), 0700), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(makeFolder("a"), ENOSPC);
}

TEST_F(FaultInjectionTest, ATraceTellsWhatWasDoneInOrder) {
    const std::string path = folder / "a";
    const CallTrace trace;
    EXPECT_EQ(makeFolder("a"), 0);
    EXPECT_EQ(makeFolder("a"), EEXIST) << "which is not noted";
    {
        const Descriptor place(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const Descriptor file(openat(place.get(), "b", O_WRONLY | O_CREAT | O_CLOEXEC, 0640));
        EXPECT_EQ(write(file.get(), "12345", 5), 5);
        EXPECT_EQ(fsync(file.get()), 0);
        EXPECT_EQ(renameat(place.get(), "b", place.get(), "c"), 0);
        EXPECT_EQ(fsync(place.get()), 0);
        struct stat status{};
        ASSERT_EQ(fstat(file.get(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0640U) << "new files keep their permissions";
    }
    EXPECT_EQ(std::remove((path + "/c").c_str()), 0);
    EXPECT_EQ(trace.calls(),
              (Texts{"mkdir " + path, "write " + path + "/b", "fsync " + path + "/b",
                     "rename " + path + "/c", "fsync " + path, "remove " + path + "/c"}));
    EXPECT_EQ(trace.written(), Texts{"12345"});
}

TEST_F(FaultInjectionTest, ClocksStandStillAndJumpAndRunOn) {
    timespec time{};
    {
        const StoppedClock stopped(7, 8);
        clock_gettime(CLOCK_MONOTONIC, &time);
        EXPECT_EQ(time.tv_sec, 7);
        EXPECT_EQ(time.tv_nsec, 8);
    }
    clock_gettime(CLOCK_REALTIME, &time);
    EXPECT_GT(time.tv_sec, 7);
    const WallDate before = wallNow();
    {
        const WallClockJump jump(Seconds{3600});
        EXPECT_GE(wallNow() - before, Seconds{3600});
    }
    EXPECT_LT(wallNow() - before, Seconds{60});
}

// --------------------------------------------------------------------------------------- the log

TEST(LogCaptureTest, KeepsWhatIsSaidWithItsLevelUntilToldToForget) {
    LogCapture log;
    EXPECT_TRUE(log.isEmpty());
    HALVO_LOG_ERROR(helperLog, "one");
    HALVO_LOG_DEFAULT(helperLog, "two");
    HALVO_LOG_ERROR(helperLog, "one");
    EXPECT_EQ(log.messages(),
              (std::vector<LogMessage>{
                  {LogLevel::Error, "one"}, {LogLevel::Default, "two"}, {LogLevel::Error, "one"}}));
    EXPECT_EQ(log.errors(), (Texts{"one", "one"}));
    EXPECT_EQ(log.notices(), Texts{"two"});
    EXPECT_EQ(log.count("one"), 2U);
    EXPECT_EQ(log.count("on"), 0U);
    EXPECT_FALSE(log.isEmpty());
    log.clear();
    EXPECT_TRUE(log.isEmpty());
}

TEST(LogCaptureTest, TheInnermostReceives) {
    const LogCapture outer;
    {
        const LogCapture inner;
        HALVO_LOG_ERROR(helperLog, "inner");
        EXPECT_EQ(inner.errors(), Texts{"inner"});
    }
    HALVO_LOG_ERROR(helperLog, "outer");
    EXPECT_EQ(outer.errors(), Texts{"outer"});
}

TEST(LogCaptureTest, AMessageUnderAnotherNameFailsTheTest) {
    const LogCapture log;
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"app.halvo", "Other"}), "one"), "Other");
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"other", "Helper"}), "one"), "other");
}

}  // namespace
}  // namespace halvo::testing
