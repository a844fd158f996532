// What the mode becomes on Linux, as a process. What it decides without the system:
// HalvoHelper/OpenAsUserTest.cpp.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoHelper/LiveOpener.hpp"
#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::UnorderedElementsAre;

using Words = std::vector<std::string>;

// A process that gave its privileges up cannot be looked at for leaks.
const Words helperEnvironment{"ASAN_OPTIONS=detect_leaks=0", "LEFT=over", "HOME=/root"};

// The manager's place in the folder of the user's session.
std::string managerSocket(const Credentials& user) {
    return "/run/user/" + std::to_string(user.uid) + "/systemd/private";
}

// What managers do with a caller.

[[noreturn]] void answer(const Descriptor& listener, sd_bus_message_handler_t filter) {
    while (true) {
        sd_bus* bus = newServerBus(accept(listener.get(), nullptr, nullptr));
        if (filter != nullptr) {
            sd_bus_add_filter(bus, nullptr, filter, nullptr);
        }
        sd_bus_start(bus);
        while (sd_bus_process(bus, nullptr) >= 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
        sd_bus_close_unref(bus);
    }
}

void answerTruly(const Descriptor& listener) { answer(listener, nullptr); }

class OpenAsUserPrivateMachineTest : public PrivateMachineTest {
  protected:
    void cleanUp() override {
        fs::remove_all("/Applications/Sample.app");
        fs::remove(appReport);
        fs::remove(systemdRunReport);
        fs::remove_all(fs::path(managerSocket(user)).parent_path());
    }

    [[nodiscard]] Words request(const std::string& app, const Words& more = {}) const {
        Words words{"--open-as-user", std::to_string(user.uid), app};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    // Opens the bundle as root, and returns how that ended.
    int open(const std::string& app = "/Applications/Sample.app", const Words& more = {}) {
        TestProcess process([&] {
            close_range(STDERR_FILENO + 1, ~0U, 0);
            execute(HALVO_HELPER, request(app, more), helperEnvironment);
        });
        const int status = process.wait();
        EXPECT_EQ(process.readAll(), "") << "it says nothing, whatever happens";
        return status;
    }

    // A bundle with an Info.plist.
    static TestBundle makeBundle(const std::string& executable = "Sample",
                                 const std::string& identifier = "com.exa-mple.app") {
        TestBundle bundle("/Applications/Sample.app", executable);
        bundle.writeInfo(identifier);
        return bundle;
    }

    [[nodiscard]] Words usersEnvironment() const {
        return {"HOME=/home/" + userName, "USER=" + userName, "LOGNAME=" + userName,
                "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
    }

    // Expects that the app was run by the helper itself.
    void expectDirectRun() {
        EXPECT_THAT(readReport(appReport)["argument"],
                    ElementsAre("/Applications/Sample.app/Contents/MacOS/Sample"));
        EXPECT_FALSE(fs::exists(systemdRunReport));
    }

    const std::string appReport = reportInTmp("/Sample");
    const std::string systemdRunReport = reportInTmp("/systemd-run");
};

TEST_F(OpenAsUserPrivateMachineTest, RunsTheAppAsTheUserWithTheUsersGroupsAndNoneOfRoots) {
    const std::string executable = makeBundle().executable();
    const std::string groups = readTestFile("/etc/group");
    overwriteTestFile("/etc/group", groups + "halvo-team:x:61200:" + userName + "\n");
    TestProcess process([&] {
        const gid_t inherited[]{0, 4, 61300};
        ASSERT_EQ(setgroups(std::size(inherited), inherited), 0);
        umask(077);
        execute(HALVO_HELPER, request("/Applications/Sample.app"), helperEnvironment);
    });
    EXPECT_EQ(process.wait(), 0);
    overwriteTestFile("/etc/group", groups);
    TestReport app = readReport(appReport);
    EXPECT_THAT(app["user"], AllOf(SizeIs(3), Each(std::to_string(user.uid))));
    EXPECT_THAT(app["group"], AllOf(SizeIs(3), Each(std::to_string(user.gid))));
    EXPECT_THAT(app["supplementary"], UnorderedElementsAre(std::to_string(user.gid), "61200"));
    EXPECT_THAT(app["executable"], ElementsAre(executable));
    EXPECT_EQ(app["environment"], usersEnvironment());
    EXPECT_THAT(app["umask"], ElementsAre("22"));
}

TEST_F(OpenAsUserPrivateMachineTest, RunsNothingUnlessThePrivilegesAreProvenGone) {
    makeBundle();
    using F = Fault;
    const std::function<Fault()> faults[] = {
        // A call says that it failed.
        [] { return F::denying(SystemCall::setgid, EPERM); },
        [] { return F::denying(SystemCall::initgroups, EPERM); },
        [] { return F::denying(SystemCall::setuid, EPERM); },
        // A call did nothing, though it says otherwise.
        [] { return F::returning(SystemCall::setgid, 0); },
        [] { return F::returning(SystemCall::setuid, 0); },
        // The process has the IDs of another user.
        [] { return F::returning(SystemCall::getuid, 0); },
        [] { return F::returning(SystemCall::geteuid, 0); },
        [] { return F::returning(SystemCall::getgid, 502); },
        // Root can be had back.
        [] { return F::returning(SystemCall::setuid, 0, 1); },
    };
    for (const auto& make : faults) {
        SCOPED_TRACE(&make - faults);
        const ChildResult result = runInChild([&] {
            std::atexit([] { prctl(PR_SET_DUMPABLE, 1); });
            const Fault fault = make();
            OpenAsUser::run(Words{std::to_string(user.uid), "/Applications/Sample.app"});
        });
        EXPECT_EQ(result, (ChildResult{77, ""}));
    }
    EXPECT_FALSE(fs::exists(appReport));
    EXPECT_EQ(open(), 0);
    expectDirectRun();
}

TEST_F(OpenAsUserPrivateMachineTest, RunsTheUsualExecutableOfABundleThatNamesNone) {
    const TestBundle bundle("/Applications/Sample.app", "Halvo");
    EXPECT_EQ(open(), 0);
    const std::string report = reportInTmp("/Halvo");
    EXPECT_THAT(readReport(report)["argument"], ElementsAre(bundle.executable()));
    fs::remove(report);
}

TEST_F(OpenAsUserPrivateMachineTest, FailsWithoutAnExecutableThatTheUserMayRun) {
    const TestBundle bundle = makeBundle();
    EXPECT_EQ(open("/Applications/Missing.app"), 71);
    fs::permissions(bundle.path(), fs::perms{0700});
    EXPECT_EQ(open(), 71);
    fs::permissions(bundle.path(), fs::perms{0755});
    fs::remove(bundle.executable());
    EXPECT_EQ(open(), 71);
}

// Puts a program that reports in the place of systemd-run(1).
class OpenAsUserManagerPrivateMachineTest : public OpenAsUserPrivateMachineTest {
  protected:
    void prepare() override {
        copyProgram(HALVO_TEST_APP, disk / "systemd-run");
        fs::permissions(disk.path(), fs::perms{0755});
        standIn = std::make_unique<PrivateMount>(nullptr, disk / "systemd-run",
                                                 "/usr/bin/systemd-run", MS_BIND);
        ASSERT_TRUE(standIn->isMounted());
        makeBundle();
    }

    // A manager of the user that does this with its callers.
    std::unique_ptr<TestProcess> startManager(std::function<void(const Descriptor&)> behaviour) {
        auto manager = std::make_unique<TestProcess>([&] {
            become(user);
            fs::create_directories(fs::path(managerSocket(user)).parent_path());
            const auto address = socketAddress(managerSocket(user)).value();
            const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            EXPECT_EQ(bind(listener.get(), generic(address), sizeof address), 0);
            EXPECT_EQ(listen(listener.get(), 5), 0);
            EXPECT_EQ(write(STDOUT_FILENO, "ready\n", 6), 6);
            behaviour(listener);
        });
        EXPECT_EQ(manager->readLine(), "ready");
        return manager;
    }

    TemporaryFolder disk;
    std::unique_ptr<PrivateMount> standIn;
};

TEST_F(OpenAsUserManagerPrivateMachineTest, AsksAManagerThatAnswersToRunTheApp) {
    const auto manager = startManager(answerTruly);
    EXPECT_EQ(open(), 0);
    TestReport run = readReport(systemdRunReport);
    EXPECT_THAT(
        run["argument"],
        ElementsAre("/usr/bin/systemd-run", "--user", "--quiet", "--collect", "--service-type=exec",
                    "--slice=app.slice", "--property=ExitType=cgroup",
                    MatchesRegex("--unit=app-halvo-com\\.exa_mple\\.app@[0-9a-f]{8}\\.service"),
                    "--", "/Applications/Sample.app/Contents/MacOS/Sample"));
    Words environment = usersEnvironment();
    environment.push_back("XDG_RUNTIME_DIR=/run/user/" + std::to_string(user.uid));
    EXPECT_EQ(run["environment"], environment);
    const std::string uid = std::to_string(user.uid);
    EXPECT_THAT(run["user"], ElementsAre(uid, uid, uid));
    EXPECT_THAT(run["supplementary"], ElementsAre(std::to_string(user.gid)));
    // Those that it was started with, and none to the manager.
    EXPECT_THAT(run["descriptor"],
                ElementsAre(StartsWith("0 "), StartsWith("1 "), StartsWith("2 ")));
    // It may never say what became of the start.
    EXPECT_THAT(run["alarm"], ElementsAre(AnyOf(StrEq("29"), StrEq("30"))));
    EXPECT_FALSE(fs::exists(appReport)) << "the app was run twice";
}

TEST_F(OpenAsUserManagerPrivateMachineTest, NamesTheUnitSafelyAndHandsTheExecutableOverAsItIs) {
    const auto manager = startManager(answerTruly);
    // "-" would nest slices, "@" and "/" would be read as something else. The manager makes one "$"
    // of two, but systemd-run(1) looks for the program as it stands.
    const std::string odd = "a $HOME ${x} $$%i";
    makeBundle(odd, "AZaz09.-@/b c%$\\\xC3\xA9[`{:^");
    const auto unitAndProgram = [this] {
        fs::remove(systemdRunReport);
        EXPECT_EQ(open("/Applications/Sample.app", {"other", "--after-quit"}), 0);
        const Words arguments = readReport(systemdRunReport)["argument"];
        EXPECT_EQ(arguments.size(), 12U);
        return Words(arguments.begin() + 7, arguments.end());
    };
    const std::string folder = "/Applications/Sample.app/Contents/MacOS/";
    const std::string anyUnit = "@[0-9a-f]{8}\\.service";
    EXPECT_THAT(unitAndProgram(),
                ElementsAre(MatchesRegex("--unit=app-halvo-AZaz09\\.___b_c__________" + anyUnit),
                            "--", folder + odd, "-halvoRelaunchedAfterQuit", "YES"));
    fs::remove("/Applications/Sample.app/Contents/Info.plist");
    EXPECT_THAT(unitAndProgram(),
                ElementsAre(MatchesRegex("--unit=app-halvo-app" + anyUnit), "--", folder + "Halvo",
                            "-halvoRelaunchedAfterQuit", "YES"));
}

// LiveOpener's own tests run where there is no stand-in.
TEST_F(OpenAsUserManagerPrivateMachineTest, IsStartedBySystemdWhereThatRunsTheMachine) {
    const std::string path = "/Applications/$ $HOME ${x} $$ %i \\x20\"';|&*\xC3\xA9$.app";
    const std::string asTold = "/Applications/$$ $$HOME $${x} $$$$ %i \\x20\"';|&*\xC3\xA9$$.app";
    fs::create_directory(path);
    expectInChild([&] {
        const BootedBySystemd booted;
        const LogCapture log;
        LiveOpener opener("/usr/libexec/$helper");
        opener.open(path, 501, true);
        TestReport run = readReport(systemdRunReport);
        const Words first = run["argument"];
        EXPECT_THAT(
            first,
            ElementsAre("/usr/bin/systemd-run", "--quiet", "--collect", "--no-ask-password",
                        "--description=Opens the app for user 501",
                        MatchesRegex("--unit=halvo-open-[0-9a-f]{8}\\.service"),
                        "--property=ExitType=cgroup", "--property=IgnoreSIGPIPE=no",
                        "--property=TasksMax=4096", "--property=MemoryMax=50%", "--",
                        "/usr/libexec/$helper", "--open-as-user", "501", asTold, "--after-quit"));
        EXPECT_THAT(run["descriptor"],
                    ElementsAre("0 /dev/null rw", "1 /dev/null rw",
                                AllOf(StartsWith("2 "), Not(StartsWith("2 /dev/null")))));
        EXPECT_THAT(run["environment"], IsEmpty());
        EXPECT_THAT(run["user"], ElementsAre("0", "0", "0"));
        fs::remove(systemdRunReport);
        opener.open(path, 501, true);
        const Words second = readReport(systemdRunReport)["argument"];
        EXPECT_EQ(second.back(), "--directly");
        EXPECT_NE(second.at(5), first.at(5)) << "two units of one name clash";
        opener.open(path, 501, true);
        EXPECT_THAT(log.errors(),
                    ElementsAre("Opened Halvo 2 times in a row, and it didn't stay; its own "
                                "messages: journalctl -u 'halvo-open-*' -u user@501.service"));
        // Until the last has reported.
        EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    });
    fs::remove(path);
}

// The app itself may take all day.
TEST_F(OpenAsUserManagerPrivateMachineTest, LeavesTheManagerOutWhenToldTo) {
    const auto manager = startManager(answerTruly);
    EXPECT_EQ(open("/Applications/Sample.app", {"--directly"}), 0);
    expectDirectRun();
    EXPECT_THAT(readReport(appReport)["alarm"], ElementsAre("0"));
}

TEST_F(OpenAsUserManagerPrivateMachineTest, FailsWithoutTheProgramThatAsksTheManager) {
    fs::permissions(disk / "systemd-run", fs::perms{0644});
    const auto manager = startManager(answerTruly);
    EXPECT_EQ(open(), 71);
    EXPECT_FALSE(fs::exists(appReport));
}

// As that of a manager that was killed.
TEST_F(OpenAsUserManagerPrivateMachineTest, RunsTheAppItselfWhenNoProcessListensAtTheSocket) {
    startManager([](const Descriptor&) {})->wait();
    ASSERT_TRUE(fs::is_socket(managerSocket(user)));
    EXPECT_EQ(open(), 0);
    expectDirectRun();
    replaceTestFile(managerSocket(user), "no socket\n");
    EXPECT_EQ(open(), 0);
    expectDirectRun();
}

TEST_F(OpenAsUserManagerPrivateMachineTest, RunsTheAppItselfWhenTheManagerIsOfNoUse) {
    const auto timeToOpen = [this] {
        const Seconds start = timeNow();
        EXPECT_EQ(open(), 0);
        return timeNow() - start;
    };

    const struct {
        const char* name;
        void (*behaviour)(const Descriptor& listener);
        // Its end of the conversation ends, so that nothing can come any more.
        bool endsAtOnce;
    } rows[] = {
        {"never accepts", [](const Descriptor&) { pause(); }, false},
        {"accepts in silence",
         [](const Descriptor& listener) {
             const Descriptor connection(accept(listener.get(), nullptr, nullptr));
             pause();
         },
         false},
        {"authenticates and swallows messages",
         [](const Descriptor& listener) {
             answer(listener, [](sd_bus_message*, void*, sd_bus_error*) { return 1; });
         },
         false},
        {"hangs up",
         [](const Descriptor& listener) {
             while (true) {
                 const Descriptor connection(accept(listener.get(), nullptr, nullptr));
             }
         },
         true},
        {"talks nonsense",
         [](const Descriptor& listener) {
             constexpr std::string_view nonsense = "HTTP/1.1 400 Bad Request\r\nServer: x\r\n\r\n";
             while (true) {
                 const int connection = accept(listener.get(), nullptr, nullptr);
                 EXPECT_GT(write(connection, nonsense.data(), nonsense.size()), 0);
             }
         },
         true},
        {"answers with an error",
         [](const Descriptor& listener) {
             answer(listener, [](sd_bus_message*, void*, sd_bus_error* error) {
                 return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "not now");
             });
         },
         true},
    };

    for (const auto& [name, behaviour, endsAtOnce] : rows) {
        SCOPED_TRACE(name);
        const auto manager = startManager(behaviour);
        Seconds took = timeToOpen();
        expectDirectRun();
        if (endsAtOnce) {
            // A machine that is busy with other tests may be late, but not always.
            for (int turn = 1; took >= Seconds{1.9} && turn < 5; ++turn) {
                took = timeToOpen();
            }
            EXPECT_LT(took, Seconds{1.9}) << "it waited without a reason";
        } else {
            EXPECT_GE(took, Seconds{1.9}) << "it gave the manager no time";
            EXPECT_LT(took, Seconds{15});
        }
        manager->kill();
        fs::remove(managerSocket(user));
        fs::remove(appReport);
    }
}

}  // namespace
}  // namespace halvo::testing
