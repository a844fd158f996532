#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-daemon.h>

#include <string>
#include <vector>

#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Linux/SystemdService.hpp"

namespace halvo::control {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string socketName = "com.example.app.helper.socket";
const std::string serviceName = "com.example.app.helper.service";

// What systemd is asked, and what it answers.
struct Script {
    std::expected<Units, std::string> units =
        Units{{"loaded", "active", "enabled", "success", "listening"},
              {"loaded", "active", "static", "success", "running"},
              {"loaded", "inactive", "enabled", "success", "dead"},
              {true, {"/Applications", "/srv"}}};
    std::expected<void, std::string> stopped;
    std::expected<void, std::string> started;
    std::vector<std::string> calls;
    std::vector<std::string> lines;
    Seconds limits{0};
};

class FakeSystemd final : public Systemd {
  public:
    explicit FakeSystemd(Script& script) : script_(script) {}

    std::expected<Units, std::string> units(const HelperIdentity& of) override {
        EXPECT_EQ(of, identity);
        script_.calls.push_back("units");
        script_.limits += Seconds{10};
        return script_.units;
    }

    std::expected<void, std::string> stop(const std::vector<std::string>& names, Seconds limit,
                                          const std::string& line) override {
        note("stop", names, limit, line);
        return script_.stopped;
    }

    std::expected<void, std::string> start(const std::vector<std::string>& names, Seconds limit,
                                           const std::string& line) override {
        note("start", names, limit, line);
        return script_.started;
    }

  private:
    void note(std::string call, const std::vector<std::string>& names, Seconds limit,
              const std::string& line) {
        for (const std::string& name : names) {
            call += " " + name;
        }
        script_.calls.push_back(call);
        script_.lines.push_back(line);
        script_.limits += limit;
    }

    Script& script_;
};

class SystemdServiceTest : public ::testing::Test {
  protected:
    SystemdService service(bool isBooted = true) {
        return {identity, "/libexec/HalvoHelper",
                isBooted ? std::make_unique<FakeSystemd>(script) : nullptr, processes, waiter};
    }

    Script script;
    FakeProcesses processes;
    FakeWaiter waiter;
    const std::string stopBoth = "stop " + socketName + " " + serviceName;
    const std::string startSocket = "start " + socketName;
};

TEST_F(SystemdServiceTest, StopsSocketAndServiceAndStartsTheSocketAgain) {
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop());
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth));
    EXPECT_EQ(systemd.resume(), "");
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth, startSocket));
    EXPECT_THAT(
        script.lines,
        ElementsAre("Waiting for systemd to stop the helper, at most 30 seconds.",
                    "Waiting for systemd to start the helper's socket, at most 10 seconds."));
    EXPECT_TRUE(waiter.said.empty());
}

TEST_F(SystemdServiceTest, WaitsAtMostAMinute) {
    processes.processes = {7};
    processes.areStuck = true;
    SystemdService systemd = service();
    EXPECT_FALSE(systemd.stop());
    EXPECT_TRUE(systemd.resume());
    EXPECT_LT(script.limits + (waiter.time - Seconds{1000}), Seconds{61});
}

TEST_F(SystemdServiceTest, LeavesASocketThatWasNotActive) {
    script.units->socket.active = "inactive";
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop());
    EXPECT_EQ(systemd.resume(),
              "The app cannot call the helper: com.example.app.helper.socket was stopped before, "
              "and stays so. To start it: systemctl start com.example.app.helper.socket");
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth));
}

TEST_F(SystemdServiceTest, StopsTheUnitsThatThereAre) {
    script.units->socket = {"not-found", "inactive", "", "", ""};
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop());
    EXPECT_EQ(systemd.resume(), "");
    EXPECT_THAT(script.calls, ElementsAre("units", "stop " + serviceName));
}

TEST_F(SystemdServiceTest, StopsWhatRunsAlsoWhereItsFileIsMaskedOrGone) {
    script.units->socket.load = "masked";
    script.units->service.load = "not-found";
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop());
    EXPECT_EQ(systemd.resume(),
              "The app cannot call the helper any more: com.example.app.helper.socket is masked, "
              "and was stopped.");
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth));
}

TEST_F(SystemdServiceTest, StopsHelpersThatWereStartedByHand) {
    processes.processes = {7};
    script.units->socket = script.units->service = {"not-found", "inactive", "", "", ""};
    EXPECT_TRUE(service().stop());
    EXPECT_THAT(script.calls, ElementsAre("units"));
    processes.processes = {8};
    SystemdService bare = service(false);
    EXPECT_TRUE(bare.stop());
    EXPECT_EQ(bare.resume(), "");
    EXPECT_THAT(processes.terminated, ElementsAre(7, 8));
    EXPECT_THAT(script.calls, ElementsAre("units"));
}

TEST_F(SystemdServiceTest, StopsNothingWhenSystemdDoesNotAnswer) {
    script.units = std::unexpected("systemd does not answer: Connection timed out");
    processes.processes = {7};
    SystemdService systemd = service();
    EXPECT_EQ(systemd.stop(),
              std::unexpected("systemd does not answer: Connection timed out. Try again when "
                              "systemd answers."));
    EXPECT_EQ(systemd.resume(), "");
    EXPECT_TRUE(processes.terminated.empty());
    EXPECT_THAT(script.calls, ElementsAre("units"));
}

TEST_F(SystemdServiceTest, StartsTheSocketAgainAlsoWhenTheStopFailed) {
    script.stopped = std::unexpected("Access denied");
    SystemdService systemd = service();
    EXPECT_EQ(systemd.stop(),
              std::unexpected("systemd did not stop the helper: Access denied. Look into systemctl "
                              "status com.example.app.helper.service, and try again."));
    EXPECT_EQ(systemd.resume(), "");
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth, startSocket));
}

TEST_F(SystemdServiceTest, SaysWhenTheSocketCannotBeStarted) {
    script.started = std::unexpected("it takes too long");
    SystemdService systemd = service();
    EXPECT_TRUE(systemd.stop());
    EXPECT_EQ(systemd.resume(),
              std::unexpected("The helper's socket could not be started again: it takes too long. "
                              "Start it: systemctl start com.example.app.helper.socket"));
}

TEST_F(SystemdServiceTest, SaysWhatStartsTheHelper) {
    const auto starts = [this] { return service().whatStarts(); };
    EXPECT_EQ(starts(), "it starts when the app calls, and at boot while a commitment is stored");
    script.units->resume.enabled = "disabled";
    EXPECT_EQ(starts(), "it starts when the app calls");
    script.units->socket.active = "inactive";
    EXPECT_EQ(starts(),
              "nothing starts it, since com.example.app.helper.socket is not active: systemctl "
              "enable --now com.example.app.helper.socket");
    script.units->service = {"loaded", "activating", "static", "exit-code", "auto-restart"};
    EXPECT_EQ(starts(),
              "it starts again in a moment, since it ended (exit-code); if it stays so: journalctl "
              "--unit=com.example.app.helper.service");
    script.units = std::unexpected("systemd is stuck");
    EXPECT_EQ(starts(), "nothing is known of what starts it: systemd is stuck");
    EXPECT_EQ(service(false).whatStarts(),
              "nothing starts it, since systemd does not run here; start it by hand: "
              "/libexec/HalvoHelper");
    EXPECT_EQ(service().startCommand(), "systemctl start com.example.app.helper.service");
    EXPECT_EQ(service(false).startCommand(), "/libexec/HalvoHelper");
    EXPECT_EQ(service().restartCommand(), "systemctl restart com.example.app.helper.service");
    EXPECT_EQ(service(false).restartCommand(), "");
}

TEST_F(SystemdServiceTest, IsExaminedByWhatSystemdSays) {
    script.units->resume.enabled = "disabled";
    SystemdService systemd = service();
    EXPECT_THAT(systemd.examine(), Contains(isProblem("systemd",
                                                      "com.example.app.helper-resume.service is "
                                                      "not enabled",
                                                      "systemctl enable "
                                                      "com.example.app.helper-resume.service")));
    EXPECT_THAT(systemd.examineApp("/srv/Applications/Halvo.app", true),
                Contains(isOk("sandbox", "the helper can lock what lies in /srv/Applications")));
    EXPECT_THAT(systemd.examineApp("/srv/Halvo.app", true),
                Not(Contains(Field(&Check::name, "sandbox"))));
    EXPECT_THAT(systemd.otherApplications(), ElementsAre("/Applications", "/srv/Applications"));
    EXPECT_THAT(script.calls, ElementsAre("units")) << "asked once";
}

TEST_F(SystemdServiceTest, IsExaminedAlsoWhereSystemdDoesNotAnswer) {
    script.units = std::unexpected("It is stuck");
    SystemdService systemd = service();
    const std::string advice = "Look whether systemctl works at all.";
    EXPECT_THAT(systemd.examine(), Contains(isProblem("systemd", "It is stuck", advice)));
    EXPECT_THAT(systemd.examineApp("/srv/Applications/Halvo.app", true),
                Contains(isProblem("sandbox", "It is stuck", advice)));
    EXPECT_EQ(systemd.otherApplications(), homeApplications());
}

TEST_F(SystemdServiceTest, IsExaminedAlsoWithoutSystemd) {
    SystemdService bare = service(false);
    EXPECT_THAT(bare.examine(), Contains(isNotApplicable("systemd",
                                                         "does not run here; start the helper by "
                                                         "hand: /libexec/HalvoHelper")));
    const std::string path = "/run/com.example.app.helper.sock";
    EXPECT_THAT(bare.examine(),
                Contains(isNotApplicable("socket", "the helper makes " + path + " when it runs")));
    processes.processes = {7};
    EXPECT_THAT(bare.examine(), Contains(isProblem("socket", "there is none at " + path,
                                                   "Stop the helper and start it again.")));
    EXPECT_THAT(bare.examineApp("/srv/Applications/Halvo.app", true),
                Not(Contains(Field(&Check::name, "sandbox"))));
    EXPECT_EQ(bare.otherApplications(), homeApplications());
}

TEST(ReleaseLockPathTest, LiesWhereABootEmpties) {
    EXPECT_EQ(releaseLockPath(identity), "/run/com.example.app.helper.release.lock");
}

}  // namespace
}  // namespace halvo::control
