// How the helper opens the app in real sessions.

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

// 6 s of silence, up to 15 s since the last opening, a tick, and a busy machine.
constexpr Seconds openingLimit{60};
// By then a silent app would have been opened again.
constexpr Seconds wellAfter{10};

struct Opening : ::testing::Test {
    Opening() { machine.install(); }

    // Kills the app and waits for its end.
    void quit(pid_t app) const {
        kill(app, SIGKILL);
        ASSERT_TRUE(eventually(Seconds{10}, [&] { return !isAlive(app); }));
    }

    [[nodiscard]] pid_t app() const { return machine.waitFor(Place::appExecutable, openingLimit); }

    [[nodiscard]] bool staysClosed(Seconds span) const {
        return always(span, [&] { return machine.running(Place::appExecutable).empty(); });
    }

    // It runs, is the only one, and the helper has admitted it.
    void expectServed(pid_t process) const {
        EXPECT_TRUE(machine.serves(process));
        EXPECT_EQ(machine.count("Refused a caller*"), 0);
        EXPECT_EQ(machine.running(Place::appExecutable), std::vector<pid_t>{process});
    }

    BootedMachine machine;
};

// Replaces a user's systemd manager: replies to Ping only, or also to StartTransientUnit with a job
// that never runs.
class EmptyManager {
  public:
    // Replaces the manager's private socket.
    EmptyManager(const BootedMachine& machine, uid_t owner, bool acceptsStarts) {
        const std::string path =
            machine.path("/run/user/" + std::to_string(owner) + "/systemd/private");
        // The path is /proc/PID/root/run/...
        const std::string processes = path.substr(0, path.find("/root/")) + "/ns/pid";
        const auto address = socketAddress(path).value();
        unlink(path.c_str());
        const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listener.get(), generic(address), sizeof address), 0);
        EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
        process_.emplace(ProcessOptions{.body = [&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // systemd-run(1) reads SO_PEERCRED, which has no pid for a process outside the
            // machine's pid namespace.
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
        // sd-bus replies by itself to what is not swallowed here.
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

// What a user can do to keep the user manager from starting the app.
struct OpeningDespite : Opening {
    // Runs `commands` in the folder of the user's units.
    void configure(const std::string& commands) const {
        const ChildResult answer = machine.runIn(
            session, {"sh", "-ec",
                      "mkdir -p ~/.config/systemd/user && cd ~/.config/systemd/user\n" + commands +
                          "\nsystemctl --user daemon-reload"});
        EXPECT_EQ(answer.status, 0) << answer.output;
    }

    // Adds a drop-in for the unit in which the app is opened.
    void configureUnit(const std::string& settings) const {
        const std::string folder = "app-halvo-" + Place::appID + "@.service.d";
        configure("mkdir " + folder + "\nprintf '[Service]\\n" + settings + "' >" + folder +
                  "/own.conf");
    }

    void expectDirectOpening() const {
        quit(app());
        pid_t opened = -1;
        EXPECT_TRUE(eventually(directLimit, [&] {
            for (const pid_t process : machine.running(Place::appExecutable)) {
                const bool isDirect =
                    controlGroup(process).starts_with("/system.slice/halvo-open-");
                opened = isDirect ? process : opened;
            }
            return opened > 0;
        })) << "the app is not opened without the user manager";
        expectServed(opened);
        EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
        // The unit's own limits, in place of those of the user's slice.
        const std::string unit = controlGroup(opened).substr(std::string("/system.slice/").size());
        EXPECT_EQ(machine.property(unit, "TasksMax"), "4096");
        EXPECT_NE(machine.property(unit, "MemoryMax"), "infinity");
    }

    // 6 s of silence, an opening in vain, 15 s, a direct opening, and a busy machine.
    static constexpr Seconds directLimit{45};
    const std::string session = machine.logInAndCommit();
};

TEST_F(Opening, IsDoneByTheUserManagerInTheSession) {
    const std::string session = machine.logInAndCommit();
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
    expectServed(opened);
    EXPECT_EQ(machine.failedUnits(), "");
}

TEST_F(Opening, IsDoneOutsideTheSandboxWithoutAUserManager) {
    machine.logInAndCommit();
    machine.sh("systemctl mask --runtime --now user@1000.service");
    quit(app());
    const pid_t opened = app();
    EXPECT_THAT(processWords(opened),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(controlGroup(opened), StartsWith("/system.slice/halvo-open-"));
    EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
    const pid_t helper = machine.waitFor(Place::helper, Seconds{5});
    // It has the privileges of any program of the user, less what the machine itself takes away.
    const pid_t ordinary = machine.running("/usr/bin/sleep").front();
    for (const std::string field : {"NoNewPrivs", "Seccomp_filters", "CapEff", "CapBnd"}) {
        EXPECT_EQ(processField(opened, field), processField(ordinary, field)) << field;
        EXPECT_NE(processField(opened, field), processField(helper, field)) << field;
    }
    for (const std::string kind : {"net", "mnt", "ipc", "pid", "user"}) {
        EXPECT_EQ(processNamespace(opened, kind), processNamespace(ordinary, kind)) << kind;
    }
    EXPECT_NE(processNamespace(opened, "net"), processNamespace(helper, "net"));
    expectServed(opened);
    // It outlives the helper that opened it, and the next one admits it: its heartbeats, every 2 s,
    // are not refused.
    machine.must({"systemctl", "restart", Unit::service});
    EXPECT_TRUE(always(Seconds{5}, [&] { return isAlive(opened); }));
    EXPECT_EQ(machine.count("Refused a caller*"), 0);
}

// systemd-run(1) and systemd expand some of these characters.
TEST_F(Opening, TakesAPathWithSpecialCharactersLiterally) {
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

TEST_F(Opening, WaitsForTheNextLogin) {
    const std::string session = machine.logInAndCommit();
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

TEST_F(Opening, IsForTheActiveSessionOnly) {
    const std::string alice = machine.logInAndCommit();
    const std::string bob = machine.logIn("bob");
    quit(app());
    EXPECT_TRUE(staysClosed(wellAfter));
    // The other user has no commitment.
    EXPECT_THAT(machine.runIn(bob, {Place::appExecutable}).output, HasSubstr("Nothing holds"));
    // A greeter's session is no user's.
    const std::string greeter = machine.showLoginScreen();
    EXPECT_TRUE(staysClosed(wellAfter));
    EXPECT_EQ(machine.count(opening), 0);
    EXPECT_TRUE(machine.isLocked());
    machine.activate(alice);
    const pid_t opened = app();
    EXPECT_EQ(processField(opened, "Uid"), "1000\t1000\t1000\t1000");
    EXPECT_EQ(machine.count(opening), 1);
}

TEST_F(Opening, IsCountedWhenTheAppExitsAndTheLogNamesItsMessages) {
    machine.logInAndCommit();
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
    // Once by the user manager, once by the system manager.
    EXPECT_GE(std::stoi(machine.sh(command + " --output=cat | grep --count --line-regexp --regexp="
                                             "'-halvoRelaunchedAfterQuit YES'")),
              2)
        << machine.sh(command);
}

TEST_F(OpeningDespite, ADropInThatReplacesExecStart) {
    configureUnit("ExecStart=\\nExecStart=/bin/true\\n");
    expectDirectOpening();
}

TEST_F(OpeningDespite, AMaskedSlice) {
    configure("ln -s /dev/null app.slice\nsystemctl --user stop app.slice");
    expectDirectOpening();
}

TEST_F(OpeningDespite, AManagerThatOnlyAnswersPings) {
    const EmptyManager manager(machine, BootedMachine::alice, false);
    expectDirectOpening();
}

TEST_F(OpeningDespite, AManagerThatNeverRunsTheJob) {
    const EmptyManager manager(machine, BootedMachine::alice, true);
    expectDirectOpening();
    EXPECT_TRUE(eventually(Seconds{45}, [&] {
        return machine.running("/usr/bin/systemd-run").empty();
    })) << "systemd-run waits for ever";
}

TEST_F(OpeningDespite, ASessionKeptInStateClosing) {
    machine.startIn(session, {"sleep", "infinity"});
    machine.sh("kill -KILL $(loginctl show-session --value --property=Leader " + session + ")");
    ASSERT_TRUE(eventually(Seconds{20}, [&] {
        return machine.sh("loginctl show-session --value --property=State " + session) ==
               "closing\n";
    }));
    const Seconds closedAt = timeNow();
    quit(app());
    EXPECT_TRUE(staysClosed(Seconds{84} - (timeNow() - closedAt)));
    const pid_t opened = machine.waitFor(Place::appExecutable, Seconds{6} + directLimit);
    expectServed(opened);
    EXPECT_EQ(machine.sh("loginctl show-session --value --property=State " + session), "closing\n");
}

TEST_F(Opening, WaitsNinetySecondsForAnEndingSession) {
    const std::string session = machine.logInAndCommit();
    // The app announces the end of the session when a shutdown is prepared; an inhibitor delays
    // that.
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
