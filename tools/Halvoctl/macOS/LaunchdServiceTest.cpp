#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tools/Halvoctl/macOS/LaunchdService.hpp"

namespace halvo::control {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Status = std::expected<int, std::string>;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string print = "print system/com.example.app.helper";
const std::string bootout = "bootout system/com.example.app.helper";

// What launchctl is asked, and how it ends: the last of several answers stays.
struct Script {
    std::map<std::string, std::deque<Status>> answers{
        {print, {std::unexpected("launchctl is stuck")}},
        {bootout, {std::unexpected("launchctl is stuck")}}};
    std::vector<std::string> calls;
    std::vector<Seconds> limits;
    std::vector<std::string> lines;
};

class FakeLaunchctl final : public Launchctl {
  public:
    explicit FakeLaunchctl(Script& script) : script_(script) {}

    Status run(const std::vector<std::string>& words, Seconds limit,
               const std::string& line) override {
        const std::string& call = script_.calls.emplace_back(words.at(0) + " " + words.at(1));
        script_.limits.push_back(limit);
        script_.lines.push_back(line);
        std::deque<Status>& answers = script_.answers.at(call);
        const Status answer = answers.front();
        if (answers.size() > 1) {
            answers.pop_front();
        }
        return answer;
    }

  private:
    Script& script_;
};

class LaunchdServiceTest : public ::testing::Test {
  protected:
    LaunchdServiceTest() { fake::reset(); }

    // launchd has the job first, and after bootout no more.
    void load() { script.answers = {{print, {0, 113}}, {bootout, {0}}}; }

    Script script;
    FakeProcesses processes;
    FakeWaiter waiter;
    LaunchdService service{identity, "/anywhere/HalvoHelper",
                           std::make_unique<FakeLaunchctl>(script), processes, waiter};
};

TEST_F(LaunchdServiceTest, TakesTheJobOutAndSaysWhenItIsBack) {
    load();
    EXPECT_EQ(service.resume(), "");
    EXPECT_TRUE(service.stop());
    EXPECT_THAT(script.calls, ElementsAre(print, bootout, print));
    EXPECT_THAT(script.limits, ElementsAre(Seconds{10}, Seconds{30}, Seconds{10}));
    EXPECT_THAT(script.lines,
                ElementsAre("", "Waiting for launchd to stop the helper, at most 30 seconds.", ""));
    EXPECT_EQ(service.resume(),
              "The helper is back at the next boot, or when the app registers it anew.");
}

TEST_F(LaunchdServiceTest, CountsWhatIsSoAndNotWhatBootoutSays) {
    load();
    script.answers[bootout] = {36};
    EXPECT_TRUE(service.stop());
}

TEST_F(LaunchdServiceTest, StopsHelpersThatNoJobStarted) {
    script.answers[print] = {113};
    processes.processes = {7};
    EXPECT_TRUE(service.stop());
    EXPECT_THAT(script.calls, ElementsAre(print));
    EXPECT_THAT(processes.terminated, ElementsAre(7));
    EXPECT_EQ(service.resume(), "");
}

TEST_F(LaunchdServiceTest, FailsWhenLaunchdDoesNotAnswer) {
    EXPECT_EQ(service.stop(),
              std::unexpected("launchctl is stuck. Try again when launchd answers."));
    EXPECT_EQ(service.whatStarts(), "nothing is known of what starts it: launchctl is stuck");
    script.answers[print] = {0};
    EXPECT_EQ(service.stop(), std::unexpected("launchctl is stuck. Try again."));
    EXPECT_EQ(service.resume(), "");
}

TEST_F(LaunchdServiceTest, FailsWhenTheJobStays) {
    script.answers = {{print, {0}}, {bootout, {1}}};
    const auto failed = std::unexpected(
        "launchd did not stop the helper: launchctl bootout system/com.example.app.helper ended "
        "with 1. Try again.");
    EXPECT_EQ(service.stop(), failed);
    EXPECT_EQ(service.resume(), "");
    script.answers[print].push_back(std::unexpected("stuck"));
    EXPECT_EQ(service.stop(), failed) << "when it cannot be told";
}

TEST_F(LaunchdServiceTest, FailsWhenAHelperStays) {
    script.answers[print] = {113};
    processes.processes = {7};
    processes.areStuck = true;
    EXPECT_EQ(service.stop(),
              std::unexpected("The helper (pid 7) does not end. Kill it (kill -KILL), then run "
                              "halvoctl release again, which takes off the lock that it leaves."));
}

TEST_F(LaunchdServiceTest, SaysWhatStartsTheHelper) {
    load();
    EXPECT_EQ(service.whatStarts(), "it starts when the app calls, and at boot");
    EXPECT_EQ(service.whatStarts(),
              "nothing starts it until the app registers it anew, or the next boot");
    EXPECT_EQ(service.startCommand(), "launchctl kickstart system/com.example.app.helper");
    EXPECT_EQ(service.restartCommand(), "launchctl kickstart -k system/com.example.app.helper");
}

TEST_F(LaunchdServiceTest, HasLittleToExamine) {
    EXPECT_EQ(service.examine(), Checks{checkOpening("/anywhere/HalvoHelper", identity)});
    EXPECT_THAT(service.examineApp("/Applications/Halvo.app", true), IsEmpty());
    EXPECT_THAT(service.examineSession(501), IsEmpty());
    EXPECT_THAT(service.otherApplications(), Contains("/root/Applications"));
}

TEST_F(LaunchdServiceTest, IsTheLiveOneOfThisSystem) {
    const auto live = liveService(identity, "/anywhere/HalvoHelper", processes, waiter);
    EXPECT_EQ(live->whatStarts(),
              "nothing is known of what starts it: /bin/launchctl cannot be started: No such file "
              "or directory");
}

// Another program in launchctl's place.
class LaunchctlTest : public ::testing::Test {
  protected:
    Status shell(const std::string& script, Seconds limit = Seconds{20}) {
        return LiveLaunchctl(waiter, "/bin/sh").run({"-c", script}, limit, "Waiting.");
    }

    const testing::TemporaryFolder folder;
    Waiter waiter;
};

TEST_F(LaunchctlTest, EndsAsItEnds) {
    EXPECT_EQ(shell("exit 3"), 3);
    EXPECT_EQ(shell("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(LiveLaunchctl(waiter, "/nowhere/launchctl").run({"print"}, Seconds{20}, ""),
              std::unexpected("/nowhere/launchctl cannot be started: No such file or directory"));
}

TEST_F(LaunchctlTest, GetsAnEnvironmentOfItsOwnAndNothingToRead) {
    const std::string seen = folder / "seen";
    EXPECT_EQ(shell("exec >" + seen + "; cat; env | grep -v '^PWD=\\|^_=' | sort"), 0);
    EXPECT_EQ(testing::readTestFile(seen), "LC_ALL=C\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n");
}

TEST_F(LaunchctlTest, SaysNothing) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(shell("echo out; echo err >&2"), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(LaunchctlTest, GetsTheUsualSignalsAndAGroupOfItsOwn) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    // But for signals 32 and 33, which are the C library's own.
    const std::string seen = folder / "seen";
    EXPECT_EQ(shell("exec >" + seen +
                    "; grep -E 'Sig(Blk|Ign)' /proc/self/status | sed 's/18\\(0*\\)$/00\\1/'; "
                    "test $(ps -o pgid= -p $$) = $$ && echo own"),
              0);
    std::signal(SIGPIPE, ignored);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(testing::readTestFile(seen),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nown\n");
}

TEST_F(LaunchctlTest, IsKilledWithWhatItStartedWhenItTakesTooLong) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(shell("(sleep 2; touch " + folder / "late" + ") & sleep 30", Seconds{0.2}),
              std::unexpected("/bin/sh takes too long; it was stopped"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds{2});
    usleep(2'300'000);
    EXPECT_FALSE(std::filesystem::exists(folder / "late"));
}

TEST_F(LaunchctlTest, IsSaidToBeWaitedFor) {
    FakeWaiter fast;
    EXPECT_FALSE(
        LiveLaunchctl(fast, "/bin/sh").run({"-c", "sleep 30"}, Seconds{2}, "Waiting for it."));
    EXPECT_THAT(fast.said, ElementsAre("Waiting for it."));
}

class LaunchdServicePrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override { std::filesystem::create_directory(folder); }

    void cleanUp() override { std::filesystem::remove_all(folder); }

    const std::string folder = "/Library/Application Support/com.example.app.helper.copy";
};

TEST_F(LaunchdServicePrivateMachineTest, TakesAwayTheCopyOfAHelperThatWasKilled) {
    Script script;
    FakeProcesses processes;
    FakeWaiter waiter;
    LaunchdService service(identity, "/anywhere/HalvoHelper",
                           std::make_unique<FakeLaunchctl>(script), processes, waiter);
    script.answers[print] = {113};
    processes.processes = {7};
    processes.areStuck = true;
    EXPECT_FALSE(service.stop());
    EXPECT_TRUE(std::filesystem::exists(folder)) << "it may use it";
    processes.areStuck = false;
    EXPECT_TRUE(service.stop());
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(ReleaseLockPathTest, LiesWhereABootEmpties) {
    EXPECT_EQ(releaseLockPath(identity), "/var/run/com.example.app.helper.release.lock");
}

}  // namespace
}  // namespace halvo::control
