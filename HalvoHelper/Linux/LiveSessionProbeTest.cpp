#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

// The program at `path`, running. `prepare` is what the new process does before.
std::unique_ptr<TestProcess> startProgram(
    const std::string& path, const std::function<void()>& prepare = [] {}) {
    auto process = std::make_unique<TestProcess>([&] {
        prepare();
        execute(path, {"wait"});
    });
    EXPECT_EQ(process->readLine(), "waiting");
    return process;
}

// Of changes closer to each other than this the times in a file's status may tell nothing.
void letTheFileClockTick() { std::this_thread::sleep_for(std::chrono::milliseconds{20}); }

// ---------------------------------------------------------------------------- whether the app runs

class LiveSessionProbeTest : public ::testing::Test {
  protected:
    [[nodiscard]] bool isRunning(const std::string& path) { return probe.isAppRunning(path, me); }

    [[nodiscard]] bool isRunning() { return isRunning(bundle.path()); }

    TemporaryFolder disk;
    const TestBundle bundle{disk / "Sample.app"};
    const uid_t me = geteuid();
    LiveSessionProbe probe;
};

TEST_F(LiveSessionProbeTest, SeesTheAppWhileItRuns) {
    bundle.writeInfo();
    EXPECT_FALSE(isRunning());
    const auto app = startProgram(bundle.executable());
    EXPECT_TRUE(isRunning());
    EXPECT_TRUE(isRunning());
    app->closeInput();
    app->wait();
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, SeesOneOfSeveral) {
    bundle.writeInfo();
    auto first = startProgram(bundle.executable());
    const auto second = startProgram(bundle.executable());
    EXPECT_TRUE(isRunning());
    first.reset();
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, CountsTheUserWhoIsAskedAboutOnly) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), me + 1));
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), 4294967295));
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, ComparesPathsAsBytes) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    fs::create_directory_symlink(disk.path(), disk / "folder");
    fs::create_directory_symlink(bundle.path(), disk / "Link.app");
    EXPECT_FALSE(isRunning(disk / "folder/Sample.app"));
    EXPECT_FALSE(isRunning(disk / "Link.app"));
    EXPECT_FALSE(isRunning(bundle.path() + "/"));
    EXPECT_FALSE(isRunning(disk / "/Sample.app"));
    EXPECT_FALSE(isRunning(disk / "./Sample.app"));
    EXPECT_FALSE(isRunning(disk / "sample.app"));
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, SeesAnAppThatWasStartedByAnotherPath) {
    bundle.writeInfo();
    fs::create_directory_symlink(bundle.path(), disk / "Link.app");
    const auto app = startProgram(disk / "Link.app/Contents/MacOS/Sample");
    EXPECT_TRUE(isRunning()) << "the kernel keeps the file's own path";
    EXPECT_FALSE(isRunning(disk / "Link.app"));
}

TEST_F(LiveSessionProbeTest, DoesNotTakeAnotherProgramOfTheBundleForTheApp) {
    bundle.writeInfo();
    copyProgram(HALVO_TEST_APP, bundle.folder() + "/Sample-helper");
    copyProgram(HALVO_TEST_APP, bundle.folder() + "/Sampl");
    const auto longer = startProgram(bundle.folder() + "/Sample-helper");
    const auto shorter = startProgram(bundle.folder() + "/Sampl");
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, FallsBackToTheUsualExecutable) {
    const TestBundle usual(disk / "Usual.app", "Halvo");
    EXPECT_FALSE(isRunning(usual.path()));
    const auto app = startProgram(usual.executable());
    EXPECT_TRUE(isRunning(usual.path())) << "without an Info.plist";
    replaceTestFile(usual.info(), infoText("Missing", "x", "y"));
    EXPECT_TRUE(isRunning(usual.path())) << "with one that names what is not there";
    replaceTestFile(usual.info(), "no property list");
    EXPECT_TRUE(isRunning(usual.path())) << "with a damaged one";
    replaceTestFile(usual.info(), infoText("../MacOS/Halvo", "x", "y"));
    EXPECT_TRUE(isRunning(usual.path())) << "with one that names a path";
}

TEST_F(LiveSessionProbeTest, AnswersForABundleThatIsNotThere) {
    EXPECT_FALSE(isRunning(disk / "Missing.app"));
    EXPECT_FALSE(isRunning(""));
    EXPECT_FALSE(isRunning(bundle.path() + std::string("\0x", 2)));
}

TEST_F(LiveSessionProbeTest, NoticesThatAnotherExecutableIsNamed) {
    bundle.writeInfo();
    const std::string second = bundle.folder() + "/Second";
    copyProgram(HALVO_TEST_APP, second);
    const auto app = startProgram(second);
    EXPECT_FALSE(isRunning());
    replaceTestFile(bundle.info(), infoText("Second", "com.example.app", "7QX4KD19MT"));
    EXPECT_TRUE(isRunning());
    // Changed in its place, to the same length.
    letTheFileClockTick();
    overwriteTestFile(bundle.info(), infoText("Sample", "com.example.app", "7QX4KD19MT"));
    EXPECT_FALSE(isRunning());
    fs::remove(bundle.info());
    EXPECT_FALSE(isRunning());
    replaceTestFile(bundle.info(), infoText("Second", "com.example.app", "7QX4KD19MT"));
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, NoticesThatTheExecutableNamedAppearsAndGoes) {
    const TestBundle both(disk / "Both.app", "Halvo");
    replaceTestFile(both.info(), infoText("Second", "x", "y"));
    const auto usual = startProgram(both.executable());
    EXPECT_TRUE(isRunning(both.path())) << "what is named is not there yet";
    copyProgram(HALVO_TEST_APP, both.folder() + "/Second");
    EXPECT_FALSE(isRunning(both.path()));
    const auto second = startProgram(both.folder() + "/Second");
    EXPECT_TRUE(isRunning(both.path()));
    second->send(SIGKILL);
    second->wait();
    fs::remove(both.folder() + "/Second");
    EXPECT_TRUE(isRunning(both.path())) << "the usual one again";
}

TEST_F(LiveSessionProbeTest, TellsBundlesApartFromOneQuestionToTheNext) {
    bundle.writeInfo();
    const TestBundle second(disk / "Second.app");
    second.writeInfo();
    const auto app = startProgram(second.executable());
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_FALSE(isRunning());
        EXPECT_TRUE(isRunning(second.path()));
    }
}

TEST_F(LiveSessionProbeTest, DoesNotCountADeletedExecutable) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    fs::remove(bundle.executable());
    EXPECT_FALSE(isRunning());
    // Another file in its place is another app.
    copyProgram(HALVO_TEST_APP, bundle.executable());
    EXPECT_FALSE(isRunning());
}

// To the kernel a process whose executable was deleted runs "PATH (deleted)".
TEST_F(LiveSessionProbeTest, IsNotFooledByAnExecutableThatIsCalledDeleted) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    const std::string called = "Sample (deleted)";
    copyProgram(HALVO_TEST_APP, bundle.folder() + "/" + called);
    replaceTestFile(bundle.info(), infoText(called, "com.example.app", "7QX4KD19MT"));
    fs::remove(bundle.executable());
    EXPECT_FALSE(isRunning());
    const auto really = startProgram(bundle.folder() + "/" + called);
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, FollowsABundleThatIsMoved) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    EXPECT_TRUE(isRunning());
    fs::rename(bundle.path(), disk / "Moved.app");
    EXPECT_FALSE(isRunning());
    EXPECT_TRUE(isRunning(disk / "Moved.app"));
}

TEST_F(LiveSessionProbeTest, DoesNotCountAZombie) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    app->send(SIGKILL);
    const std::string stat = "/proc/" + std::to_string(app->pid()) + "/stat";
    ASSERT_TRUE(eventually([&] { return readTestFile(stat).find(") Z ") != std::string::npos; }));
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, CountsAStoppedApp) {
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    app->send(SIGSTOP);
    const std::string stat = "/proc/" + std::to_string(app->pid()) + "/stat";
    ASSERT_TRUE(eventually([&] { return readTestFile(stat).find(") T ") != std::string::npos; }));
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, FindsAnAppWithALongPath) {
    std::string folder = disk.path();
    while (folder.size() < 2500) {
        folder += "/" + std::string(200, 'x');
    }
    const TestBundle deep(folder + "/Sample.app");
    deep.writeInfo();
    EXPECT_FALSE(isRunning(deep.path()));
    const auto app = startProgram(deep.executable());
    EXPECT_TRUE(isRunning(deep.path()));
}

TEST_F(LiveSessionProbeTest, FindsAnAppInAListOfSeveralReadings) {
    const ShortListings few;
    bundle.writeInfo();
    EXPECT_FALSE(isRunning());
    std::vector<std::unique_ptr<TestProcess>> others;
    for (int i = 0; i < 20; ++i) {
        others.push_back(std::make_unique<TestProcess>([] { pause(); }));
    }
    const auto app = startProgram(bundle.executable());
    for (int i = 0; i < 20; ++i) {
        others.push_back(std::make_unique<TestProcess>([] { pause(); }));
    }
    EXPECT_TRUE(isRunning());
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, AllocatesNothingWhileNothingChanges) {
    bundle.writeInfo();
    const std::string path = bundle.path();
    EXPECT_FALSE(isRunning());
    std::size_t before = mallocsMade();
    for (int turn = 0; turn < 5; ++turn) {
        EXPECT_FALSE(isRunning(path));
    }
    EXPECT_EQ(mallocsMade(), before) << "while the app does not run";

    const auto app = startProgram(bundle.executable());
    EXPECT_TRUE(isRunning());
    before = mallocsMade();
    for (int turn = 0; turn < 5; ++turn) {
        EXPECT_TRUE(isRunning(path));
    }
    EXPECT_EQ(mallocsMade(), before) << "while the app runs";
}

TEST(MallocCountTest, CountsEveryAllocation) {
    const std::size_t before = mallocsMade();
    // Volatile, or the compiler would see that nobody needs it.
    void* volatile memory = std::malloc(1);
    std::free(memory);
    EXPECT_GT(mallocsMade(), before);
    // By a shared library.
    const std::size_t between = mallocsMade();
    std::free(realpath("/", nullptr));
    EXPECT_GT(mallocsMade(), between);
}

// ------------------------------------------------------------------- in a machine with other
// people

class LiveSessionProbePrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override { fs::permissions(disk.path(), fs::perms{0755}); }

    TemporaryFolder disk;
    LiveSessionProbe probe;
};

TEST_F(LiveSessionProbePrivateMachineTest, TellsPeopleApartByTheirEffectiveUser) {
    const TestBundle bundle(disk / "Sample.app");
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable(), [this] { become(user); });
    EXPECT_TRUE(probe.isAppRunning(bundle.path(), user.uid));
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), other.uid));
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), 0));
    // Of two people's apps each has one.
    const auto others = startProgram(bundle.executable(), [this] { become(other); });
    EXPECT_TRUE(probe.isAppRunning(bundle.path(), user.uid));
    EXPECT_TRUE(probe.isAppRunning(bundle.path(), other.uid));
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), 0));
}

TEST_F(LiveSessionProbePrivateMachineTest, GoesByTheEffectiveUserNotTheRealOne) {
    const TestBundle bundle(disk / "Sample.app");
    bundle.writeInfo();
    const auto app = startProgram(
        bundle.executable(), [this] { ASSERT_EQ(setresuid(other.uid, user.uid, other.uid), 0); });
    EXPECT_TRUE(probe.isAppRunning(bundle.path(), user.uid));
    EXPECT_FALSE(probe.isAppRunning(bundle.path(), other.uid));
}

// A set-group-id process may not be dumped, so most of its files in /proc belong to root.
TEST_F(LiveSessionProbePrivateMachineTest, SeesAnAppThatMayNotBeDumped) {
    const TestBundle bundle("/Applications/Sample.app");
    bundle.writeInfo();
    bundle.install(appGroup);
    {
        const auto app = startProgram(bundle.executable(), [this] { become(user); });
        struct stat status{};
        const std::string files = "/proc/" + std::to_string(app->pid()) + "/exe";
        ASSERT_EQ(lstat(files.c_str(), &status), 0);
        ASSERT_EQ(status.st_uid, 0U) << "it may be dumped";
        EXPECT_TRUE(probe.isAppRunning(bundle.path(), user.uid));
        EXPECT_FALSE(probe.isAppRunning(bundle.path(), 0));
    }
    fs::remove_all(bundle.path());
}

// In a mount namespace of their own people can have any file at any path.
class LiveSessionProbeForgeryPrivateMachineTest : public LiveSessionProbePrivateMachineTest {
  protected:
    // Expects that `forgery` at the path of the bundle's executable is not taken for it.
    void expectNotFooledBy(const TestBundle& bundle, const std::string& forgery) {
        const auto forged = startProgram(bundle.executable(), [&] {
            ASSERT_EQ(unshare(CLONE_NEWNS), 0);
            ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
            ASSERT_EQ(
                mount(forgery.c_str(), bundle.executable().c_str(), nullptr, MS_BIND, nullptr), 0);
            become(user);
        });
        // It says of itself that it is the app.
        ASSERT_EQ(fs::read_symlink("/proc/" + std::to_string(forged->pid()) + "/exe"),
                  bundle.executable());
        EXPECT_FALSE(probe.isAppRunning(bundle.path(), user.uid));
        const auto app = startProgram(bundle.executable(), [this] { become(user); });
        EXPECT_TRUE(probe.isAppRunning(bundle.path(), user.uid));
    }
};

TEST_F(LiveSessionProbeForgeryPrivateMachineTest, IsNotFooledByAForgedPath) {
    const TestBundle bundle(disk / "Sample.app");
    bundle.writeInfo();
    copyProgram(HALVO_TEST_APP, disk / "forgery");
    expectNotFooledBy(bundle, disk / "forgery");
}

// On another file system files have the same numbers again.
TEST_F(LiveSessionProbeForgeryPrivateMachineTest, IsNotFooledByTheNumberOfTheFileEither) {
    const TestBundle bundle(disk / "Sample.app");
    bundle.writeInfo();
    fs::create_directory(disk / "twins");
    const PrivateMount twins("tmpfs", "tmpfs", disk / "twins", 0, "mode=755");
    ASSERT_TRUE(twins.isMounted());
    struct stat status{};
    ASSERT_EQ(stat(bundle.executable().c_str(), &status), 0);
    expectNotFooledBy(bundle, copyProgramAsNumber(HALVO_TEST_APP, disk / "twins", status.st_ino));
}

TEST_F(LiveSessionProbePrivateMachineTest, AnswersWithoutProcesses) {
    const TestBundle bundle(disk / "Sample.app");
    bundle.writeInfo();
    const auto app = startProgram(bundle.executable());
    TestProcess asking([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
        EXPECT_FALSE(probe.isAppRunning(bundle.path(), 0));
        std::fflush(nullptr);
        // At once: the leak sanitizer would want to look into /proc.
        _exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    });
    EXPECT_EQ(asking.wait(), 0) << asking.readAll();
    EXPECT_TRUE(probe.isAppRunning(bundle.path(), 0));
}

// ----------------------------------------------------------------------------------- the console

class LiveSessionProbeSeatPrivateMachineTest : public LiveSessionProbePrivateMachineTest {
  protected:
    void cleanUp() override {
        fs::remove_all(sessions);
        fs::create_directory(sessions);
        seat("");
    }

    // The files of logind, written as it does: another one in the place of the one before.

    static void seat(const std::string& session, uid_t uid = 0) {
        replaceTestFile(seatFile, session.empty() ? "IS_SEAT0=1\n"
                                                  : "IS_SEAT0=1\nACTIVE=" + session +
                                                        "\nACTIVE_UID=" + std::to_string(uid) +
                                                        "\nSESSIONS=" + session + "\n");
    }

    static void session(const std::string& name, uid_t uid,
                        const std::string& sessionClass = "user",
                        const std::string& state = "active") {
        replaceTestFile(sessions + "/" + name,
                        "UID=" + std::to_string(uid) + "\nACTIVE=1\nSTATE=" + state +
                            "\nREMOTE=0\nTYPE=wayland\nCLASS=" + sessionClass + "\nSEAT=seat0\n");
    }

    // Somebody sits at the console, and that is known.
    void letSomebodySit() {
        session("1", user.uid);
        seat("1", user.uid);
        ASSERT_EQ(probe.consoleUser(), user.uid);
    }

    inline static const std::string seatFile = "/run/systemd/seats/seat0";
    inline static const std::string sessions = "/run/systemd/sessions";
};

struct ConsoleRow {
    std::string name;
    // The session that the seat names, if any, and the files as they are.
    std::string session;
    std::string sessionFile;
    // Whether it is the person of the session who sits there.
    bool somebody;
};

std::string sessionText(const std::string& sessionClass, const std::string& state) {
    return "UID=61000\nACTIVE=1\nSTATE=" + state + "\nCLASS=" + sessionClass + "\nSEAT=seat0\n";
}

class LiveSessionProbeConsolePrivateMachineTest : public LiveSessionProbeSeatPrivateMachineTest,
                                                  public ::testing::WithParamInterface<ConsoleRow> {
};

TEST_P(LiveSessionProbeConsolePrivateMachineTest, IsTheUserOfAnActiveSessionOfAPerson) {
    seat(GetParam().session, 61000);
    fs::remove_all(sessions);
    fs::create_directory(sessions);
    if (!GetParam().sessionFile.empty()) {
        replaceTestFile(sessions + "/1", GetParam().sessionFile);
    }
    const auto expected = GetParam().somebody ? std::optional(61000U) : std::nullopt;
    EXPECT_EQ(probe.consoleUser(), expected);
    EXPECT_EQ(probe.consoleUser(), expected) << "the second time";
}

INSTANTIATE_TEST_SUITE_P(
    Sessions, LiveSessionProbeConsolePrivateMachineTest,
    ::testing::Values(
        ConsoleRow{"Active", "1", sessionText("user", "active"), true},
        ConsoleRow{"Opening", "1", sessionText("user", "opening"), true},
        ConsoleRow{"Closing", "1", sessionText("user", "closing"), false},
        ConsoleRow{"Greeter", "1", sessionText("greeter", "active"), false},
        ConsoleRow{"LockScreen", "1", sessionText("lock-screen", "active"), false},
        ConsoleRow{"Background", "1", sessionText("background", "active"), false},
        ConsoleRow{"Manager", "1", sessionText("manager", "active"), false},
        ConsoleRow{"ClassInCapitals", "1", sessionText("USER", "active"), false},
        ConsoleRow{"WithoutAClass", "1", "UID=61000\nACTIVE=1\nSTATE=active\n", false},
        ConsoleRow{"WithoutAUser", "1", "ACTIVE=1\nSTATE=active\nCLASS=user\n", false},
        ConsoleRow{"WithoutAState", "1", "UID=61000\nACTIVE=1\nCLASS=user\n", false},
        ConsoleRow{"Root", "1", "UID=0\nACTIVE=1\nSTATE=active\nCLASS=user\n", false},
        ConsoleRow{"Garbage", "1", "\x01garbage", false}, ConsoleRow{"FileMissing", "1", "", false},
        ConsoleRow{"AnotherSessionsFile", "2", sessionText("user", "active"), false},
        ConsoleRow{"Nobody", "", sessionText("user", "active"), false}),
    [](const auto& row) { return row.param.name; });

TEST_F(LiveSessionProbeSeatPrivateMachineTest, IsNobodysWithoutASeat) {
    session("1", user.uid);
    fs::remove(seatFile);
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    seat("1", user.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, IsNobodysWithoutLogind) {
    const std::string away = "/run/systemd-away";
    fs::rename("/run/systemd", away);
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    fs::rename(away, "/run/systemd");
    letSomebodySit();
}

// Each change is noticed at the next question, whatever is remembered.

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesThatAnotherSessionIsInFront) {
    letSomebodySit();
    session("2", other.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid) << "a session in the background";
    seat("2", other.uid);
    EXPECT_EQ(probe.consoleUser(), other.uid);
    seat("1", user.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesThatNobodyIsInFront) {
    letSomebodySit();
    seat("");
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    letSomebodySit();
    fs::remove(seatFile);
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesThatTheSessionCloses) {
    letSomebodySit();
    session("1", user.uid, "user", "closing");
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    letSomebodySit();
    fs::remove(sessions + "/1");
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesAnotherPersonInASessionOfTheSameName) {
    letSomebodySit();
    session("1", other.uid);
    EXPECT_EQ(probe.consoleUser(), other.uid);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesAFileThatIsChangedInItsPlace) {
    letSomebodySit();
    std::string text = readTestFile(sessions + "/1");
    const std::string before = std::to_string(user.uid);
    text.replace(text.find(before), before.size(), std::to_string(other.uid));
    letTheFileClockTick();
    overwriteTestFile(sessions + "/1", text);
    EXPECT_EQ(probe.consoleUser(), other.uid);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesASessionThatComesAfterItsSeat) {
    seat("1", user.uid);
    fs::remove(sessions + "/1");
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    session("1", user.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, AllocatesNothingWhileNothingChanges) {
    letSomebodySit();
    const std::size_t before = mallocsMade();
    for (int turn = 0; turn < 5; ++turn) {
        EXPECT_EQ(probe.consoleUser(), user.uid);
    }
    EXPECT_EQ(mallocsMade(), before);
    // And that it looks again is seen too.
    session("1", user.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid);
    EXPECT_GT(mallocsMade(), before);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, AllocatesNothingWhileALoginScreenIsInFront) {
    session("1", 110, "greeter");
    seat("1", 110);
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    const std::size_t before = mallocsMade();
    for (int turn = 0; turn < 5; ++turn) {
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
    }
    EXPECT_EQ(mallocsMade(), before);
}

// A program that a person leaves behind keeps their session closing, and at the seat, for ever.
TEST_F(LiveSessionProbeSeatPrivateMachineTest,
       CountsAPersonWhoseSessionIsKeptClosingAfter90Seconds) {
    TimePassing clock;
    letSomebodySit();
    session("1", user.uid, "user", "closing");
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    clock.pass(Seconds{89});
    const std::size_t before = mallocsMade();
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
    clock.pass(Seconds{1});
    EXPECT_EQ(probe.consoleUser(), user.uid) << "though no file has changed";
    clock.pass(Seconds{86400});
    EXPECT_EQ(probe.consoleUser(), user.uid);
    EXPECT_EQ(mallocsMade(), before);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, DoesNotCountAnewForEachSessionThatCloses) {
    TimePassing clock;
    letSomebodySit();
    for (int turn = 0; turn < 3; ++turn) {
        session("1", user.uid, "user", "closing");
        seat("1", user.uid);
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
        clock.pass(Seconds{15});
        session("2", user.uid, "user", "closing");
        seat("2", user.uid);
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
        // Nor does it help to have somebody else there for a moment, or nobody.
        session("3", other.uid, "user", turn == 0 ? "active" : "closing");
        seat("3", other.uid);
        EXPECT_EQ(probe.consoleUser(), turn == 0 ? std::optional(other.uid) : std::nullopt);
        session("4", 110, "greeter");
        seat("4", 110);
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
        seat("");
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
        clock.pass(Seconds{15});
    }
    seat("2", user.uid);
    EXPECT_EQ(probe.consoleUser(), user.uid);
    seat("3", other.uid);
    EXPECT_EQ(probe.consoleUser(), std::nullopt) << "whose own 90 seconds began later";
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, CountsAnewOnceThePersonHasASessionAgain) {
    TimePassing clock;
    letSomebodySit();
    for (int turn = 0; turn < 3; ++turn) {
        const std::string name = std::to_string(turn);
        session(name, user.uid);
        seat(name, user.uid);
        EXPECT_EQ(probe.consoleUser(), user.uid);
        session(name, user.uid, "user", "closing");
        EXPECT_EQ(probe.consoleUser(), std::nullopt);
        clock.pass(Seconds{turn == 1 ? 3600 : 80});
        EXPECT_EQ(probe.consoleUser(), turn == 1 ? std::optional(user.uid) : std::nullopt);
    }
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, CountsASessionThatClosesOnceWhoeverGoesToAndFro) {
    TimePassing clock;
    letSomebodySit();
    session("2", user.uid, "user", "closing");
    for (int turn = 0; turn < 3; ++turn) {
        seat("2", user.uid);
        EXPECT_EQ(probe.consoleUser(), turn < 2 ? std::nullopt : std::optional(user.uid));
        clock.pass(Seconds{60});
        seat("1", user.uid);
        EXPECT_EQ(probe.consoleUser(), user.uid);
    }
}

}  // namespace
}  // namespace halvo::testing
