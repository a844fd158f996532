#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

// ------------------------------------------------------------------------------------- run to the
// end

TEST(RunInChildTest, TellsHowAFunctionEndedAndWhatItSaid) {
    EXPECT_EQ(runInChild([] {
                  std::fputs("one ", stderr);
                  std::fputs("two", stdout);
              }),
              (ChildResult{0, "one two"}));
    EXPECT_EQ(runInChild([] { std::exit(75); }), (ChildResult{75, ""}));
    EXPECT_EQ(runInChild([] { kill(getpid(), SIGKILL); }), (ChildResult{-1, "", SIGKILL}));
}

TEST(RunInChildTest, AFunctionThatFailsAnExpectationEndsWithOne) {
    const ChildResult result = runInChild([] { EXPECT_EQ(1, 2) << "this is why"; });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("this is why"), std::string::npos);
}

TEST(RunInChildTest, ChangesNothingInTheParent) {
    static int number = 1;
    runInChild([] { number = 2; });
    EXPECT_EQ(number, 1);
}

TEST(RunInChildTest, GivesAProgramItsArgumentsAndEnvironmentAndNothingToRead) {
    EXPECT_EQ(runInChild({.words = {"/bin/sh", "-c", "cat; echo $1 $HALVO_X ${HOME:-homeless}", "-",
                                    "argument"},
                          .environment = {"HALVO_X=value"}}),
              (ChildResult{0, "argument value homeless\n"}));
}

TEST(RunInChildTest, SaysOfAProgramThatIsNotThereWhatAShellSays) {
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

// -------------------------------------------------------------------------------- beside the test

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
    EXPECT_NE(processWords(program.pid()), std::vector<std::string>{"/bin/cat"});
    program.goOn();
    EXPECT_TRUE(eventually(
        [&] { return processWords(program.pid()) == std::vector<std::string>{"/bin/cat"}; }));
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

TEST(TestProcessTest, IsFoundByItsProgram) {
    const TestProcess program({.words = {"/usr/bin/sleep", "100"}});
    const std::vector<pid_t> all = processesRunning("/usr/bin/sleep");
    EXPECT_NE(std::ranges::find(all, program.pid()), all.end());
    EXPECT_TRUE(processesRunning("/none").empty());
}

// ---------------------------------------------------------------------------------------- waiting

TEST(WaitingTest, LooksUntilTheConditionHoldsOrTheTimeIsUp) {
    int looks = 0;
    EXPECT_TRUE(eventually([&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(eventually(Seconds{0.02}, [] { return false; }));
    EXPECT_TRUE(always(Seconds{0.02}, [] { return true; }));
    EXPECT_FALSE(always(timeLimit, [&] { return ++looks < 6; }));
}

}  // namespace
}  // namespace halvo::testing
