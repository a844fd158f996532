#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelper/LiveOpener.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* nothing = "0000000000000000";

// Opens with a helper that reports how it was started. In a child process, since the first opening
// makes the kernel reap the process's children before anybody can wait for them.
class LiveOpenerTest : public ::testing::Test {
  protected:
    LiveOpenerTest() {
        copyProgram(HALVO_TEST_APP, helper);
        std::filesystem::create_directory(app);
    }

    // Opens the app, and whatever `afterwards` expects of that.
    void open(bool afterQuit = false, const std::function<void()>& afterwards = {}) const {
        const ChildResult result = runInChild([&] {
            LogCapture log;
            LiveOpener(helper).open(app, 501, afterQuit);
            EXPECT_TRUE(log.isEmpty());
            if (afterwards) {
                afterwards();
            }
        });
        EXPECT_EQ(result.status, 0) << result.output;
    }

    [[nodiscard]] TestReport report() const { return readReport(reportBeside(helper)); }

    TemporaryFolder disk;
    const std::string helper = disk / "helper";
    const std::string app = disk / "Halvo.app";
};

TEST_F(LiveOpenerTest, StartsTheHelpersExecutableInItsOtherMode) {
    open();
    EXPECT_THAT(report()["argument"], ElementsAre(helper, "--open-as-user", "501", app));
}

TEST_F(LiveOpenerTest, TellsWhenItIsAfterAQuit) {
    open(true);
    EXPECT_THAT(report()["argument"],
                ElementsAre(helper, "--open-as-user", "501", app, "--after-quit"));
}

TEST_F(LiveOpenerTest, GivesTheChildNoEnvironment) {
    ASSERT_EQ(setenv("HALVO_TEST_VARIABLE", "inherited", 1), 0);
    open();
    EXPECT_THAT(report()["environment"], IsEmpty());
}

TEST_F(LiveOpenerTest, GivesTheChildThreeDescriptorsOnTheNullDevice) {
    const ChildResult result = runInChild([&] {
        // Descriptors that would outlive an exec, low and high, and gaps where the three belong.
        for (int number : {3, 4, 17, 700}) {
            ASSERT_EQ(dup2(STDERR_FILENO, number), number);
        }
        close(STDIN_FILENO);
        LiveOpener(helper).open(app, 501, false);
    });
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(report()["descriptor"],
                ElementsAre("0 /dev/null rw", "1 /dev/null rw", "2 /dev/null rw"));
}

TEST_F(LiveOpenerTest, GivesTheChildTheSignalsOfAFreshProcess) {
    const ChildResult result = runInChild([&] {
        sigset_t all;
        sigfillset(&all);
        ASSERT_EQ(sigprocmask(SIG_BLOCK, &all, nullptr), 0);
        for (int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM, SIGUSR1, SIGRTMIN, SIGRTMAX}) {
            ASSERT_NE(std::signal(signal, SIG_IGN), SIG_ERR);
        }
        LiveOpener(helper).open(app, 501, false);
    });
    EXPECT_EQ(result.status, 0) << result.output;
    TestReport child = report();
    EXPECT_THAT(child["SigBlk"], ElementsAre(nothing));
    EXPECT_EQ(ignoredSignals(child), 0U);
    EXPECT_THAT(child["SigCgt"], ElementsAre(nothing));
}

TEST_F(LiveOpenerTest, GivesTheChildASessionOfItsOwnAndTheRootFolder) {
    const ChildResult result = runInChild([&] {
        ASSERT_EQ(chdir(disk.path().c_str()), 0);
        LiveOpener(helper).open(app, 501, false);
    });
    EXPECT_EQ(result.status, 0) << result.output;
    TestReport child = report();
    EXPECT_THAT(child["session"], ElementsAre("own"));
    EXPECT_THAT(child["folder"], ElementsAre("/"));
}

TEST_F(LiveOpenerTest, DoesNotWaitForTheChild) {
    const std::string hold = helper + ".hold";
    writeTestFile(hold, "");
    open(false, [&] {
        // Had opening waited, the child could not still be there to be seen.
        const pid_t child = std::stoi(report()["pid"].at(0));
        EXPECT_EQ(kill(child, 0), 0);
        std::filesystem::remove(hold);
    });
}

TEST_F(LiveOpenerTest, LeavesNoZombie) {
    const std::string hold = helper + ".hold";
    writeTestFile(hold, "");
    open(false, [&] {
        const pid_t child = std::stoi(report()["pid"].at(0));
        EXPECT_EQ(kill(child, SIGKILL), 0);
        // A zombie could still be signalled.
        EXPECT_TRUE(eventually([&] { return kill(child, 0) != 0 && errno == ESRCH; }));
        EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    });
}

TEST_F(LiveOpenerTest, OpensAgainAndAgain) {
    open(false, [&] {
        const std::string first = report()["pid"].at(0);
        std::filesystem::remove(reportBeside(helper));
        LiveOpener(helper).open(app, 501, false);
        EXPECT_NE(report()["pid"].at(0), first);
    });
}

TEST_F(LiveOpenerTest, LeavesSignalsTheirDispositions) {
    open(false, [] {
        for (const int signal : {SIGCHLD, SIGPIPE}) {
            EXPECT_EQ(std::signal(signal, SIG_DFL), SIG_DFL) << signal;
        }
    });
}

// The person's own systemd manager does as the person tells it.
TEST_F(LiveOpenerTest, GoesTheOtherWayEachTimeTheLastOneBroughtNothing) {
    const ChildResult result = runInChild([&] {
        TimePassing clock;
        LiveOpener opener(helper);
        LogCapture log;
        std::vector<bool> directly;
        for (const double later : {15.0, 15.0, 39.0, 15.0, 41.0, 15.0}) {
            clock.pass(Seconds{later});
            opener.open(app, 501, true);
            const std::vector<std::string> words = report()["argument"];
            EXPECT_EQ(
                std::vector(words.begin(), words.begin() + 5),
                (std::vector<std::string>{helper, "--open-as-user", "501", app, "--after-quit"}));
            directly.push_back(words.back() == "--directly");
            std::filesystem::remove(reportBeside(helper));
        }
        EXPECT_THAT(directly, ElementsAre(false, true, false, true, false, true));
        EXPECT_THAT(log.errors(), ElementsAre("Opened Halvo 2 times in a row, and it didn't stay; "
                                              "its own messages: none are kept"));
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

// --------------------------------------------------------------------------- nothing to be opened

class LiveOpenerNothingTest : public LiveOpenerTest {
  protected:
    void expectNothing(const std::string& path) const {
        writeTestFile(helper + ".hold", "");
        const ChildResult result = runInChild([&] {
            LogCapture log;
            LiveOpener(helper).open(path, 501, true);
            EXPECT_TRUE(log.isEmpty());
            // The helper's program would not end, so it would still be there to be waited for.
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
            EXPECT_EQ(errno, ECHILD);
        });
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_FALSE(std::filesystem::exists(reportBeside(helper)));
    }
};

TEST_F(LiveOpenerNothingTest, AtThePath) { expectNothing(disk / "Missing.app"); }

TEST_F(LiveOpenerNothingTest, BehindALink) {
    std::filesystem::create_symlink(disk / "Missing.app", disk / "Link.app");
    expectNothing(disk / "Link.app");
}

TEST_F(LiveOpenerNothingTest, BelowAFile) {
    writeTestFile(disk / "file", "");
    expectNothing(disk / "file/Halvo.app");
}

TEST_F(LiveOpenerNothingTest, AtAnEmptyPath) { expectNothing(""); }

TEST_F(LiveOpenerNothingTest, AtAPathWithAZeroByte) { expectNothing(app + std::string("\0x", 2)); }

// ------------------------------------------------------------------------------ a child that fails

TEST_F(LiveOpenerTest, LogsThatTheHelperIsNotThere) {
    const ChildResult result = runInChild([&] {
        LogCapture log;
        LiveOpener(disk / "missing").open(app, 501, false);
        EXPECT_THAT(log.messages(),
                    ElementsAre(LogMessage{LogLevel::Error,
                                           "Couldn't open Halvo: No such file or directory"}));
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(LiveOpenerTest, LogsThatTheHelperCannotBeRun) {
    writeTestFile(disk / "text", "no program\n");
    const ChildResult result = runInChild([&] {
        LogCapture log;
        LiveOpener(disk / "text").open(app, 501, false);
        EXPECT_THAT(log.errors(), ElementsAre("Couldn't open Halvo: Permission denied"));
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(LiveOpenerTest, SaysNothingOfAChildThatFailsLater) {
    const ChildResult result = runInChild([&] {
        LogCapture log;
        LiveOpener("/bin/false").open(app, 501, false);
        EXPECT_TRUE(log.isEmpty());
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace halvo::testing
