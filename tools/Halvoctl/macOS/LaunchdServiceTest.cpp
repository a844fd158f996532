#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"
#include "tools/Halvoctl/macOS/LaunchdService.hpp"

namespace halvo::control {
namespace {

using ::testing::ElementsAre;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string print = "/bin/launchctl print system/com.example.app.helper";
const std::string bootout = "/bin/launchctl bootout system/com.example.app.helper";

class LaunchdServiceTest : public ::testing::Test {
  protected:
    LaunchdServiceTest() { fake::reset(); }

    // launchd has the job first, and after bootout no more.
    void load() {
        programs.answer(print, 0, "state = running");
        programs.answer(print, 113);
    }

    Progress progress = [this](const std::string& line) { said.push_back(line); };
    FakePrograms programs;
    FakeProcesses processes;
    std::vector<std::string> said;
    const std::unique_ptr<Service> service =
        liveService(identity, "/anywhere/HalvoHelper", processes, programs);
};

TEST_F(LaunchdServiceTest, TakesTheJobOutAndSaysWhenItIsBack) {
    load();
    programs.answer(bootout, 0);
    EXPECT_EQ(service->resume(progress), "");
    EXPECT_TRUE(service->stop(progress));
    EXPECT_THAT(programs.calls, ElementsAre(print, bootout, print));
    EXPECT_THAT(programs.limits, ElementsAre(Seconds{10}, Seconds{30}, Seconds{10}));
    EXPECT_EQ(service->resume(progress),
              "The helper is back at the next boot, or when the app registers it anew.");
    EXPECT_TRUE(said.empty());
}

TEST_F(LaunchdServiceTest, CountsWhatIsSoAndNotWhatBootoutSays) {
    load();
    programs.answer(bootout, 36, "Operation now in progress");
    EXPECT_TRUE(service->stop(progress));
}

TEST_F(LaunchdServiceTest, StopsHelpersThatNoJobStarted) {
    programs.answer(print, 113);
    processes.processes = {7};
    processes.stopped = 7;
    EXPECT_EQ(service->stopped(), std::vector<pid_t>{7});
    EXPECT_EQ(service->restartCommand(), "launchctl kickstart -k system/com.example.app.helper");
    EXPECT_EQ(service->running(), std::vector<pid_t>{7});
    EXPECT_TRUE(service->stop(progress));
    EXPECT_THAT(programs.calls, ElementsAre(print));
    EXPECT_THAT(processes.terminated, ElementsAre(7));
    EXPECT_EQ(service->resume(progress), "");
}

TEST_F(LaunchdServiceTest, SaysWhatItWaitsFor) {
    load();
    programs.answer(bootout, 0);
    programs.isSlow = true;
    EXPECT_TRUE(service->stop(progress));
    EXPECT_THAT(said, ElementsAre("Waiting for launchd to stop the helper, at most 30 seconds."));
}

TEST_F(LaunchdServiceTest, FailsWhenLaunchdDoesNotAnswer) {
    EXPECT_EQ(service->stop(progress),
              std::unexpected("/bin/launchctl cannot be started: No such file or directory. Try "
                              "again when launchd answers."));
    EXPECT_EQ(service->whatStarts(),
              "nothing is known of what starts it: /bin/launchctl cannot be started: No such file "
              "or directory");
    programs.answer(print, 0);
    EXPECT_EQ(
        service->stop(progress),
        std::unexpected("/bin/launchctl cannot be started: No such file or directory. Try again."));
    EXPECT_EQ(service->resume(progress), "");
}

TEST_F(LaunchdServiceTest, FailsWhenTheJobStays) {
    programs.answer(print, 0);
    programs.answer(bootout, 1);
    const auto failed = std::unexpected(
        "launchd did not stop the helper: launchctl bootout system/com.example.app.helper ended "
        "with 1. Try again.");
    EXPECT_EQ(service->stop(progress), failed);
    EXPECT_EQ(service->resume(progress), "");
    programs.answers[print].push_back(std::unexpected("stuck"));
    EXPECT_EQ(service->stop(progress), failed) << "when it cannot be told";
}

TEST_F(LaunchdServiceTest, FailsWhenAHelperStays) {
    programs.answer(print, 113);
    processes.processes = {7};
    processes.areStuck = true;
    EXPECT_EQ(service->stop(progress),
              std::unexpected("The helper (pid 7) does not end. Kill it (kill -KILL), then run "
                              "halvoctl release again, which takes off the lock that it leaves."));
    EXPECT_THAT(said, ElementsAre("Waiting for the helper to end, at most 10 seconds."));
    EXPECT_NEAR(processes.time.count(), 1010, 0.1);
}

TEST_F(LaunchdServiceTest, SaysWhatStartsTheHelper) {
    load();
    EXPECT_EQ(service->whatStarts(), "it starts when the app calls, and at boot");
    EXPECT_EQ(service->whatStarts(),
              "nothing starts it until the app registers it anew, or the next boot");
    EXPECT_EQ(service->startCommand(), "launchctl kickstart system/com.example.app.helper");
}

class LaunchdServicePrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override { std::filesystem::create_directory(folder); }

    void cleanUp() override { std::filesystem::remove_all(folder); }

    const std::string folder = "/Library/Application Support/com.example.app.helper.copy";
};

TEST_F(LaunchdServicePrivateMachineTest, TakesAwayTheCopyOfAHelperThatWasKilled) {
    FakePrograms programs;
    FakeProcesses processes;
    LaunchdService service(identity, processes, programs);
    programs.answer(print, 113);
    processes.processes = {7};
    processes.areStuck = true;
    EXPECT_FALSE(service.stop([](const std::string&) {}));
    EXPECT_TRUE(std::filesystem::exists(folder)) << "it may use it";
    processes.areStuck = false;
    EXPECT_TRUE(service.stop([](const std::string&) {}));
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(LaunchdServiceLockTest, LiesWhereABootEmpties) {
    EXPECT_EQ(releaseLockPath(identity), "/var/run/com.example.app.helper.release.lock");
}

}  // namespace
}  // namespace halvo::control
