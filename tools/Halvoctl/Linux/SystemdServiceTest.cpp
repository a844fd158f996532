#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
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

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using Texts = std::map<std::string, std::string>;

const std::string helper = "com.example.app.helper";
const std::string socketName = helper + ".socket";
const std::string serviceName = helper + ".service";

// systemd as a D-Bus peer. Prints each connection and each job.
struct Peer {
    // By "INTERFACE.PROPERTY", for all units; or by "UNIT INTERFACE.PROPERTY", with the unit's name
    // after that of the helper.
    Texts texts{{"Unit.LoadState", "loaded"},       {"Unit.ActiveState", "active"},
                {"Unit.UnitFileState", "enabled"},  {"Unit.SubState", "running"},
                {"Socket.Result", "success"},       {"Service.Result", "success"},
                {"Service.ProtectSystem", "strict"}};
    // "refuses": an error for jobs; "hangs up": disconnects at a job; "stuck": jobs do not finish;
    // "odd": a property of another type; "mute": an error without a message.
    std::string flaw{};
    // A broker requires Hello first.
    bool isBroker = false;
    bool isGreeted = false;
    // How many reads of ActiveState a job still takes.
    int readsLeft = 0;
};

int startJob(Peer& peer, sd_bus_message* call, const std::string& unit) {
    const std::string method = sd_bus_message_get_member(call);
    dprintf(STDOUT_FILENO, "%s %s\n", method.c_str(), unit.c_str());
    if (peer.flaw == "hangs up") {
        return shutdown(sd_bus_get_fd(sd_bus_message_get_bus(call)), SHUT_RDWR) + 1;
    }
    if (peer.flaw == "refuses") {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Access\ndenied");
    }
    peer.readsLeft = peer.flaw == "stuck" ? 1'000'000 : 3;
    peer.texts[unit + " Unit.ActiveState"] = method == "StopUnit" ? "inactive" : "active";
    return sd_bus_reply_method_return(call, "o", "/job/7");
}

int getProperty(Peer& peer, sd_bus_message* call, const std::string& property) {
    if (property.ends_with("SubState") && peer.flaw == "odd") {
        return sd_bus_reply_method_return(call, "v", "b", 1);
    }
    if (property.ends_with("SubState") && peer.flaw == "mute") {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, nullptr);
    }
    if (property == ".service Service.ReadWritePaths") {
        return sd_bus_reply_method_return(call, "v", "as", 4, "/Applications",
                                          "/Library/Application Support", "-/srv/B C",
                                          "-+/srv/MyApplications");
    }
    const auto own = peer.texts.find(property);
    const std::string& text =
        own != peer.texts.end() ? own->second : peer.texts[property.substr(property.find(' ') + 1)];
    const bool isChanging = property.ends_with("ActiveState") && peer.readsLeft-- > 0;
    return sd_bus_reply_method_return(call, "v", "s", isChanging ? "changing" : text.c_str());
}

int answer(sd_bus_message* call, void* data, sd_bus_error*) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    auto& peer = *static_cast<Peer*>(data);
    const char* first = "";
    const char* second = "";
    sd_bus_message_read(call, "ss", &first, &second);
    const std::string method = sd_bus_message_get_member(call);
    const bool isJob = second == std::string("replace");
    if (method == "Hello" && !std::exchange(peer.isGreeted, true)) {
        return sd_bus_reply_method_return(call, "s", ":1.7");
    }
    if (!peer.isGreeted || (method != "Get" && !isJob)) {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "What?");
    }
    if (isJob) {
        return startJob(peer, call, std::string(first).substr(helper.size()));
    }
    char* unit = nullptr;
    sd_bus_path_decode(sd_bus_message_get_path(call), "/org/freedesktop/systemd1/unit", &unit);
    const std::string interface =
        std::string(first).substr(std::string("org.freedesktop.systemd1.").size());
    const std::string property =
        std::string(unit).substr(helper.size()) + " " + interface + "." + second;
    std::free(unit);
    return getProperty(peer, call, property);
}

class SystemdServiceTest : public ::testing::Test {
  protected:
    SystemdServiceTest() {
        const sockaddr_un address = *socketAddress(path);
        bind(listener.get(), generic(address), sizeof address);
        listen(listener.get(), 1);
        fake.machine.helper = "/libexec/HalvoHelper";
    }

    // Serves one connection after another.
    [[nodiscard]] testing::TestProcess start(Peer peer) const {
        return testing::TestProcess([&] {
            while (true) {
                const int client = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
                dprintf(STDOUT_FILENO, "connected\n");
                peer.isGreeted = !peer.isBroker;
                sd_bus* bus = testing::newServerBus(client);
                sd_bus_add_filter(bus, nullptr, answer, &peer);
                sd_bus_start(bus);
                while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) {
                }
                sd_bus_unref(bus);
            }
        });
    }

    [[nodiscard]] testing::TestProcess start(const Texts& changes) const {
        Peer peer;
        for (const auto& [property, text] : changes) {
            peer.texts[property] = text;
        }
        return start(peer);
    }

    std::unique_ptr<Service> service(bool isBroker = false, Seconds limit = Seconds{10}) {
        return systemdService(fake.machine, BusAddress{path, isBroker}, limit);
    }

    std::unique_ptr<Service> bare() { return systemdService(fake.machine, std::nullopt); }

    FakeMachine fake;
    std::vector<pid_t>& processes = fake.processes.processes;
    const std::string path = fake.disk / "bus";
    Descriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST_F(SystemdServiceTest, StopsLoadedUnitsAndStartsTheSocketAgain) {
    const std::string asked = "connected\n";
    const std::string stopsService = "connected\nStopUnit .service\n";
    const std::string stopsBoth = "connected\nStopUnit .socket\nStopUnit .service\n";
    const std::string starts = "connected\nStartUnit .socket\n";
    const std::string notCalled = "The app cannot call the helper";
    const Texts noSocket{{".socket Unit.LoadState", "not-found"},
                         {".socket Unit.ActiveState", "inactive"}};
    Texts nothing = noSocket;
    nothing.insert({{".service Unit.LoadState", "not-found"}, {".service Unit.ActiveState", ""}});

    struct {
        Texts changes;
        std::string calls;
        std::string resumed;
    } const rows[] = {
        {{}, asked + stopsBoth + starts, ""},
        {{{".socket Unit.ActiveState", "inactive"}},
         asked + stopsBoth,
         notCalled + ": " + socketName +
             " was already stopped, and stays stopped. To start it: systemctl start " + socketName},
        {{{".service Unit.ActiveState", "failed"}}, asked + stopsBoth + starts, ""},
        {noSocket, asked + stopsService, ""},
        {nothing, asked, ""},
        {{{".socket Unit.LoadState", "masked"},
          {".service Unit.LoadState", "not-found"},
          {".service Unit.ActiveState", "deactivating"}},
         asked + stopsBoth,
         notCalled + " any more: " + socketName + " is masked, and was stopped."}};

    for (const auto& row : rows) {
        const auto peer = start(row.changes);
        processes = {7};
        const auto systemd = service();
        EXPECT_TRUE(systemd->stop());
        EXPECT_TRUE(processes.empty()) << "helpers started by hand are stopped too";
        EXPECT_EQ(systemd->resume(), row.resumed);
        EXPECT_EQ(peer.output(), row.calls);
    }
    processes = {8};
    EXPECT_TRUE(bare()->stop());
    EXPECT_EQ(bare()->resume(), "");
    EXPECT_TRUE(processes.empty());
}

TEST_F(SystemdServiceTest, ReportsFailedJobs) {
    for (const auto& [flaw, problem] :
         {std::pair{"refuses", "Access\\ndenied"},
          std::pair{"hangs up", "systemd does not answer: Connection reset by peer"},
          std::pair{"stuck", "it takes too long, and is still changing"}}) {
        const auto peer = start(Peer{.flaw = flaw});
        processes = {7};
        const auto systemd = service();
        EXPECT_EQ(
            systemd->stop().error(),
            std::string("systemd did not stop the helper: ") + problem +
                ". Look into systemctl status com.example.app.helper.service, and try again.");
        EXPECT_EQ(systemd->resume().error(),
                  std::string("The helper's socket could not be started again: ") + problem +
                      ". Start it: systemctl start com.example.app.helper.socket");
    }
    EXPECT_THAT(fake.waiter.said,
                ElementsAre("Waiting for systemd to stop the helper, at most 30 seconds.",
                            "Waiting for systemd to start the helper's socket, at most 10 "
                            "seconds."));
    // With 10 for reading the units and 10 for the processes at most a minute.
    EXPECT_NEAR((fake.waiter.time - Seconds{1000}).count(), 39.6, 0.5);
}

TEST_F(SystemdServiceTest, ReportsThatSystemdDoesNotAnswer) {
    const std::string unknown = "nothing is known of what starts it: ";
    const std::string mute = "systemd does not answer: ";
    const auto expectTimeOut = [&] {
        const Seconds start = testing::timeNow();
        EXPECT_EQ(service(false, Seconds{0.3})->whatStarts(),
                  unknown + mute + "Connection timed out");
        EXPECT_GE(testing::timeNow() - start, Seconds{0.3});
        EXPECT_LT(testing::timeNow() - start, Seconds{5});
    };
    EXPECT_EQ(systemdService(fake.machine, BusAddress{"/nowhere/bus", true})->whatStarts(),
              unknown + mute + "No such file or directory");
    for (const auto& [flaw, problem] :
         {std::pair{"odd", mute + "No such device or address"},
          std::pair<const char*, std::string>{"mute", "org.freedesktop.DBus.Error.AccessDenied"}}) {
        const auto peer = start(Peer{.flaw = flaw});
        EXPECT_EQ(service()->whatStarts(), unknown + problem);
    }
    {
        const auto peer = start(Peer{.flaw = "mute", .isBroker = true});
        const auto systemd = service();
        processes = {7};
        EXPECT_EQ(systemd->stop(), std::unexpected("What?. Try again when systemd answers."));
        EXPECT_EQ(systemd->resume(), "");
        EXPECT_TRUE(fake.processes.terminated.empty());
        EXPECT_EQ(peer.output(), "connected\n");
    }
    // First the connection is not accepted, then nothing is answered.
    expectTimeOut();
    const testing::TestProcess silent([this] {
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        pause();
    });
    expectTimeOut();
}

TEST_F(SystemdServiceTest, DescribesWhatStartsTheHelper) {
    struct {
        Texts changes;
        std::string starts;
    } const rows[] = {
        {{}, "it starts when the app calls, and at boot while a commitment is stored"},
        {{{"-resume.service Unit.UnitFileState", "disabled"}}, "it starts when the app calls"},
        {{{".socket Unit.ActiveState", "inactive"}},
         "nothing starts it, since " + socketName + " is not active: systemctl enable --now " +
             socketName},
        {{{".socket Unit.ActiveState", "inactive"},
          {".service Unit.SubState", "auto-restart-queued"},
          {".service Service.Result", "exit-code"}},
         "it starts again in a moment, since it ended (exit-code); if it stays so: journalctl "
         "--unit=com.example.app.helper.service"}};

    for (const auto& row : rows) {
        const auto peer = start(row.changes);
        EXPECT_EQ(service()->whatStarts(), row.starts);
    }
    EXPECT_EQ(bare()->whatStarts(),
              "nothing starts it, since systemd does not run here; start it by hand: "
              "/libexec/HalvoHelper");
    EXPECT_EQ(service()->startCommand, "systemctl start " + serviceName);
    EXPECT_EQ(bare()->startCommand, "/libexec/HalvoHelper");
    EXPECT_EQ(service()->restartCommand, "systemctl restart " + serviceName);
    EXPECT_EQ(bare()->restartCommand, "");
}

TEST_F(SystemdServiceTest, ChecksEachUnit) {
    const std::string resume = "-resume.service";

    // In the advice, "@" stands for the unit's name.
    struct {
        std::string unit;
        Texts changes;
        std::string finding;
        std::string advice;
    } const rows[] = {
        {".socket", {{"LoadState", "masked"}}, "is masked", "systemctl unmask @"},
        {resume,
         {{"LoadState", "not-found"}},
         "is not-found",
         "Install the helper's package again."},
        {".socket", {{"UnitFileState", "disabled"}}, "is not enabled", "systemctl enable @"},
        {resume, {{"UnitFileState", "disabled"}}, "is not enabled", "systemctl enable @"},
        {".socket", {{"ActiveState", "inactive"}}, "is not active", "systemctl start @"},
        {".socket", {{"ActiveState", "activating"}}, "is enabled, activating", ""},
        {resume, {{"ActiveState", "inactive"}}, "is enabled, inactive", ""},
        {".service", {{"ActiveState", "inactive"}}, "is enabled, inactive", ""},
        {".service", {{"UnitFileState", ""}}, "is active", ""},
        {".service",
         {{"ActiveState", "failed"}},
         "has failed: success",
         "Look into systemctl status @, fix what it names, then: systemctl reset-failed @"},
        {".service",
         {{"ActiveState", "activating"}, {"SubState", "auto-restart"}},
         "ended, and systemd starts it again: success",
         "Look again. If it stays so, the journal says why: journalctl --unit=@"}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.unit + " " + row.finding);
        const std::string name = helper + row.unit;
        std::string advice = row.advice;
        for (std::size_t at = 0; (at = advice.find('@')) != std::string::npos;) {
            advice.replace(at, 1, name);
        }
        Texts changes;
        for (const auto& [property, text] : row.changes) {
            changes[row.unit + " Unit." + property] = text;
        }
        const auto peer = start(changes);
        const Checks checks = service()->examine();
        for (const std::string unit : {".socket", ".service", "-resume.service"}) {
            const Check ok = isOk("systemd", helper + unit + " is enabled, active");
            const Check changed{"systemd", advice.empty() ? Verdict::ok : Verdict::problem,
                                name + " " + row.finding, advice};
            EXPECT_THAT(checks, Contains(unit == row.unit ? changed : ok));
        }
    }
}

TEST_F(SystemdServiceTest, ChecksWithAndWithoutAnswersOfSystemd) {
    const std::string app = "/srv/B C/Applications/Halvo.app";
    const auto hasSandbox = Contains(Field(&Check::name, "sandbox"));
    {
        const auto peer = start(Peer{.isBroker = true});
        const auto systemd = service(true);
        EXPECT_THAT(
            systemd->examineApp(app),
            Contains(isOk("sandbox", "the helper can lock what lies in /srv/B C/Applications")));
        EXPECT_THAT(systemd->examineApp("/srv/Halvo.app"), Not(hasSandbox));
        EXPECT_THAT(systemd->otherApplications(),
                    ElementsAre("/Applications", "/Library/Application Support/Applications",
                                "/srv/B C/Applications", "/srv/MyApplications/Applications"));
        EXPECT_EQ(peer.output(), "connected\n") << "one connection";
    }
    const auto homes = bare()->otherApplications();
    EXPECT_THAT(homes, Contains("/root/Applications"));
    {
        const auto peer = start(Texts{{".service Service.ProtectSystem", "full"}});
        EXPECT_EQ(service()->otherApplications(), homes);
    }
    const auto mute = systemdService(fake.machine, BusAddress{"/nowhere/bus", false});
    const std::string finding = "systemd does not answer: No such file or directory";
    const std::string advice = "Look whether systemctl works at all.";
    EXPECT_THAT(mute->examine(), Contains(isProblem("systemd", finding, advice)));
    EXPECT_THAT(mute->examineApp(app), Contains(isProblem("sandbox", finding, advice)));
    EXPECT_EQ(mute->otherApplications(), homes);

    EXPECT_THAT(bare()->examine(), Contains(isNotApplicable("systemd",
                                                            "does not run here; start the helper "
                                                            "by hand: /libexec/HalvoHelper")));
    const std::string socket = "/run/com.example.app.helper.sock";
    EXPECT_THAT(bare()->examine(), Contains(isNotApplicable(
                                       "socket", "the helper makes " + socket + " when it runs")));
    processes = {7};
    EXPECT_THAT(bare()->examine(), Contains(isProblem("socket", "there is none at " + socket,
                                                      "Stop the helper and start it again.")));
    EXPECT_THAT(bare()->examineApp(app), Not(hasSandbox));
    EXPECT_EQ(bare()->releaseLock, "/run/com.example.app.helper.release.lock");
}

TEST_F(SystemdServiceTest, ChecksTheHelperHalvoctlAndTheInfoPlist) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make a folder that only root can change";
    }
    const std::string folder = "/run/halvo-service-test-" + std::to_string(getpid());
    fs::create_directory(folder);
    fake.machine.helper = folder + "/HalvoHelper";
    for (const char* name : {"/HalvoHelper", "/halvoctl", "/Info.plist"}) {
        EXPECT_EQ(bare()->examine().front(),
                  isProblem("helper files", folder + name + ": No such file or directory",
                            "A user who can change the helper can become root. Install it again, "
                            "in folders that only root can write to."));
        testing::writeTestFile(folder + name, "");
        fs::permissions(folder + name, fs::perms{0644});
    }
    EXPECT_EQ(bare()->examine().front(), isOk("helper files", "root's alone, in " + folder));
    fs::remove_all(folder);
}

}  // namespace
}  // namespace halvo::control
