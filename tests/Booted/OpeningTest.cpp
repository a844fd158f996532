// How the app is held open in real sessions.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Booted/BootedMachine.hpp"
#include "tests/Support/FakeHelper.hpp"

namespace halvo::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

// Six seconds of silence, at most fifteen since the last opening, a tick, and a busy machine.
constexpr Seconds openingLimit{60};
// Clear of any opening that would come.
constexpr Seconds wellAfter{14};

struct Opening : ::testing::Test {
    Opening() { machine.install(); }

    // The app is gone when this returns.
    void quit(pid_t app) const {
        kill(app, SIGKILL);
        ASSERT_TRUE(eventually(Seconds{10}, [&] { return !isAlive(app); }));
    }

    [[nodiscard]] pid_t app() const { return machine.waitFor(Place::appExecutable, openingLimit); }

    [[nodiscard]] bool staysClosed(Seconds span) const {
        return always(span, [&] { return machine.running(Place::appExecutable).empty(); });
    }

    // The helper takes it for its app: it hears from it, and so does not open another.
    [[nodiscard]] bool isServed(pid_t process) const {
        const int before = machine.count(opening);
        return always(wellAfter, [&] { return isAlive(process); }) &&
               machine.count(opening) == before && machine.count("Refused a caller*") == 0 &&
               machine.running(Place::appExecutable) == std::vector<pid_t>{process};
    }

    BootedMachine machine;
};

// In the place of the person's own systemd manager: replies to a ping, and to nothing else; or also
// says that a job to start the unit is under way, and no more of it.
class EmptyManager {
  public:
    // In place of whatever is there.
    EmptyManager(const BootedMachine& machine, uid_t owner, bool acceptsStarts) {
        const std::string path =
            machine.path("/run/user/" + std::to_string(owner) + "/systemd/private");
        // Of /proc/PID/root/run.
        const std::string processes = path.substr(0, path.find("/root/")) + "/ns/pid";
        const auto address = socketAddress(path).value();
        unlink(path.c_str());
        const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listener.get(), generic(address), sizeof address), 0);
        EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
        process_.emplace(Start{.body = [&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // systemd-run(1) wants to know which process listens, and of one that is not in the
            // machine the kernel does not tell.
            const Descriptor inside(open(processes.c_str(), O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(setns(inside.get(), CLONE_NEWPID), 0);
            TestProcess manager({.body = [&] {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                listen(listener.get(), 16);
                sd_event* loop = nullptr;
                sd_event_default(&loop);
                sd_event_add_io(loop, nullptr, listener.get(), EPOLLIN, serve,
                                acceptsStarts ? &acceptsStarts : nullptr);
                return sd_event_loop(loop);
            }});
            return manager.wait(Seconds{3600});
        }});
    }

  private:
    static int serve(sd_event_source* source, int listener, std::uint32_t, void* acceptsStarts) {
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        sd_bus* bus = newServerBus(connection);
        // sd-bus itself replies to what is not swallowed here.
        const auto swallow = [](sd_bus_message* message, void* accepts, sd_bus_error*) {
            if (accepts != nullptr &&
                sd_bus_message_is_method_call(message, "org.freedesktop.systemd1.Manager",
                                              "StartTransientUnit") > 0) {
                return sd_bus_reply_method_return(message, "o", "/org/freedesktop/systemd1/job/1");
            }
            return sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Peer", "Ping") > 0
                       ? 0
                       : 1;
        };
        sd_bus_add_filter(bus, nullptr, swallow, acceptsStarts);
        sd_bus_start(bus);
        return sd_bus_attach_event(bus, sd_event_source_get_event(source), 0);
    }

    std::optional<TestProcess> process_;
};

// What a person can do to keep their own manager from starting the app.
struct OpeningDespite : Opening {
    OpeningDespite() { machine.commit(session); }

    // In the folder of the person's own units.
    void configure(const std::string& commands) const {
        const ChildResult answer = machine.runIn(
            session, {"sh", "-ec",
                      "mkdir -p ~/.config/systemd/user && cd ~/.config/systemd/user\n" + commands +
                          "\nsystemctl --user daemon-reload"});
        EXPECT_EQ(answer.status, 0) << answer.output;
    }

    // As a drop-in for the unit that the app is opened in.
    void configureUnit(const std::string& settings) const {
        const std::string folder = "app-halvo-" + Place::appID + "@.service.d";
        configure("mkdir " + folder + "\nprintf '[Service]\\n" + settings + "' >" + folder +
                  "/own.conf");
    }

    void expectItBack() const {
        quit(app());
        pid_t opened = -1;
        EXPECT_TRUE(eventually(backLimit, [&] {
            for (const pid_t process : machine.running(Place::appExecutable)) {
                const bool isDirect =
                    controlGroup(process).starts_with("/system.slice/halvo-open-");
                opened = isDirect ? process : opened;
            }
            return opened > 0;
        })) << "the app is not opened without the person's manager";
        EXPECT_TRUE(always(Seconds{10}, [&] { return isAlive(opened); }));
        EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
        // Limits of its own, in place of those of the person's slice.
        const std::string unit = controlGroup(opened).substr(std::string("/system.slice/").size());
        EXPECT_EQ(machine.property(unit, "TasksMax"), "4096");
        EXPECT_NE(machine.property(unit, "MemoryMax"), "infinity");
        EXPECT_EQ(machine.running(Place::appExecutable), std::vector<pid_t>{opened});
    }

    // Six seconds of silence, a try that brings nothing, fifteen seconds, one that does.
    static constexpr Seconds backLimit{45};
    const std::string session = machine.logIn("alice");
};

TEST_F(Opening, IsDoneByThePersonsOwnManagerInTheSession) {
    const std::string session = machine.logIn("alice");
    machine.commit(session);
    EXPECT_EQ(
        machine
            .runIn(session, {"systemctl", "--user", "set-environment", "WAYLAND_DISPLAY=wayland-7"})
            .status,
        0);
    quit(app());
    const pid_t opened = app();
    EXPECT_THAT(processWords(opened),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(processWords(opened, "environ"), Contains("WAYLAND_DISPLAY=wayland-7"));
    EXPECT_THAT(processWords(opened, "environ"), Contains("XDG_RUNTIME_DIR=/run/user/1000"));
    EXPECT_THAT(controlGroup(opened),
                StartsWith("/user.slice/user-1000.slice/user@1000.service/app.slice/app-halvo-" +
                           Place::appID + "@"));
    EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
    EXPECT_TRUE(isServed(opened));
    EXPECT_EQ(machine.failedUnits(), "");
}

TEST_F(Opening, IsDoneOutsideTheHelpersSandboxWithoutTheManagerOfThePerson) {
    const std::string session = machine.logIn("alice");
    machine.commit(session);
    machine.sh("systemctl mask --runtime --now user@1000.service");
    quit(app());
    const pid_t opened = app();
    EXPECT_THAT(processWords(opened),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(controlGroup(opened), StartsWith("/system.slice/halvo-open-"));
    EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
    const pid_t helper = machine.waitFor(Place::helper, Seconds{5});
    // What it is allowed is what any program of the person is; the machine itself takes some away.
    const pid_t ordinary = machine.running("/usr/bin/sleep").front();
    for (const std::string field : {"NoNewPrivs", "Seccomp_filters", "CapEff", "CapBnd"}) {
        EXPECT_EQ(processField(opened, field), processField(ordinary, field)) << field;
        EXPECT_NE(processField(opened, field), processField(helper, field)) << field;
    }
    for (const std::string kind : {"net", "mnt", "ipc", "pid", "user"}) {
        EXPECT_EQ(processNamespace(opened, kind), processNamespace(ordinary, kind)) << kind;
    }
    EXPECT_NE(processNamespace(opened, "net"), processNamespace(helper, "net"));
    EXPECT_TRUE(isServed(opened));
    // It outlives the helper that had it opened.
    machine.must({"systemctl", "restart", Unit::service});
    EXPECT_TRUE(isServed(opened));
}

// systemd-run(1) and systemd have their own meanings for some of these characters.
TEST_F(Opening, FindsTheAppAtAnOddPath) {
    const std::string odd = "/Applications/Foc$us %n ${x}.app";
    const std::string executable = odd + "/Contents/MacOS/Halvo";
    machine.must({"cp", "--archive", Place::app, odd});
    const std::string session = machine.logIn("alice");
    machine.startIn(session, {executable, "25"});
    ASSERT_TRUE(machine.says("Holding Ultra Hard mode*"));
    quit(machine.waitFor(executable, openingLimit));
    const pid_t opened = machine.waitFor(executable, openingLimit);
    EXPECT_THAT(controlGroup(opened), HasSubstr("/user@1000.service/"));
    machine.sh("systemctl mask --runtime --now user@1000.service");
    ASSERT_TRUE(eventually(Seconds{10}, [&] { return !isAlive(opened); }));
    EXPECT_THAT(controlGroup(machine.waitFor(executable, openingLimit)),
                StartsWith("/system.slice/halvo-open-"));
}

TEST_F(Opening, WaitsUntilThePersonLogsInAgain) {
    const std::string session = machine.logIn("alice");
    machine.commit(session);
    machine.logOut(session);
    ASSERT_TRUE(eventually(Seconds{60}, [&] {
        return machine.running(Place::appExecutable).empty() &&
               machine.activeState("user@1000.service") == "inactive";
    }));
    const int before = machine.count(opening);
    EXPECT_TRUE(staysClosed(wellAfter));
    EXPECT_EQ(machine.count(opening), before);
    EXPECT_TRUE(machine.isLocked());
    const std::string again = machine.logIn("alice");
    const pid_t opened = app();
    EXPECT_THAT(controlGroup(opened), HasSubstr("/user@1000.service/"));
    EXPECT_THAT(processWords(opened), ElementsAre(Place::appExecutable));
}

TEST_F(Opening, IsForThePersonAtTheScreenOnly) {
    const std::string alice = machine.logIn("alice");
    machine.commit(alice);
    const std::string bob = machine.logIn("bob");
    quit(app());
    EXPECT_TRUE(staysClosed(wellAfter));
    // Whom nothing holds.
    EXPECT_THAT(machine.runIn(bob, {Place::appExecutable}).output, HasSubstr("Nothing holds"));
    // The login screen is nobody.
    const std::string greeter = machine.showLoginScreen();
    EXPECT_TRUE(staysClosed(wellAfter));
    EXPECT_EQ(machine.count(opening), 0);
    EXPECT_TRUE(machine.isLocked());
    machine.activate(alice);
    const pid_t opened = app();
    EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
    EXPECT_EQ(machine.count(opening), 1);
}

TEST_F(Opening, IsCountedOfAnAppThatDoesNotStayAndItsMessagesAreWhereTheLogSays) {
    const std::string session = machine.logIn("alice");
    machine.commit(session);
    const pid_t first = app();
    machine.sh("cp --remove-destination /usr/bin/echo " + Place::appExecutable);
    quit(first);
    const std::string line =
        "Opened Halvo 2 times in a row, and it didn't stay; its own messages: ";
    ASSERT_TRUE(machine.says(line + "*", openingLimit));
    std::string command;
    for (Entry& entry : machine.journal({"SUBSYSTEM=app.halvo"})) {
        const std::string& message = entry["MESSAGE"];
        command = message.starts_with(line) ? message.substr(line.size()) : command;
    }
    // Once from the person's manager, once from the machine's.
    EXPECT_GE(std::stoi(machine.sh(command + " --output=cat | grep --count --line-regexp --regexp="
                                             "'-halvoRelaunchedAfterQuit YES'")),
              2)
        << machine.sh(command);
}

TEST_F(OpeningDespite, ADropInThatRunsSomethingElse) {
    configureUnit("ExecStart=\\nExecStart=/bin/true\\n");
    expectItBack();
}

TEST_F(OpeningDespite, ALimitThatLeavesTheAppNoMemory) {
    configureUnit("LimitAS=1M\\n");
    expectItBack();
}

TEST_F(OpeningDespite, AMaskedSlice) {
    configure("ln -s /dev/null app.slice\nsystemctl --user stop app.slice");
    expectItBack();
}

TEST_F(OpeningDespite, AManagerThatOnlyAnswersPings) {
    const EmptyManager manager(machine, BootedMachine::alice, false);
    expectItBack();
}

TEST_F(OpeningDespite, AManagerThatAcceptsTheStartAndForgetsIt) {
    const EmptyManager manager(machine, BootedMachine::alice, true);
    expectItBack();
    EXPECT_TRUE(eventually(Seconds{45}, [&] {
        return machine.running("/usr/bin/systemd-run").empty();
    })) << "what asked the manager waits for ever";
}

TEST_F(OpeningDespite, ASessionThatIsKeptClosing) {
    machine.startIn(session, {"sleep", "infinity"});
    machine.sh("kill -KILL $(loginctl show-session --value --property=Leader " + session + ")");
    ASSERT_TRUE(eventually(Seconds{20}, [&] {
        return machine.sh("loginctl show-session --value --property=State " + session) ==
               "closing\n";
    }));
    const Seconds closedAt = timeNow();
    quit(app());
    EXPECT_TRUE(staysClosed(Seconds{84} - (timeNow() - closedAt)));
    const pid_t opened = machine.waitFor(Place::appExecutable, Seconds{6} + backLimit);
    EXPECT_TRUE(always(Seconds{10}, [&] { return isAlive(opened); }));
    EXPECT_EQ(machine.sh("loginctl show-session --value --property=State " + session), "closing\n");
}

TEST_F(Opening, WaitsNinetySecondsForASessionThatWasToEnd) {
    const std::string session = machine.logIn("alice");
    machine.commit(session);
    // To the app the session ends when the machine is about to go down, which somebody delays.
    machine.sh(
        "mkdir -p /run/systemd/logind.conf.d && printf '[Login]\\nInhibitDelayMaxSec=600\\n' "
        ">/run/systemd/logind.conf.d/delay.conf && systemctl restart systemd-logind && "
        "systemd-run --quiet --unit=delay systemd-inhibit --what=shutdown --mode=delay "
        "sleep infinity");
    ASSERT_TRUE(eventually(Seconds{20}, [&] {
        return machine.sh("systemd-inhibit --list --no-legend").find("delay") != std::string::npos;
    }));
    machine.sh(
        "busctl call org.freedesktop.login1 /org/freedesktop/login1 "
        "org.freedesktop.login1.Manager PowerOff b false");
    const pid_t first = app();
    kill(first, SIGTERM);
    const Seconds quitAt = timeNow();
    ASSERT_TRUE(eventually(Seconds{10}, [&] { return !isAlive(first); }));
    EXPECT_TRUE(staysClosed(Seconds{86}));
    const pid_t opened = app();
    EXPECT_GE(timeNow() - quitAt, Seconds{89});
    EXPECT_THAT(processWords(opened),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
}

}  // namespace
}  // namespace halvo::testing
