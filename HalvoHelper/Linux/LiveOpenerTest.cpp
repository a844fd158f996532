#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
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
// makes the kernel reap the process's children before waitpid(2) can.
class LiveOpenerTest : public ::testing::Test {
  protected:
    LiveOpenerTest() {
        copyProgram(HALVO_TEST_APP, helper);
        std::filesystem::create_directory(app);
    }

    // Does `body` where it may open; see above.
    static void inChild(const std::function<void()>& body) {
        expectInChild([&body] {
            const LogCapture log;
            body();
            EXPECT_TRUE(log.isEmpty());
        });
    }

    void open() const { LiveOpener(helper).open(app, 501, false); }

    [[nodiscard]] TestReport report() const { return readReport(reportBeside(helper)); }

    TemporaryFolder disk;
    const std::string helper = disk / "helper";
    const std::string app = disk / "Halvo.app";
};

TEST_F(LiveOpenerTest, StartsTheHelpersExecutableInItsOtherMode) {
    inChild([this] {
        open();
        EXPECT_THAT(report()["argument"], ElementsAre(helper, "--open-as-user", "501", app));
        for (const int signal : {SIGCHLD, SIGPIPE}) {
            EXPECT_EQ(std::signal(signal, SIG_DFL), SIG_DFL) << signal;
        }
    });
}

TEST_F(LiveOpenerTest, GivesTheChildNothingOfItsOwn) {
    inChild([this] {
        ASSERT_EQ(setenv("HALVO_TEST_VARIABLE", "inherited", 1), 0);
        ASSERT_EQ(chdir(disk.path().c_str()), 0);
        sigset_t all;
        sigfillset(&all);
        ASSERT_EQ(sigprocmask(SIG_BLOCK, &all, nullptr), 0);
        for (int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM, SIGUSR1, SIGRTMIN, SIGRTMAX}) {
            ASSERT_NE(std::signal(signal, SIG_IGN), SIG_ERR);
        }
        // Descriptors that would outlive an exec, low and high, and a gap where the three belong.
        for (int number : {3, 4, 17, 700}) {
            ASSERT_EQ(dup2(STDERR_FILENO, number), number);
        }
        close(STDIN_FILENO);
        open();
    });
    TestReport child = report();
    EXPECT_THAT(child["environment"], IsEmpty());
    EXPECT_THAT(child["descriptor"],
                ElementsAre("0 /dev/null rw", "1 /dev/null rw", "2 /dev/null rw"));
    EXPECT_THAT(child["SigBlk"], ElementsAre(nothing));
    EXPECT_EQ(ignoredSignals(child), 0U);
    EXPECT_THAT(child["SigCgt"], ElementsAre(nothing));
    EXPECT_THAT(child["session"], ElementsAre("own"));
    EXPECT_THAT(child["folder"], ElementsAre("/"));
}

TEST_F(LiveOpenerTest, DoesNotWaitForTheChildAndLeavesNoZombie) {
    writeTestFile(helper + ".hold", "");
    inChild([this] {
        open();
        // Had opening waited, the child could not still be there to be seen.
        const pid_t child = std::stoi(report()["pid"].at(0));
        EXPECT_EQ(kill(child, 0), 0);
        EXPECT_EQ(kill(child, SIGKILL), 0);
        // A zombie could still be signalled.
        EXPECT_TRUE(eventually([&] { return kill(child, 0) != 0 && errno == ESRCH; }));
        EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    });
}

// The person's own systemd manager does as the person tells it.
TEST_F(LiveOpenerTest, GoesTheOtherWayEachTimeTheLastOneBroughtNothing) {
    expectInChild([&] {
        LiveOpener opener(helper);
        const LogCapture log;
        std::vector<std::string> words{helper, "--open-as-user", "501", app, "--after-quit"};
        for (const bool directly : {false, true, false, true}) {
            opener.open(app, 501, true);
            words.resize(5);
            if (directly) {
                words.emplace_back("--directly");
            }
            EXPECT_EQ(report()["argument"], words);
            std::filesystem::remove(reportBeside(helper));
        }
        EXPECT_THAT(log.errors(), ElementsAre("Opened Halvo 2 times in a row, and it didn't stay; "
                                              "its own messages: none are kept"));
    });
}

TEST_F(LiveOpenerTest, DoesNothingWhereNothingIs) {
    writeTestFile(helper + ".hold", "");
    writeTestFile(disk / "file", "");
    std::filesystem::create_symlink(disk / "Missing.app", disk / "Link.app");
    inChild([this] {
        for (const std::string& path :
             {disk / "Missing.app", disk / "Link.app", disk / "file/Halvo.app", std::string(),
              app + std::string("\0x", 2)}) {
            LiveOpener(helper).open(path, 501, true);
        }
        // The helper's program would not end, so it would still be there to be waited for.
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    });
    EXPECT_FALSE(std::filesystem::exists(reportBeside(helper)));
}

TEST_F(LiveOpenerTest, LogsThatTheChildCannotBeStarted) {
    writeTestFile(disk / "text", "no program\n");
    expectInChild([this] {
        const LogCapture log;
        LiveOpener("/bin/false").open(app, 501, false);
        EXPECT_TRUE(log.isEmpty()) << "a child that fails later";
        LiveOpener(disk / "missing").open(app, 501, false);
        LiveOpener(disk / "text").open(app, 501, false);
        const std::string failed = "Couldn't open Halvo: ";
        EXPECT_THAT(log.messages(),
                    ElementsAre(LogMessage{LogLevel::Error, failed + "No such file or directory"},
                                LogMessage{LogLevel::Error, failed + "Permission denied"}));
    });
}

struct OpeningStreakTest : ::testing::Test {
    // An opening this long after the one before.
    long openAfter(double seconds, const std::string& path = "/Applications/Halvo.app",
                   std::uint32_t uid = 501) {
        now += Seconds{seconds};
        return streak.next(path, uid, now, "journalctl");
    }

    LogCapture log;
    OpeningStreak streak;
    Seconds now{};
};

TEST_F(OpeningStreakTest, CountsOpeningsThatFollowSoon) {
    std::vector<long> failed;
    // The first however soon after the boot.
    for (const double after : {0.0, 15.0, 16.0, 39.9, 40.0, 15.0, 3600.0, 39.9}) {
        failed.push_back(openAfter(after));
    }
    EXPECT_THAT(failed, ElementsAre(0, 1, 2, 3, 0, 1, 0, 1));
    EXPECT_EQ(openAfter(15, "/Applications/Other.app"), 0);
    EXPECT_EQ(openAfter(15, "/Applications/Other.app", 502), 0);
    EXPECT_EQ(openAfter(15, "/Applications/Other.app", 502), 1);
}

TEST_F(OpeningStreakTest, TellsTheSecondAndThenEachPowerOfTwo) {
    for (int turn = 0; turn <= 40; ++turn) {
        openAfter(15);
    }
    const std::string rest = " times in a row, and it didn't stay; its own messages: journalctl";
    EXPECT_THAT(log.errors(), ElementsAre("Opened Halvo 2" + rest, "Opened Halvo 4" + rest,
                                          "Opened Halvo 8" + rest, "Opened Halvo 16" + rest,
                                          "Opened Halvo 32" + rest));
    // And those of the next streak.
    openAfter(3600);
    openAfter(15);
    EXPECT_EQ(log.errors().size(), 5U);
    openAfter(15);
    EXPECT_EQ(log.errors().size(), 6U);
}

}  // namespace
}  // namespace halvo::testing
