#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Linux/SystemdService.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"

namespace halvo::control {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string show =
    "/usr/bin/systemctl show --no-pager "
    "--property=Id,LoadState,ActiveState,SubState,UnitFileState,Result "
    "-- "
    "com.example.app.helper.socket com.example.app.helper.service "
    "com.example.app.helper-resume.service";
const std::string stopBoth =
    "/usr/bin/systemctl stop -- com.example.app.helper.socket com.example.app.helper.service";
const std::string startSocket = "/usr/bin/systemctl start -- com.example.app.helper.socket";

class SystemdServiceTest : public ::testing::Test {
  protected:
    // What systemctl shows of the units.
    void units(const std::string& socketLoad, const std::string& socketActive,
               const std::string& serviceLoad = "loaded", const std::string& resume = "enabled",
               const std::string& serviceActive = "active") {
        programs.answers.erase(show);
        programs.answer(show, 0,
                        "Id=com.example.app.helper.socket\nLoadState=" + socketLoad +
                            "\nActiveState=" + socketActive +
                            "\n\nId=com.example.app.helper.service\nLoadState=" + serviceLoad +
                            "\nActiveState=" + serviceActive +
                            "\n\nId=com.example.app.helper-resume.service\n"
                            "LoadState=loaded\nUnitFileState=" +
                            resume + "\n");
    }

    SystemdService service(bool isBooted = true) {
        return {identity, "/libexec/HalvoHelper", isBooted, processes, programs};
    }

    Progress progress = [this](const std::string& line) { said.push_back(line); };
    FakePrograms programs;
    FakeProcesses processes;
    std::vector<std::string> said;
};

TEST_F(SystemdServiceTest, StopsSocketAndServiceAndStartsTheSocketAgain) {
    units("loaded", "active");
    programs.answer(stopBoth, 0);
    programs.answer(startSocket, 0);
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_THAT(programs.calls, ElementsAre(show, stopBoth));
    EXPECT_EQ(systemd.resume(progress), "");
    EXPECT_THAT(programs.calls, ElementsAre(show, stopBoth, startSocket));
    EXPECT_TRUE(said.empty());
    for (const Seconds limit : programs.limits) {
        EXPECT_LE(limit, Seconds{30});
    }
}

TEST_F(SystemdServiceTest, SaysWhatItWaitsFor) {
    units("loaded", "active");
    programs.answer(stopBoth, 0);
    programs.answer(startSocket, 0);
    programs.isSlow = true;
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_TRUE(systemd.resume(progress));
    EXPECT_THAT(said, ElementsAre("Waiting for systemd to stop the helper, at most 30 seconds.",
                                  "Waiting for systemd to start the helper's socket, at most 10 "
                                  "seconds."));
}

TEST_F(SystemdServiceTest, WaitsAtMostAMinute) {
    units("loaded", "active");
    programs.answer(stopBoth, 0);
    programs.answer(startSocket, 0);
    processes.processes = {7};
    processes.areStuck = true;
    SystemdService systemd = service();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(systemd.stop(progress));
    EXPECT_TRUE(systemd.resume(progress));
    EXPECT_THAT(said, ElementsAre("Waiting for the helper to end, at most 10 seconds."));
    Seconds total = std::chrono::steady_clock::now() - start;
    for (const Seconds limit : programs.limits) {
        total += limit;
    }
    EXPECT_LT(total, Seconds{61});
}

TEST_F(SystemdServiceTest, LeavesASocketThatWasNotActive) {
    units("loaded", "inactive");
    programs.answer(stopBoth, 0);
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_EQ(systemd.resume(progress),
              "The app cannot call the helper: com.example.app.helper.socket was stopped before, "
              "and stays so. To start it: systemctl start com.example.app.helper.socket");
    EXPECT_THAT(programs.calls, ElementsAre(show, stopBoth));
}

TEST_F(SystemdServiceTest, StopsTheUnitsThatThereAre) {
    units("not-found", "inactive");
    programs.answer("/usr/bin/systemctl stop -- com.example.app.helper.service", 0);
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_EQ(systemd.resume(progress), "");

    units("not-found", "inactive", "not-found", "enabled", "inactive");
    programs.calls.clear();
    EXPECT_TRUE(service().stop(progress));
    EXPECT_THAT(programs.calls, ElementsAre(show));
}

TEST_F(SystemdServiceTest, StopsWhatRunsAlsoWhereItsFileIsMaskedOrGone) {
    units("masked", "active", "not-found");
    programs.answer(stopBoth, 0);
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_EQ(systemd.resume(progress),
              "The app cannot call the helper any more: com.example.app.helper.socket is masked, "
              "and was stopped.");
    EXPECT_THAT(programs.calls, ElementsAre(show, stopBoth));
}

TEST_F(SystemdServiceTest, StopsHelpersThatWereStartedByHand) {
    processes.processes = {7};
    units("not-found", "inactive", "not-found", "enabled", "inactive");
    EXPECT_TRUE(service().stop(progress));
    EXPECT_THAT(processes.terminated, ElementsAre(7));

    processes.processes = {8};
    programs.calls.clear();
    SystemdService bare = service(false);
    EXPECT_EQ(bare.running(), std::vector<pid_t>{8});
    EXPECT_TRUE(bare.stop(progress));
    EXPECT_EQ(bare.resume(progress), "");
    EXPECT_THAT(processes.terminated, ElementsAre(7, 8));
    EXPECT_TRUE(programs.calls.empty());
}

TEST_F(SystemdServiceTest, StopsNothingWhenSystemdDoesNotAnswer) {
    programs.fail(show, "/usr/bin/systemctl takes too long; it was stopped");
    processes.processes = {7};
    SystemdService systemd = service();
    EXPECT_EQ(systemd.stop(progress),
              std::unexpected("/usr/bin/systemctl takes too long; it was stopped. Try again when "
                              "systemd answers."));
    EXPECT_EQ(systemd.resume(progress), "");
    EXPECT_TRUE(processes.terminated.empty());
}

TEST_F(SystemdServiceTest, StartsTheSocketAgainAlsoWhenTheStopFailed) {
    units("loaded", "active");
    programs.answer(stopBoth, 1, "Access denied\nmore");
    programs.answer(startSocket, 0);
    SystemdService systemd = service();
    EXPECT_EQ(systemd.stop(progress),
              std::unexpected("systemd did not stop the helper: Access denied. Look into systemctl "
                              "status com.example.app.helper.service, and try again."));
    EXPECT_EQ(systemd.resume(progress), "");
    EXPECT_THAT(programs.calls, ElementsAre(show, stopBoth, startSocket));
}

TEST_F(SystemdServiceTest, SaysThatAHelperDoesNotEnd) {
    processes.processes = {7, 9};
    processes.areStuck = true;
    EXPECT_EQ(service(false).stop(progress),
              std::unexpected("The helper (pids 7 and 9) does not end. Kill it (kill -KILL), then "
                              "run halvoctl release again, which takes off the lock that it "
                              "leaves."));
    EXPECT_THAT(said, ElementsAre("Waiting for the helper to end, at most 10 seconds."));
    EXPECT_NEAR(processes.time.count(), 1010, 0.1);
}

TEST_F(SystemdServiceTest, SaysWhenTheSocketCannotBeStarted) {
    units("loaded", "active");
    programs.answer(stopBoth, 0);
    programs.answer(startSocket, 4);
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop(progress));
    EXPECT_EQ(systemd.resume(progress),
              std::unexpected("The helper's socket could not be started again: it ended with 4. "
                              "Start it: systemctl start com.example.app.helper.socket"));
    programs.answers.erase(startSocket);
    EXPECT_THAT(systemd.resume(progress).error(), HasSubstr("cannot be started: No such file"));
}

TEST_F(SystemdServiceTest, SaysWhatStartsTheHelper) {
    const auto starts = [this] { return service().whatStarts(); };
    units("loaded", "active");
    EXPECT_EQ(starts(), "it starts when the app calls, and at boot while a commitment is stored");
    units("loaded", "active", "loaded", "disabled");
    EXPECT_EQ(starts(), "it starts when the app calls");
    units("loaded", "inactive");
    EXPECT_EQ(starts(),
              "nothing starts it, since com.example.app.helper.socket is not active: systemctl "
              "enable --now com.example.app.helper.socket");
    programs.answers[show] = {Finished{
        0,
        "Id=com.example.app.helper.socket\nLoadState=loaded\nActiveState=active\n\n"
        "Id=com.example.app.helper.service\nActiveState=activating\nSubState=auto-restart\n"
        "Result=exit-code\n\nId=com.example.app.helper-resume.service\n"}};
    EXPECT_EQ(starts(),
              "it starts again in a moment, since it ended (exit-code); if it stays so: journalctl "
              "--unit=com.example.app.helper.service");
    programs.answers.clear();
    EXPECT_THAT(starts(), HasSubstr("nothing is known of what starts it: "));
    EXPECT_EQ(service(false).whatStarts(),
              "nothing starts it, since systemd does not run here; start it by hand: "
              "/libexec/HalvoHelper");
    EXPECT_EQ(service().startCommand(), "systemctl start com.example.app.helper.service");
    EXPECT_EQ(service(false).startCommand(), "/libexec/HalvoHelper");
}

TEST(SystemdServiceLockTest, LiesWhereABootEmpties) {
    EXPECT_EQ(releaseLockPath(identity), "/run/com.example.app.helper.release.lock");
}

}  // namespace
}  // namespace halvo::control
