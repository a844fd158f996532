// The mode as a process. What it decides without the system: HalvoHelper/OpenAsUserTest.cpp.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoHelper/Linux/OpenAsUser.hpp"
#include "HalvoHelper/LiveOpener.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::OpenAsUser {

void PrintTo(const Command& command, std::ostream* stream) {
    *stream << command.path << " " << ::testing::PrintToString(command.arguments) << " "
            << ::testing::PrintToString(command.environment) << " " << command.secondsAtMost;
}

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

using Words = std::vector<std::string>;

const std::string app = "/Applications/Halvo.app";
const std::string helper = "/usr/libexec/HalvoHelper";
const std::string executable = app + "/Contents/MacOS/Halvo";
const User ann{501, 20, "ann", "/Users/ann"};
const Words annsEnvironment{"HOME=/Users/ann", "USER=ann", "LOGNAME=ann",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};

// What no path is likely to hold, and every path may.
const std::string oddApp = "/Appli cations/$HOME \"quoted\" 'single' %i \\n \xC3\xA9 * ; & |.app";

TEST(OpenAsUserOnLinuxTest, StartsTheModeDirectlyOnLinux) {
    EXPECT_EQ(helperCommand(helper, {501, app, false}),
              (Command{helper, {helper, "--open-as-user", "501", app}, {}}));
    EXPECT_EQ(helperCommand(helper, {501, oddApp, true}),
              (Command{helper, {helper, "--open-as-user", "501", oddApp, "--after-quit"}, {}}));
}

TEST(OpenAsUserOnLinuxTest, StartsTheModeInAUnitOfItsOwnWhereSystemdRunsTheMachine) {
    EXPECT_EQ(
        systemCommand(helper, {501, app, true, true}, "1a/2b"),
        (Command{"/usr/bin/systemd-run",
                 {"/usr/bin/systemd-run", "--quiet", "--collect", "--no-ask-password",
                  "--description=Opens the app for user 501", "--unit=halvo-open-1a_2b.service",
                  "--property=ExitType=cgroup", "--property=IgnoreSIGPIPE=no",
                  "--property=TasksMax=4096", "--property=MemoryMax=50%", "--", helper,
                  "--open-as-user", "501", app, "--after-quit", "--directly"},
                 {}}));
}

TEST(OpenAsUserOnLinuxTest, RunsTheExecutableItselfWithoutAManager) {
    EXPECT_EQ(directCommand({501, app, false}, ann, executable),
              (Command{executable, {executable}, annsEnvironment}));
    EXPECT_EQ(
        directCommand({501, app, true}, ann, executable),
        (Command{executable, {executable, "-halvoRelaunchedAfterQuit", "YES"}, annsEnvironment}));
}

Words managerArguments(const std::string& unit, const std::string& program) {
    const std::string option = "--unit=" + unit;
    return {"/usr/bin/systemd-run",
            "--user",
            "--quiet",
            "--collect",
            "--service-type=exec",
            "--slice=app.slice",
            "--property=ExitType=cgroup",
            option,
            "--",
            program};
}

Words managerEnvironment(const std::string& uid) {
    Words list = annsEnvironment;
    list.push_back("XDG_RUNTIME_DIR=/run/user/" + uid);
    return list;
}

TEST(OpenAsUserOnLinuxTest, RunsTheExecutableInTheUsersManager) {
    EXPECT_EQ(managerCommand({501, app, false}, ann, executable, "com.example.app", "1a2b"),
              (Command{"/usr/bin/systemd-run",
                       managerArguments("app-halvo-com.example.app@1a2b.service", executable),
                       managerEnvironment("501"), 30}));
    Words arguments = managerArguments("app-halvo-com.example.app@0.service", executable);
    arguments.insert(arguments.end(), {"-halvoRelaunchedAfterQuit", "YES"});
    EXPECT_EQ(managerCommand({501, app, true}, ann, executable, "com.example.app", "0"),
              (Command{"/usr/bin/systemd-run", arguments, managerEnvironment("501"), 30}));
    // That of the user, not of the request.
    const User last{4294967295, 20, "ann", "/Users/ann"};
    EXPECT_EQ(managerCommand({501, app, false}, last, executable, "x", "0").environment,
              managerEnvironment("4294967295"));
}

// The manager makes one "$" of two, but systemd-run(1) looks for the first word as it stands.
TEST(OpenAsUserOnLinuxTest, HandsTheExecutableOverAsItIs) {
    const std::string odd = "/a $HOME/${x} $$%i";
    EXPECT_THAT(managerCommand({501, app, false}, ann, odd, "x", "0").arguments.back(), odd);
    EXPECT_THAT(systemCommand(odd, {501, app, false}, "0").arguments, Contains(odd));
    EXPECT_THAT(directCommand({501, oddApp, false}, ann, odd).arguments, ElementsAre(odd));
}

TEST(OpenAsUserOnLinuxTest, LetsTheManagerExpandNothing) {
    const std::pair<const char*, const char*> rows[] = {
        {"/a b/c", "/a b/c"},
        {"$", "$$"},
        {"/$HOME/x", "/$$HOME/x"},
        {"/${HOME}/x", "/$${HOME}/x"},
        {"/$$", "/$$$$"},
        {"/a$", "/a$$"},
        {"/$a$b$", "/$$a$$b$$"},
        {"/%i\\x20\"';|&*", "/%i\\x20\"';|&*"},
        {"-x", "-x"},
        {"/a\nb", "/a\nb"},
        {"/\xC3\xA9", "/\xC3\xA9"},
    };
    for (const auto& [path, argument] : rows) {
        EXPECT_EQ(systemCommand(helper, {501, path, false}, "0").arguments.back(), argument);
    }
}

TEST(OpenAsUserOnLinuxTest, GivesUnitsSafeNames) {
    const struct {
        const char* appID;
        const char* suffix;
        const char* unit;
    } rows[] = {
        {"com.example.app", "0", "app-halvo-com.example.app@0.service"},
        {"AZaz09.", "AZaz09.", "app-halvo-AZaz09.@AZaz09..service"},
        // "-" would nest slices, "@" and "/" would be read as something else.
        {"com.a-b", "0", "app-halvo-com.a_b@0.service"},
        {"a@b/c d%i$x\\", "-/@", "app-halvo-a_b_c_d_i_x_@___.service"},
        {"\xC3\xA9", "0", "app-halvo-__@0.service"},
        {"[`{:^", "0", "app-halvo-_____@0.service"},
        {"", "", "app-halvo-@.service"},
    };

    for (const auto& [appID, suffix, unit] : rows) {
        EXPECT_EQ(managerCommand({501, app, false}, ann, executable, appID, suffix).arguments,
                  managerArguments(unit, executable));
    }
}

TEST(RandomUnitSuffixTest, IsAnotherEachTime) {
    std::set<std::string> suffixes;
    for (int turn = 0; turn < 10; ++turn) {
        const std::string suffix = randomUnitSuffix();
        EXPECT_THAT(suffix, ::testing::MatchesRegex("[0-9a-f]{8}"));
        suffixes.insert(suffix);
    }
    EXPECT_EQ(suffixes.size(), 10U);
}

}  // namespace
}  // namespace halvo::OpenAsUser

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

constexpr Person nobody{65534, 65534};

// A process that gave its privileges up cannot be looked at for leaks.
const Words helperEnvironment{"ASAN_OPTIONS=detect_leaks=0", "LEFT=over", "HOME=/root"};

// How the helper at `helper` ends when `person` calls it with these words.
int statusOf(const std::string& helper, const Person& person, const Words& words) {
    TestProcess process([&] {
        if (person.uid != geteuid()) {
            become(person);
        }
        close_range(STDERR_FILENO + 1, ~0U, 0);
        execute(helper, words, helperEnvironment);
    });
    const int status = process.wait();
    EXPECT_EQ(process.readAll(), "") << "it says nothing, whatever happens";
    return status;
}

TEST(OpenAsUserModeTest, RefusesBadWords) {
    const Words rows[] = {{"--open-as-user"},
                          {"--open-as-user", "0", "/Applications/Halvo.app"},
                          // Not in the account files.
                          {"--open-as-user", "61999", "/Applications/Halvo.app"},
                          {"--open-as-user", "4294967294", "/Applications/Halvo.app"}};
    for (const Words& words : rows) {
        EXPECT_EQ(statusOf(HALVO_HELPER, {geteuid(), getegid()}, words), 64);
    }
}

// Takes the privileges of whoever runs it for what they are.
TEST(OpenAsUserModeTest, RefusesToRunForSomebodyWhoIsNotRoot) {
    // Where everybody can reach it.
    TemporaryFolder disk;
    fs::permissions(disk.path(), fs::perms{0755});
    const std::string helper = disk / "helper";
    copyProgram(HALVO_HELPER, helper);
    const Person person = geteuid() == 0 ? nobody : Person{geteuid(), getegid()};
    EXPECT_EQ(statusOf(helper, person, {"--open-as-user", "1", disk / "Halvo.app"}), 77);
    EXPECT_EQ(statusOf(helper, person,
                       {"--open-as-user", std::to_string(person.uid), disk / "Halvo.app"}),
              77);
}

// The manager's place in the folder of the user's session.
std::string managerSocket(const Person& user) {
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

void answerWithAnError(const Descriptor& listener) {
    answer(listener, [](sd_bus_message* message, void*, sd_bus_error*) {
        return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "not now");
    });
}

// Lets the caller authenticate, but no more.
void swallowMessages(const Descriptor& listener) {
    answer(listener, [](sd_bus_message*, void*, sd_bus_error*) { return 1; });
}

void acceptInSilence(const Descriptor& listener) {
    const Descriptor connection(accept(listener.get(), nullptr, nullptr));
    pause();
}

void hangUp(const Descriptor& listener) {
    while (true) {
        const Descriptor connection(accept(listener.get(), nullptr, nullptr));
    }
}

void talkNonsense(const Descriptor& listener) {
    constexpr std::string_view nonsense =
        "HTTP/1.1 400 Bad Request\r\nServer: x\r\nDate: y\r\n\r\n";
    while (true) {
        const int connection = accept(listener.get(), nullptr, nullptr);
        EXPECT_GT(write(connection, nonsense.data(), nonsense.size()), 0);
    }
}

class OpenAsUserPrivateMachineTest : public PrivateMachineTest {
  protected:
    void cleanUp() override {
        fs::remove_all("/Applications/Sample.app");
        fs::remove(appReport);
        fs::remove(systemdRunReport);
        fs::remove_all(fs::path(managerSocket(user)).parent_path());
    }

    [[nodiscard]] Words request(const std::string& app) const {
        return {"--open-as-user", std::to_string(user.uid), app};
    }

    // Opens the bundle as root, and returns how that ended.
    int open(const std::string& app = "/Applications/Sample.app", const Words& more = {}) {
        Words words = request(app);
        words.insert(words.end(), more.begin(), more.end());
        return statusOf(HALVO_HELPER, {0, 0}, words);
    }

    // A bundle with an Info.plist.
    static TestBundle makeBundle() {
        TestBundle bundle("/Applications/Sample.app");
        bundle.writeInfo("com.exa-mple.app");
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

TEST_F(OpenAsUserManagerPrivateMachineTest, NamesTheUnitOfABundleWithoutAnIdentifier) {
    fs::remove("/Applications/Sample.app/Contents/Info.plist");
    const auto manager = startManager(answerTruly);
    EXPECT_EQ(open("/Applications/Sample.app", {"other", "--after-quit"}), 0);
    const Words arguments = readReport(systemdRunReport)["argument"];
    ASSERT_EQ(arguments.size(), 12U);
    EXPECT_THAT(arguments[7], MatchesRegex("--unit=app-halvo-app@[0-9a-f]{8}\\.service"));
    EXPECT_THAT(Words(arguments.begin() + 9, arguments.end()),
                ElementsAre("/Applications/Sample.app/Contents/MacOS/Halvo",
                            "-halvoRelaunchedAfterQuit", "YES"));
}

// LiveOpener's own tests run where there is no stand-in.
TEST_F(OpenAsUserManagerPrivateMachineTest, IsStartedBySystemdWhereThatRunsTheMachine) {
    const ChildResult result = runInChild([this] {
        const BootedBySystemd booted;
        const LogCapture log;
        LiveOpener opener("/usr/libexec/helper");
        opener.open("/Applications/Sample.app", 501, true);
        TestReport run = readReport(systemdRunReport);
        const Words arguments = run["argument"];
        ASSERT_GE(arguments.size(), 6U);
        EXPECT_THAT(arguments[5], MatchesRegex("--unit=halvo-open-[0-9a-f]{8}\\.service"));
        EXPECT_EQ(arguments, OpenAsUser::systemCommand("/usr/libexec/helper",
                                                       {501, "/Applications/Sample.app", true},
                                                       arguments[5].substr(18, 8))
                                 .arguments);
        EXPECT_THAT(run["descriptor"],
                    ElementsAre("0 /dev/null rw", "1 /dev/null rw",
                                AllOf(StartsWith("2 "), Not(StartsWith("2 /dev/null")))));
        EXPECT_THAT(run["environment"], IsEmpty());
        EXPECT_THAT(run["user"], ElementsAre("0", "0", "0"));
        opener.open("/Applications/Sample.app", 501, true);
        opener.open("/Applications/Sample.app", 501, true);
        EXPECT_THAT(log.errors(),
                    ElementsAre("Opened Halvo 2 times in a row, and it didn't stay; its own "
                                "messages: journalctl -u 'halvo-open-*' -u user@501.service"));
        // Until the last has reported.
        EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    });
    EXPECT_EQ(result.status, 0) << result.output;
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
TEST_F(OpenAsUserManagerPrivateMachineTest, RunsTheAppItselfWhenNobodyListensAtTheSocket) {
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
        {"accepts in silence", acceptInSilence, false},
        {"swallows messages", swallowMessages, false},
        {"hangs up", hangUp, true},
        {"talks nonsense", talkNonsense, true},
        {"answers with an error", answerWithAnError, true},
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
