#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Linux/SystemdService.hpp"

namespace halvo::control {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using Job = Systemd::Job;
using Words = std::vector<std::string>;

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
    Words calls;
    Words lines;
    Seconds limits{0};

    Systemd systemd() {
        return {[this](const HelperIdentity& of) {
                    EXPECT_EQ(of, identity);
                    calls.push_back("units");
                    limits += Seconds{10};
                    return units;
                },
                [this](Job job, const Words& names, Seconds limit, const std::string& line) {
                    std::string& call = calls.emplace_back(job == Job::stop ? "stop" : "start");
                    for (const std::string& name : names) {
                        call += " " + name;
                    }
                    lines.push_back(line);
                    limits += limit;
                    return job == Job::stop ? stopped : started;
                }};
    }
};

class SystemdServiceTest : public ::testing::Test {
  protected:
    std::unique_ptr<Service> service(bool isBooted = true) {
        return systemdService({identity, "/libexec/HalvoHelper", processes, waiter},
                              isBooted ? std::optional(script.systemd()) : std::nullopt);
    }

    Script script;
    FakeProcesses processes;
    FakeWaiter waiter;
};

const std::string stopBoth = "stop " + socketName + " " + serviceName;
const std::string stopService = "stop " + serviceName;
const std::string startSocket = "start " + socketName;

TEST_F(SystemdServiceTest, StopsWhatThereIsAndStartsTheSocketAgain) {
    const Unit none{"not-found", "inactive", "", "", ""};
    const Units all = *script.units;
    const std::string notCalled = "The app cannot call the helper";

    struct {
        std::function<void(Units&)> change;
        Words calls;
        std::string resumed;
    } const rows[] = {
        {[](Units&) {}, {"units", stopBoth, startSocket}, ""},
        {[](Units& units) { units.socket.active = "inactive"; },
         {"units", stopBoth},
         notCalled + ": " + socketName +
             " was stopped before, and stays so. To start it: systemctl start " + socketName},
        {[&](Units& units) { units.socket = none; }, {"units", stopService}, ""},
        {[&](Units& units) { units.socket = units.service = none; }, {"units"}, ""},
        {[](Units& units) {
             units.socket.load = "masked";
             units.service.load = "not-found";
         },
         {"units", stopBoth},
         notCalled + " any more: " + socketName + " is masked, and was stopped."}};

    for (const auto& row : rows) {
        script.calls.clear();
        row.change(*(script.units = all));
        processes.processes = {7};
        const auto systemd = service();
        EXPECT_TRUE(systemd->stop());
        EXPECT_TRUE(processes.processes.empty()) << "also one that was started by hand";
        EXPECT_EQ(systemd->resume(), row.resumed);
        EXPECT_EQ(script.calls, row.calls);
    }
    EXPECT_EQ(script.lines[0], "Waiting for systemd to stop the helper, at most 30 seconds.");
    EXPECT_EQ(script.lines[1],
              "Waiting for systemd to start the helper's socket, at most 10 seconds.");
    script.calls.clear();
    processes.processes = {8};
    EXPECT_TRUE(service(false)->stop());
    EXPECT_EQ(service(false)->resume(), "");
    EXPECT_TRUE(processes.processes.empty());
    EXPECT_TRUE(script.calls.empty());
}

TEST_F(SystemdServiceTest, WaitsAtMostAMinute) {
    processes.processes = {7};
    processes.areStuck = true;
    const auto systemd = service();
    EXPECT_FALSE(systemd->stop());
    EXPECT_TRUE(systemd->resume());
    EXPECT_LT(script.limits + (waiter.time - Seconds{1000}), Seconds{61});
}

TEST_F(SystemdServiceTest, SaysWhatSystemdDidNotDo) {
    processes.processes = {7};
    script.started = std::unexpected("it takes too long");
    script.stopped = std::unexpected("Access denied");
    const auto systemd = service();
    EXPECT_EQ(systemd->stop(),
              std::unexpected("systemd did not stop the helper: Access denied. Look into systemctl "
                              "status com.example.app.helper.service, and try again."));
    EXPECT_EQ(systemd->resume(),
              std::unexpected("The helper's socket could not be started again: it takes too long. "
                              "Start it: systemctl start com.example.app.helper.socket"));
    EXPECT_THAT(script.calls, ElementsAre("units", stopBoth, startSocket));

    script.units = std::unexpected("systemd does not answer: Connection timed out");
    script.calls.clear();
    const auto mute = service();
    EXPECT_EQ(mute->stop(),
              std::unexpected("systemd does not answer: Connection timed out. Try again when "
                              "systemd answers."));
    EXPECT_EQ(mute->resume(), "");
    EXPECT_TRUE(processes.terminated.empty());
    EXPECT_THAT(script.calls, ElementsAre("units"));
}

TEST_F(SystemdServiceTest, SaysWhatStartsTheHelper) {
    const auto starts = [this] { return service()->whatStarts(); };
    EXPECT_EQ(starts(), "it starts when the app calls, and at boot while a commitment is stored");
    script.units->resume.enabled = "disabled";
    EXPECT_EQ(starts(), "it starts when the app calls");
    script.units->socket.active = "inactive";
    EXPECT_EQ(starts(), "nothing starts it, since " + socketName +
                            " is not active: systemctl enable --now " + socketName);
    script.units->service = {"loaded", "activating", "static", "exit-code", "auto-restart"};
    EXPECT_EQ(starts(),
              "it starts again in a moment, since it ended (exit-code); if it stays so: journalctl "
              "--unit=com.example.app.helper.service");
    script.units = std::unexpected("systemd is stuck");
    EXPECT_EQ(starts(), "nothing is known of what starts it: systemd is stuck");
    EXPECT_EQ(service(false)->whatStarts(),
              "nothing starts it, since systemd does not run here; start it by hand: "
              "/libexec/HalvoHelper");
    EXPECT_EQ(service()->startCommand(), "systemctl start " + serviceName);
    EXPECT_EQ(service(false)->startCommand(), "/libexec/HalvoHelper");
    EXPECT_EQ(service()->restartCommand(), "systemctl restart " + serviceName);
    EXPECT_EQ(service(false)->restartCommand(), "");
}

TEST_F(SystemdServiceTest, IsExaminedWithAndWithoutWhatSystemdSays) {
    const std::string app = "/srv/Applications/Halvo.app";
    const auto hasSandbox = Contains(Field(&Check::name, "sandbox"));
    script.units->resume.enabled = "disabled";
    const auto systemd = service();
    EXPECT_THAT(
        systemd->examine(),
        Contains(isProblem("systemd", "com.example.app.helper-resume.service is not enabled",
                           "systemctl enable com.example.app.helper-resume.service")));
    EXPECT_THAT(systemd->examineApp(app, true),
                Contains(isOk("sandbox", "the helper can lock what lies in /srv/Applications")));
    EXPECT_THAT(systemd->examineApp("/srv/Halvo.app", true), Not(hasSandbox));
    EXPECT_THAT(systemd->otherApplications(), ElementsAre("/Applications", "/srv/Applications"));
    EXPECT_THAT(script.calls, ElementsAre("units")) << "asked once";

    script.units = std::unexpected("It is stuck");
    const std::string advice = "Look whether systemctl works at all.";
    EXPECT_THAT(service()->examine(), Contains(isProblem("systemd", "It is stuck", advice)));
    EXPECT_THAT(service()->examineApp(app, true),
                Contains(isProblem("sandbox", "It is stuck", advice)));
    EXPECT_EQ(service()->otherApplications(), homeApplications());

    const auto bare = service(false);
    EXPECT_THAT(bare->examine(), Contains(isNotApplicable("systemd",
                                                          "does not run here; start the helper by "
                                                          "hand: /libexec/HalvoHelper")));
    const std::string path = "/run/com.example.app.helper.sock";
    EXPECT_THAT(bare->examine(),
                Contains(isNotApplicable("socket", "the helper makes " + path + " when it runs")));
    processes.processes = {7};
    EXPECT_THAT(bare->examine(), Contains(isProblem("socket", "there is none at " + path,
                                                    "Stop the helper and start it again.")));
    EXPECT_THAT(bare->examineApp(app, true), Not(hasSandbox));
    EXPECT_EQ(bare->otherApplications(), homeApplications());
    EXPECT_EQ(releaseLockPath(identity), "/run/com.example.app.helper.release.lock");
}

TEST(UnitTest, IsJudgedByItsStates) {
    const Unit restarts{"loaded", "activating", "", "", "auto-restart"};
    EXPECT_TRUE(restarts.isActive() && restarts.isRestarting());
    EXPECT_FALSE((Unit{"loaded", "active", "", "", "running"}).isRestarting());
    EXPECT_FALSE((Unit{"loaded", "failed", "", "", ""}).isActive());
    const Unit ends{"masked", "deactivating", "", "", ""};
    EXPECT_TRUE(ends.isUp() && !ends.isLoaded());
    for (const char* active : {"", "inactive", "failed"}) {
        EXPECT_FALSE((Unit{"loaded", active, "", "", ""}).isUp());
    }
}

// The other side of the bus, which is systemd, for one conversation. Allows `method` of the
// manager, which makes a unit `state` a tenth of a second later; hangs up where that is empty.
struct Peer {
    std::string method;
    std::string state;
    // A broker answers nothing before it is greeted.
    bool isGreeted = true;
    Seconds managed{0};
};

// Each property tells of which unit and interface it is, until there was a job.
int answer(sd_bus_message* call, void* data, sd_bus_error*) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    auto& peer = *static_cast<Peer*>(data);
    const std::string member = sd_bus_message_get_member(call);
    const char* first = nullptr;
    const char* second = "";
    sd_bus_message_read(call, "ss", &first, &second);
    if (member == "Hello" && !std::exchange(peer.isGreeted, true)) {
        return sd_bus_reply_method_return(call, "s", ":1.7");
    }
    const std::string name = peer.isGreeted ? second : "nothing";
    if (member != "Get" && peer.state.empty()) {
        _exit(0);
    }
    if (member != "Get" && (member != peer.method || name != "replace")) {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Access\ndenied");
    }
    if (member != "Get") {
        peer.managed = testing::timeNow();
        return sd_bus_reply_method_return(call, "o", "/job/7");
    }
    if (name == "SubState" && peer.method == "odd") {
        return sd_bus_reply_method_return(call, "v", "b", 1);
    }
    if (name == "SubState" && peer.method == "mute") {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, nullptr);
    }
    if (name == "ReadWritePaths") {
        return sd_bus_reply_method_return(call, "v", "as", 4, "/Applications",
                                          "/Library/Application Support", "-/srv/B C", "-+/srv/D");
    }
    char* unit = nullptr;
    sd_bus_path_decode(sd_bus_message_get_path(call), "/org/freedesktop/systemd1/unit", &unit);
    std::string text = std::string(unit) + " " + first + " " + name;
    std::free(unit);
    if (name == "ProtectSystem") {
        text = "strict";
    } else if (peer.managed > Seconds{0}) {
        text = testing::timeNow() - peer.managed > Seconds{0.1} ? peer.state : "changing";
    }
    return sd_bus_reply_method_return(call, "v", "s", text.c_str());
}

class SystemdTest : public ::testing::Test {
  protected:
    SystemdTest() {
        const sockaddr_un address = *socketAddress(path);
        bind(listener.get(), generic(address), sizeof address);
        listen(listener.get(), 1);
    }

    Systemd systemd(Seconds limit = Seconds{10}, bool isBroker = false) {
        return liveSystemd(waiter, {{"/nowhere/bus", false}, {path, isBroker}}, limit);
    }

    [[nodiscard]] testing::TestProcess start(Peer peer) const {
        return testing::TestProcess([&] {
            sd_bus* bus =
                testing::newServerBus(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            sd_bus_add_filter(bus, nullptr, answer, &peer);
            sd_bus_start(bus);
            while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) {
            }
            sd_bus_unref(bus);
        });
    }

    const testing::TemporaryFolder folder;
    const std::string path = folder / "bus";
    Descriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    Waiter waiter;
};

TEST_F(SystemdTest, TellsOfTheUnits) {
    const auto expected = [](const std::string& name, const std::string& kind) {
        const std::string unit = name + " org.freedesktop.systemd1.Unit ";
        return Unit{unit + "LoadState", unit + "ActiveState", unit + "UnitFileState",
                    name + " org.freedesktop.systemd1." + kind + " Result", unit + "SubState"};
    };
    const Sandbox sandbox{true,
                          {"/Applications", "/Library/Application Support", "/srv/B C", "/srv/D"}};
    for (const bool isBroker : {false, true}) {
        const auto peer = start({"", "", !isBroker});
        const auto units = systemd(Seconds{10}, isBroker).units(identity);
        ASSERT_TRUE(units) << units.error();
        EXPECT_EQ(units->socket, expected(socketName, "Socket"));
        EXPECT_EQ(units->service, expected(serviceName, "Service"));
        EXPECT_EQ(units->resume, expected("com.example.app.helper-resume.service", "Service"));
        EXPECT_EQ(units->sandbox, sandbox);
    }
    for (const auto& [method, problem] :
         {std::pair{"odd", "systemd does not answer: No such device or address"},
          std::pair{"mute", "org.freedesktop.DBus.Error.AccessDenied"}}) {
        const auto peer = start({method, ""});
        EXPECT_EQ(systemd().units(identity).error(), problem);
    }
    EXPECT_EQ(liveSystemd(waiter, {{"/nowhere/bus", true}}, Seconds{1}).units(identity).error(),
              "systemd does not answer: No such file or directory");
}

TEST_F(SystemdTest, RunsJobsAndWaitsForTheirEnd) {
    struct {
        const char* allowed;
        const char* state;
        Job job;
        Seconds limit;
        std::expected<void, std::string> result;
    } const rows[] = {
        {"StopUnit", "inactive", Job::stop, Seconds{10}, {}},
        {"StartUnit", "active", Job::start, Seconds{10}, {}},
        {"StartUnit", "failed", Job::start, Seconds{1},
         std::unexpected("it takes too long, and is still failed")},
        {"StartUnit", "inactive", Job::stop, Seconds{10}, std::unexpected("Access\\ndenied")},
        {"StopUnit", "", Job::stop, Seconds{10},
         std::unexpected("systemd does not answer: Connection reset by peer")}};

    for (const auto& row : rows) {
        const auto peer = start({row.allowed, row.state});
        const Seconds start = testing::timeNow();
        EXPECT_EQ(systemd().run(row.job, {"a.socket", "b.service"}, row.limit, ""), row.result);
        EXPECT_TRUE(!row.result || testing::timeNow() - start >= Seconds{0.1});
    }
}

TEST_F(SystemdTest, IsNotWaitedForWithoutEnd) {
    const auto expectTimeOut = [this] {
        const Seconds start = testing::timeNow();
        EXPECT_EQ(systemd(Seconds{0.3}).units(identity).error(),
                  "systemd does not answer: Connection timed out");
        EXPECT_GE(testing::timeNow() - start, Seconds{0.3});
        EXPECT_LT(testing::timeNow() - start, Seconds{5});
    };
    // Which takes no connection, then one that it does not answer, then some calls of.
    expectTimeOut();
    const testing::TestProcess mute([this] {
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        pause();
    });
    expectTimeOut();
}

}  // namespace
}  // namespace halvo::control
