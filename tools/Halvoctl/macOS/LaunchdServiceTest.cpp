#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Status = std::expected<int, std::string>;
using Words = std::vector<std::string>;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string copyFolder = "/Library/Application Support/com.example.app.helper.copy";

// A service whose launchctl returns `answers`, the last of them repeatedly.
struct LaunchdMachine : FakeMachine {
    LaunchdMachine(std::deque<Status> print, const Status& bootout)
        : answers{{"print", std::move(print)}, {"bootout", {bootout}}} {
        fake::reset();
        machine.helper = "/anywhere/HalvoHelper";
        processes.processes = {7};
    }

    std::map<std::string, std::deque<Status>> answers;
    Words calls;
    std::vector<Seconds> limits;
    Words lines;
    std::unique_ptr<Service> launchd = launchdService(
        machine, [this](Waiter& used, const Words& words, Seconds limit, const std::string& line) {
            EXPECT_EQ(&used, &waiter);
            EXPECT_EQ(words.at(0), "/bin/launchctl");
            EXPECT_EQ(words.at(2), "system/com.example.app.helper");
            calls.push_back(words.at(1));
            limits.push_back(limit);
            lines.push_back(line);
            std::deque<Status>& list = answers.at(words.at(1));
            const Status answer = list.front();
            if (list.size() > 1) {
                list.pop_front();
            }
            return answer;
        });
};

TEST(LaunchdServiceTest, RemovesTheJob) {
    const Status mute = std::unexpected("launchctl is stuck");
    const std::string back =
        "The helper is back at the next boot, or when the app registers it anew.";
    const std::string stays =
        "launchd did not stop the helper: launchctl bootout system/com.example.app.helper ended "
        "with 1. Try again.";
    const Words all{"print", "bootout", "print"};

    struct {
        std::deque<Status> print;
        Status bootout;
        Words calls;
        std::string problem;
        std::string resumed;
    } const rows[] = {
        {{0, 113}, 0, all, "", back},
        {{0, 113}, 36, all, "", back},
        {{113}, mute, {"print"}, "", ""},
        {{mute}, mute, {"print"}, "launchctl is stuck. Try again when launchd answers.", ""},
        {{0}, mute, {"print", "bootout"}, "launchctl is stuck. Try again.", ""},
        {{0}, 1, all, stays, ""},
        {{0, mute}, 1, all, stays, ""}};

    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        LaunchdMachine mac(row.print, row.bootout);
        EXPECT_EQ(mac.launchd->resume(), "");
        const auto stopped = mac.launchd->stop();
        EXPECT_EQ(stopped ? "" : stopped.error(), row.problem);
        EXPECT_EQ(mac.calls, row.calls);
        EXPECT_EQ(mac.launchd->resume(), row.resumed);
        EXPECT_EQ(mac.processes.processes.empty(), stopped.has_value())
            << "helpers started by hand are stopped too";
        if (row.calls == all) {
            EXPECT_THAT(mac.limits, ElementsAre(Seconds{10}, Seconds{30}, Seconds{10}));
            EXPECT_THAT(
                mac.lines,
                ElementsAre("", "Waiting for launchd to stop the helper, at most 30 seconds.", ""));
        }
    }
}

TEST(LaunchdServiceTest, DescribesWhatStartsTheHelperAndChecksItsFiles) {
    LaunchdMachine mac({0, 113, std::unexpected("launchctl is stuck")}, 0);
    const auto starts = [&] { return mac.launchd->whatStarts(); };
    EXPECT_EQ(starts(), "it starts when the app calls, and at boot");
    EXPECT_EQ(starts(), "nothing starts it until the app registers it anew, or the next boot");
    EXPECT_EQ(starts(), "nothing is known of what starts it: launchctl is stuck");
    EXPECT_EQ(mac.launchd->startCommand, "launchctl kickstart system/com.example.app.helper");
    EXPECT_EQ(mac.launchd->restartCommand, "launchctl kickstart -k system/com.example.app.helper");
    EXPECT_EQ(liveService(mac.machine)->whatStarts(),
              "nothing is known of what starts it: /bin/launchctl cannot be started: No such file "
              "or directory");
    EXPECT_EQ(mac.launchd->examine().at(1), checkOpening("/anywhere/HalvoHelper", identity));
    EXPECT_THAT(mac.launchd->examineApp("/Applications/Halvo.app"), IsEmpty());
    EXPECT_THAT(mac.launchd->examineSession(501), IsEmpty());
    EXPECT_THAT(mac.launchd->otherApplications(), Contains("/root/Applications"));
    EXPECT_EQ(clearCommand("/Applications/My App.app"),
              "chflags noschg '/Applications/My App.app'");
    EXPECT_EQ(mac.launchd->releaseLock, "/var/run/com.example.app.helper.release.lock");
}

class RunAndWaitTest : public ::testing::Test {
  protected:
    Status shell(const std::string& script, Seconds limit = Seconds{20}) {
        return runAndWait(waiter, {"/bin/sh", "-c", script}, limit, "Waiting.");
    }

    const testing::TemporaryFolder folder;
    const std::string seen = folder / "seen";
    Waiter waiter;
};

TEST_F(RunAndWaitTest, ReturnsTheExitStatusAndPrintsNothing) {
    EXPECT_EQ(shell("exit 3"), 3);
    EXPECT_EQ(shell("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(runAndWait(waiter, {"/nowhere/launchctl", "print"}, Seconds{20}, ""),
              std::unexpected("/nowhere/launchctl cannot be started: No such file or directory"));
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(shell("echo out; echo err >&2"), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(RunAndWaitTest, HasItsOwnEnvironmentSignalsAndProcessGroup) {
    EXPECT_EQ(shell("exec >" + seen + "; cat; env | grep -v '^PWD=\\|^_=' | sort"), 0);
    EXPECT_EQ(testing::readTestFile(seen), "LC_ALL=C\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n");

    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    // Without signals 32 and 33, which the C library uses.
    EXPECT_EQ(shell("exec >" + seen +
                    "; grep -E 'Sig(Blk|Ign)' /proc/self/status | sed 's/18\\(0*\\)$/00\\1/'; "
                    "test $(ps -o pgid= -p $$) = $$ && echo own"),
              0);
    std::signal(SIGPIPE, ignored);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(testing::readTestFile(seen),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nown\n");
}

TEST_F(RunAndWaitTest, KillsTheProcessGroupAfterTheLimit) {
    const Seconds start = testing::timeNow();
    EXPECT_EQ(shell("(sleep 2; touch " + seen + ") & sleep 30", Seconds{0.2}),
              std::unexpected("/bin/sh takes too long; it was stopped"));
    EXPECT_LT(testing::timeNow() - start, Seconds{2});
    FakeWaiter fast;
    EXPECT_FALSE(runAndWait(fast, {"/bin/sh", "-c", "sleep 30"}, Seconds{2}, "Waiting for it."));
    EXPECT_THAT(fast.said, ElementsAre("Waiting for it."));
    EXPECT_TRUE(testing::always(Seconds{2.3}, [this] { return !fs::exists(seen); }));
}

class LaunchdServicePrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override { fs::create_directory(copyFolder); }

    void cleanUp() override { fs::remove_all(copyFolder); }
};

TEST_F(LaunchdServicePrivateMachineTest, RemovesTheCopyOfAHelperThatWasKilled) {
    LaunchdMachine mac({113}, 0);
    mac.processes.areStuck = true;
    EXPECT_EQ(mac.launchd->stop().error().substr(0, 18), "The helper (pid 7)");
    EXPECT_TRUE(fs::exists(copyFolder)) << "the helper may use it";
    mac.processes.areStuck = false;
    EXPECT_TRUE(mac.launchd->stop());
    EXPECT_FALSE(fs::exists(copyFolder));
}

// How the helper opens the app: HalvoHelper/macOS/LiveOpener.mm.
class ChecksPrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        fs::create_directory(bundle);
        testing::writeTestFile(helper, "the helper");
        fake::world().signedFiles["the helper"] = identity.helperRequirement();
    }

    void cleanUp() override {
        fs::remove_all(bundle);
        fs::remove_all(copyFolder);
    }

    Check opening() { return checkOpening(helper, identity); }

    const std::string bundle = "/Applications/Halvo.app";
    const std::string helper = bundle + "/HalvoHelper";
};

TEST_F(ChecksPrivateMachineTest, DescribeHowTheAppIsOpened) {
    EXPECT_EQ(opening(), isOk("opening", "by the helper's own executable, which is root's alone"));
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    const std::string owner = " belongs to user " + std::to_string(user.uid);
    const Check copied = isOk("opening", "through a checked copy of the helper in " + copyFolder +
                                             ", since " + bundle + owner);
    EXPECT_EQ(opening(), copied);
    fs::create_directory(copyFolder);
    EXPECT_EQ(opening(), copied);
    ASSERT_EQ(chown(copyFolder.c_str(), user.uid, user.gid), 0);
    EXPECT_EQ(opening(),
              isProblem("opening", copyFolder + owner + "; so the app is not opened again",
                        "rm -r '" + copyFolder + "'"));
    testing::writeTestFile(helper, "something else");
    EXPECT_EQ(opening(), isProblem("opening",
                                   helper +
                                       ": code object is not signed at all; so the app is not "
                                       "opened again, since " +
                                       bundle + owner,
                                   "Install the app again."));
}

TEST_F(ChecksPrivateMachineTest, RequireRootOwnedFilesFromTheBundleDownwards) {
    const testing::TemporaryFolder disk;
    const std::string app = disk / "Contents/Halvo.app";
    for (const std::string& folder : {app + "/Contents/Helpers", disk / "libexec"}) {
        LaunchdMachine mac({0}, 0);
        mac.machine.helper = folder + "/HalvoHelper";
        fs::create_directories(folder);
        fs::permissions(disk / "Contents", fs::perms::all);
        fs::permissions(disk.path(), fs::perms::all);
        for (const char* name : {"/HalvoHelper", "/halvoctl"}) {
            EXPECT_EQ(mac.launchd->examine().front(),
                      isProblem("helper files", folder + name + ": No such file or directory",
                                "A user who can change the helper can keep it from starting, and "
                                "one who can change halvoctl becomes root when an administrator "
                                "runs it. Install it again, in folders that only root can write "
                                "to."));
            testing::writeTestFile(folder + name, "");
        }
        EXPECT_EQ(mac.launchd->examine().front(),
                  isOk("helper files", "root's alone, in " + folder));
    }
    ASSERT_EQ(chown(app.c_str(), user.uid, 0), 0);
    LaunchdMachine mac({0}, 0);
    mac.machine.helper = app + "/Contents/Helpers/HalvoHelper";
    EXPECT_EQ(mac.launchd->examine().front().finding,
              app + " belongs to user " + std::to_string(user.uid));
}

}  // namespace
}  // namespace halvo::control
