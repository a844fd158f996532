#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ostream>
#include <string>
#include <vector>

#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Programs.hpp"

namespace halvo::control {

void PrintTo(const Finished& finished, std::ostream* stream) {
    *stream << "status " << finished.status << ": " << finished.output;
}

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

class ProgramsTest : public ::testing::Test {
  protected:
    std::expected<Finished, std::string> shell(const std::string& script,
                                               Seconds limit = Seconds{20}) {
        return programs.run({"/bin/sh", "-c", script}, {limit, [this] { ++slow; }});
    }

    LivePrograms programs;
    int slow = 0;
};

TEST_F(ProgramsTest, EndAsTheyEndAndSayWhatTheySay) {
    EXPECT_EQ(shell("echo out; echo err >&2"), (Finished{0, "out\nerr\n"}));
    EXPECT_EQ(shell("exit 3"), (Finished{3, ""}));
    EXPECT_EQ(shell("kill -TERM $$"), (Finished{128 + SIGTERM, ""}));
    EXPECT_EQ(slow, 0);
}

TEST_F(ProgramsTest, GetTheirWordsAsTheyAre) {
    EXPECT_EQ(programs.run({"/bin/echo", "a b", "$HOME", "'\"*"}, {Seconds{20}, {}}),
              (Finished{0, "a b $HOME '\"*\n"}));
}

TEST_F(ProgramsTest, GetAnEnvironmentOfTheirOwn) {
    setenv("HALVO_SECRET", "1", 1);
    const auto result = programs.run({"/usr/bin/env"}, {Seconds{20}, {}});
    unsetenv("HALVO_SECRET");
    EXPECT_EQ(result, (Finished{0, "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nLC_ALL=C\n"}));
}

TEST_F(ProgramsTest, HaveNothingToRead) {
    EXPECT_EQ(shell("cat; echo end"), (Finished{0, "end\n"}));
}

TEST_F(ProgramsTest, GetTheUsualSignals) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    // But for signals 32 and 33, which are the C library's own.
    const auto result =
        shell("grep -E 'Sig(Blk|Ign)' /proc/self/status | sed 's/18\\(0*\\)$/00\\1/'");
    std::signal(SIGPIPE, ignored);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, (Finished{0, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"}));
}

TEST_F(ProgramsTest, AreNotReachedByWhatIsTypedAtTheTerminal) {
    const auto result = shell("ps -o pgid= -p $$ | tr -d ' '; echo $$");
    ASSERT_TRUE(result);
    const std::string half = result->output.substr(0, result->output.size() / 2);
    EXPECT_EQ(result->output, half + half);
}

TEST_F(ProgramsTest, ThatCannotBeStartedAreNamed) {
    EXPECT_EQ(programs.run({"/nowhere/program"}, {Seconds{20}, {}}),
              std::unexpected("/nowhere/program cannot be started: No such file or directory"));
    EXPECT_EQ(programs.run({"/etc/passwd"}, {Seconds{20}, {}}),
              std::unexpected("/etc/passwd cannot be started: Permission denied"));
}

TEST_F(ProgramsTest, ThatTakeTooLongAreKilledWithWhatTheyStarted) {
    const testing::TemporaryFolder folder;
    const auto start = Clock::now();
    EXPECT_EQ(shell("(sleep 2; touch " + folder / "late" + ") & sleep 30", Seconds{0.2}),
              std::unexpected("/bin/sh takes too long; it was stopped"));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds{2});
    EXPECT_EQ(slow, 0);
    sleep(2);
    usleep(300'000);
    EXPECT_FALSE(std::filesystem::exists(folder / "late"));
}

TEST_F(ProgramsTest, AreSaidToBeSlowOnceAfterASecond) {
    EXPECT_EQ(shell("sleep 1.4"), (Finished{0, ""}));
    EXPECT_EQ(slow, 1);
    EXPECT_EQ(programs.run({"/bin/sleep", "1.1"}, {Seconds{20}, {}}), (Finished{0, ""}));
}

TEST_F(ProgramsTest, AreSaidToBeSlowAlsoWhileTheyTalk) {
    EXPECT_FALSE(shell("while :; do echo x; sleep 0.01; done", Seconds{1.3}));
    EXPECT_EQ(slow, 1);
}

TEST_F(ProgramsTest, AreNotWaitedForByWhatKeepsTheirOutput) {
    const auto start = Clock::now();
    EXPECT_EQ(shell("echo done; sleep 5 &"), (Finished{0, "done\n"}));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds{2});
}

TEST_F(ProgramsTest, AreWaitedForAlsoWhenTheyHaveClosedTheirOutput) {
    EXPECT_EQ(shell("echo a; exec >&- 2>&-; sleep 0.3; exit 5"), (Finished{5, "a\n"}));
    EXPECT_EQ(shell("exec >&- 2>&-; sleep 30", Seconds{0.3}),
              std::unexpected("/bin/sh takes too long; it was stopped"));
}

TEST_F(ProgramsTest, AreReadToTheirEndAndKeptInPart) {
    const auto result = shell("head -c 300000 /dev/zero | tr '\\0' x; exit 4");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 4);
    EXPECT_EQ(result->output, std::string(65536, 'x'));
}

}  // namespace
}  // namespace halvo::control
