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
#include <utility>
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

class LiveSessionProbeTest : public ::testing::Test {
  protected:
    LiveSessionProbeTest() { bundle.writeInfo(); }

    [[nodiscard]] bool isRunning(const std::string& path) { return probe->isAppRunning(path, me); }

    [[nodiscard]] bool isRunning() { return isRunning(bundle.path()); }

    // Waits until the process is in `state`; proc_pid_stat(5).
    static void expectState(const TestProcess& process, const std::string& state) {
        const std::string stat = "/proc/" + std::to_string(process.pid()) + "/stat";
        ASSERT_TRUE(eventually(
            [&] { return readTestFile(stat).find(") " + state + " ") != std::string::npos; }));
    }

    TemporaryFolder disk;
    const TestBundle bundle{disk / "Sample.app"};
    const uid_t me = geteuid();
    const std::unique_ptr<SessionProbe> probe = makeLiveSessionProbe();
};

TEST_F(LiveSessionProbeTest, SeesTheAppOfThatUserWhileItRuns) {
    EXPECT_FALSE(isRunning());
    auto first = startProgram(bundle.executable());
    EXPECT_TRUE(isRunning());
    EXPECT_TRUE(isRunning());
    EXPECT_FALSE(probe->isAppRunning(bundle.path(), me + 1));
    EXPECT_FALSE(probe->isAppRunning(bundle.path(), 4294967295));
    first->send(SIGSTOP);
    expectState(*first, "T");
    EXPECT_TRUE(isRunning());
    const auto second = startProgram(bundle.executable());
    first.reset();
    EXPECT_TRUE(isRunning());
    second->send(SIGKILL);
    expectState(*second, "Z");
    EXPECT_FALSE(isRunning());
    second->wait();
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, ComparesPathsAsBytes) {
    fs::create_directory_symlink(disk.path(), disk / "folder");
    fs::create_directory_symlink(bundle.path(), disk / "Link.app");
    // The kernel keeps the file's own path.
    const auto app = startProgram(disk / "Link.app/Contents/MacOS/Sample");
    for (const std::string& path :
         {disk / "folder/Sample.app", disk / "Link.app", bundle.path() + "/", disk / "/Sample.app",
          disk / "./Sample.app", disk / "sample.app", disk / "Missing.app", std::string(),
          bundle.path() + std::string("\0x", 2)}) {
        EXPECT_FALSE(isRunning(path)) << path;
    }
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, DoesNotTakeAnotherProgramOfTheBundleForTheApp) {
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
    for (const std::string& info : {infoText("Missing", "x", "y"), std::string("no property list"),
                                    infoText("../MacOS/Halvo", "x", "y")}) {
        replaceTestFile(usual.info(), info);
        EXPECT_TRUE(isRunning(usual.path())) << info;
    }
}

TEST_F(LiveSessionProbeTest, NoticesThatAnotherExecutableIsNamed) {
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
    second->kill();
    fs::remove(both.folder() + "/Second");
    EXPECT_TRUE(isRunning(both.path())) << "the usual one again";
}

TEST_F(LiveSessionProbeTest, TellsBundlesApartAndFollowsOneThatIsMoved) {
    const TestBundle second(disk / "Second.app");
    second.writeInfo();
    const auto app = startProgram(second.executable());
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_FALSE(isRunning());
        EXPECT_TRUE(isRunning(second.path()));
    }
    fs::rename(second.path(), disk / "Moved.app");
    EXPECT_FALSE(isRunning(second.path()));
    EXPECT_TRUE(isRunning(disk / "Moved.app"));
}

// To the kernel a process whose executable was deleted runs "PATH (deleted)".
TEST_F(LiveSessionProbeTest, DoesNotCountADeletedExecutableWhateverIsCalledSo) {
    const auto app = startProgram(bundle.executable());
    fs::remove(bundle.executable());
    EXPECT_FALSE(isRunning());
    // Another file in its place is another app.
    copyProgram(HALVO_TEST_APP, bundle.executable());
    EXPECT_FALSE(isRunning());
    const std::string called = "Sample (deleted)";
    copyProgram(HALVO_TEST_APP, bundle.folder() + "/" + called);
    replaceTestFile(bundle.info(), infoText(called, "com.example.app", "7QX4KD19MT"));
    EXPECT_FALSE(isRunning());
    const auto really = startProgram(bundle.folder() + "/" + called);
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

TEST_F(LiveSessionProbeTest, AllocatesNothingWhileNothingChanges) {
    const std::string path = bundle.path();
    std::unique_ptr<TestProcess> app;
    for (const bool runs : {false, true}) {
        app = runs ? startProgram(bundle.executable()) : nullptr;
        EXPECT_EQ(isRunning(path), runs);
        const std::size_t before = mallocsMade();
        for (int turn = 0; turn < 5; ++turn) {
            EXPECT_EQ(isRunning(path), runs);
        }
        EXPECT_EQ(mallocsMade(), before) << runs;
    }
}

TEST(MallocCountTest, CountsEveryAllocation) {
    const std::size_t before = mallocsMade();
    // Volatile, or the compiler would remove the unused allocation.
    void* volatile memory = std::malloc(1);
    std::free(memory);
    EXPECT_GT(mallocsMade(), before);
    // By a shared library.
    const std::size_t between = mallocsMade();
    std::free(realpath("/", nullptr));
    EXPECT_GT(mallocsMade(), between);
}

class LiveSessionProbePrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fs::permissions(disk.path(), fs::perms{0755});
        bundle.writeInfo();
    }

    [[nodiscard]] bool isRunning(const Credentials& person) {
        return probe->isAppRunning(bundle.path(), person.uid);
    }

    TemporaryFolder disk;
    const TestBundle bundle{disk / "Sample.app"};
    const std::unique_ptr<SessionProbe> probe = makeLiveSessionProbe();
};

TEST_F(LiveSessionProbePrivateMachineTest, TellsPeopleApartByTheirEffectiveUser) {
    const auto app = startProgram(
        bundle.executable(), [this] { ASSERT_EQ(setresuid(other.uid, user.uid, other.uid), 0); });
    EXPECT_TRUE(isRunning(user));
    EXPECT_FALSE(isRunning(other));
    EXPECT_FALSE(isRunning(0));
    // Of two people's apps each has one.
    const auto others = startProgram(bundle.executable(), [this] { become(other); });
    EXPECT_TRUE(isRunning(user));
    EXPECT_TRUE(isRunning(other));
    EXPECT_FALSE(isRunning(0));
}

// A set-group-id process may not be dumped, so most of its files in /proc belong to root.
TEST_F(LiveSessionProbePrivateMachineTest, SeesAnAppThatMayNotBeDumped) {
    const TestBundle installed("/Applications/Sample.app");
    installed.writeInfo();
    installed.install(appGroup);
    {
        const auto app = startProgram(installed.executable(), [this] { become(user); });
        struct stat status{};
        const std::string files = "/proc/" + std::to_string(app->pid()) + "/exe";
        ASSERT_EQ(lstat(files.c_str(), &status), 0);
        ASSERT_EQ(status.st_uid, 0U) << "it may be dumped";
        EXPECT_TRUE(probe->isAppRunning(installed.path(), user.uid));
        EXPECT_FALSE(probe->isAppRunning(installed.path(), 0));
    }
    fs::remove_all(installed.path());
}

// In a mount namespace of their own people can have any file at any path; and on another file
// system files have the same numbers again.
TEST_F(LiveSessionProbePrivateMachineTest, IsNotFooledByAForgedPathOrFileNumber) {
    copyProgram(HALVO_TEST_APP, disk / "forgery");
    fs::create_directory(disk / "twins");
    const PrivateMount twins("tmpfs", "tmpfs", disk / "twins", 0, "mode=755");
    ASSERT_TRUE(twins.isMounted());
    struct stat status{};
    ASSERT_EQ(stat(bundle.executable().c_str(), &status), 0);
    for (const std::string& forgery :
         {disk / "forgery", copyProgramAsNumber(HALVO_TEST_APP, disk / "twins", status.st_ino)}) {
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
        EXPECT_FALSE(isRunning(user));
        const auto app = startProgram(bundle.executable(), [this] { become(user); });
        EXPECT_TRUE(isRunning(user));
    }
}

TEST_F(LiveSessionProbePrivateMachineTest, AnswersWithoutProcesses) {
    const auto app = startProgram(bundle.executable());
    expectInChild([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
        EXPECT_FALSE(isRunning(0));
        // LeakSanitizer looks into /proc.
        exitAtOnce();
    });
    EXPECT_TRUE(isRunning(0));
}

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

    // seat0 has an active user session, and the probe has read it.
    void openSession() {
        session("1", user.uid);
        seat("1", user.uid);
        ASSERT_EQ(probe->consoleUser(), user.uid);
    }

    inline static const std::string seatFile = "/run/systemd/seats/seat0";
    inline static const std::string sessions = "/run/systemd/sessions";
};

TEST_F(LiveSessionProbeSeatPrivateMachineTest, IsTheUserOfAnActiveSessionOfAPerson) {
    const auto text = [](const std::string& sessionClass, const std::string& state) {
        return "UID=61000\nACTIVE=1\nSTATE=" + state + "\nCLASS=" + sessionClass + "\n";
    };

    const struct {
        // The session that the seat names, if any, and the file of session 1, if any.
        const char* session;
        std::string sessionFile;
        // Whether the user of the session is the console user.
        bool isConsoleUser;
    } rows[] = {
        {"1", text("user", "active"), true},
        {"1", text("user", "opening"), true},
        {"1", text("user", "closing"), false},
        {"1", text("greeter", "active"), false},
        {"1", text("USER", "active"), false},
        {"1", "UID=61000\nACTIVE=1\nSTATE=active\n", false},
        {"1", "ACTIVE=1\nSTATE=active\nCLASS=user\n", false},
        {"1", "UID=61000\nACTIVE=1\nCLASS=user\n", false},
        {"1", "UID=0\nACTIVE=1\nSTATE=active\nCLASS=user\n", false},
        {"1", "\x01garbage", false},
        {"1", "", false},
        {"2", text("user", "active"), false},
        {"", text("user", "active"), false},
    };

    for (const auto& [session, sessionFile, isConsoleUser] : rows) {
        SCOPED_TRACE(session + (" " + sessionFile));
        cleanUp();
        seat(session, 61000);
        if (!sessionFile.empty()) {
            replaceTestFile(sessions + "/1", sessionFile);
        }
        const auto fresh = makeLiveSessionProbe();
        const auto expected = isConsoleUser ? std::optional(61000U) : std::nullopt;
        EXPECT_EQ(fresh->consoleUser(), expected);
        EXPECT_EQ(fresh->consoleUser(), expected) << "the second time";
    }
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, HasNoUserWithoutLogind) {
    const std::string away = "/run/systemd-away";
    fs::rename("/run/systemd", away);
    EXPECT_EQ(probe->consoleUser(), std::nullopt);
    fs::rename(away, "/run/systemd");
    openSession();
}

// At the next question, whatever is remembered.
TEST_F(LiveSessionProbeSeatPrivateMachineTest, NoticesEachChange) {
    seat("1", user.uid);
    EXPECT_EQ(probe->consoleUser(), std::nullopt) << "the seat comes before its session";
    const std::string file = sessions + "/1";
    const std::pair<std::function<void()>, std::optional<uid_t>> changes[] = {
        // In the background, and then in front.
        {[&] { session("2", other.uid); }, user.uid},
        {[&] { seat("2", other.uid); }, other.uid},
        {[&] { seat(""); }, std::nullopt},
        {[&] { fs::remove(seatFile); }, std::nullopt},
        {[&] { session("1", user.uid, "user", "closing"); }, std::nullopt},
        {[&] { fs::remove(file); }, std::nullopt},
        // Another person in a session of the same name.
        {[&] { session("1", other.uid); }, other.uid},
        // A file that is changed in its place.
        {[&] {
             std::string text = readTestFile(file);
             const std::string before = std::to_string(user.uid);
             text.replace(text.find(before), before.size(), std::to_string(other.uid));
             letTheFileClockTick();
             overwriteTestFile(file, text);
         },
         other.uid},
    };
    for (const auto& [change, there] : changes) {
        openSession();
        change();
        EXPECT_EQ(probe->consoleUser(), there);
        EXPECT_EQ(probe->consoleUser(), there) << "the second time";
    }
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, AllocatesNothingWhileNothingChanges) {
    for (const char* sessionClass : {"user", "greeter"}) {
        session("1", user.uid, sessionClass);
        seat("1", user.uid);
        std::size_t before = mallocsMade();
        const auto answer = probe->consoleUser();
        EXPECT_GT(mallocsMade(), before) << "that it looks again is seen";
        before = mallocsMade();
        for (int turn = 0; turn < 5; ++turn) {
            EXPECT_EQ(probe->consoleUser(), answer);
        }
        EXPECT_EQ(mallocsMade(), before) << sessionClass;
    }
}

// A program that a person leaves behind keeps their session closing, and at the seat, for ever.
TEST_F(LiveSessionProbeSeatPrivateMachineTest,
       CountsAPersonWhoseSessionIsKeptClosingAfter90Seconds) {
    TimePassing clock;
    openSession();
    session("1", user.uid, "user", "closing");
    EXPECT_EQ(probe->consoleUser(), std::nullopt);
    clock.pass(Seconds{89});
    const std::size_t before = mallocsMade();
    EXPECT_EQ(probe->consoleUser(), std::nullopt);
    clock.pass(Seconds{1});
    EXPECT_EQ(probe->consoleUser(), user.uid) << "though no file has changed";
    clock.pass(Seconds{86400});
    EXPECT_EQ(probe->consoleUser(), user.uid);
    EXPECT_EQ(mallocsMade(), before);
}

TEST_F(LiveSessionProbeSeatPrivateMachineTest, CountsAClosingSessionOnceDespiteSwitches) {
    struct Step {
        const char* session;
        uid_t person;
        const char* state;
        bool isThere;
        // Then so many seconds pass.
        double pass;
    };

    constexpr const char* active = "active";
    constexpr const char* closing = "closing";
    const uid_t ann = user.uid;
    const uid_t ben = other.uid;
    const std::vector<Step> stories[] = {
        // Nor does it help to have another session close, or another user at the seat for a moment,
        // whose own 90 seconds begin later.
        {{"1", ann, active, true, 0},
         {"1", ann, closing, false, 15},
         {"2", ann, closing, false, 15},
         {"3", ben, active, true, 0},
         {"1", ann, closing, false, 15},
         {"3", ben, closing, false, 15},
         {"2", ann, closing, false, 15},
         {"3", ben, closing, false, 14.9},
         {"2", ann, closing, false, 0.1},
         {"2", ann, closing, true, 0},
         {"3", ben, closing, false, 0}},
        // Anew once the person has a session again.
        {{"1", ann, active, true, 0},
         {"1", ann, closing, false, 80},
         {"1", ann, closing, false, 3600},
         {"1", ann, closing, true, 0},
         {"2", ann, active, true, 0},
         {"2", ann, closing, false, 80},
         {"2", ann, closing, false, 0}},
        // Not of a session that was closing all the while.
        {{"1", ann, active, true, 0},
         {"2", ann, closing, false, 60},
         {"1", ann, active, true, 0},
         {"2", ann, closing, false, 60},
         {"1", ann, active, true, 0},
         {"2", ann, closing, true, 0}},
    };
    for (const auto& story : stories) {
        SCOPED_TRACE(&story - stories);
        const auto fresh = makeLiveSessionProbe();
        TimePassing clock;
        for (const auto& [name, person, state, isThere, seconds] : story) {
            session(name, person, "user", state);
            seat(name, person);
            EXPECT_EQ(fresh->consoleUser(), isThere ? std::optional(person) : std::nullopt)
                << name << " " << state;
            // A login screen in between changes nothing, nor does a seat without a session.
            session("greeter", 110, "greeter");
            seat("greeter", 110);
            EXPECT_EQ(fresh->consoleUser(), std::nullopt);
            seat("");
            EXPECT_EQ(fresh->consoleUser(), std::nullopt);
            clock.pass(Seconds{seconds});
        }
    }
}

}  // namespace
}  // namespace halvo::testing
