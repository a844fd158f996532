// How the helper keeps the app open.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::UnorderedElementsAre;

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

constexpr Seconds silence{6};
constexpr Seconds reopenGap{15};
// A tick comes every 2 seconds, and a busy machine is late.
constexpr Seconds late{5};
// Clear of any opening that would come.
constexpr Seconds wellAfterSilence{11};

class OpeningTest : public ::testing::Test {
  protected:
    // Waits for the app to run; the time until then is `since` to now. Fails the test without it.
    pid_t waitForApp(Seconds limit = silence + late) const {
        EXPECT_TRUE(eventually(limit, [] {
            return !processesRunning(Place::appExecutable).empty();
        })) << "the app was not opened";
        const auto processes = processesRunning(Place::appExecutable);
        return processes.empty() ? -1 : processes.front();
    }

    // The app is gone when this returns, as after a quit.
    static void quit(pid_t app) {
        ASSERT_GT(app, 0);
        kill(app, SIGKILL);
        ASSERT_TRUE(
            eventually(Seconds{5}, [] { return processesRunning(Place::appExecutable).empty(); }));
    }

    [[nodiscard]] bool staysClosed(Seconds span) const {
        return always(span, [] { return processesRunning(Place::appExecutable).empty(); });
    }

    World world;
    std::optional<RunningHelper> helper{std::in_place};
};

TEST_F(OpeningTest, ComesAfterSixSecondsOfSilence) {
    const Seconds before = timeNow();
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const Seconds begun = timeNow();
    const pid_t app = waitForApp();
    EXPECT_GE(timeNow() - before, silence);
    EXPECT_LE(timeNow() - begun, silence + late);
    EXPECT_EQ(helper->count(opening), 1);
    // It tells the helper that it is alive, and so stays the only one.
    EXPECT_TRUE(always(Seconds{4}, [app] {
        return processesRunning(Place::appExecutable) == std::vector<pid_t>{app};
    }));
}

TEST_F(OpeningTest, IsDoneAsThePersonWithNothingOfTheHelpers) {
    // A helper with groups, variables, ignored signals and descriptors that the app is not to have.
    helper.reset();
    helper.emplace(Start{.environment = {"SECRET=1", "LD_LIBRARY_PATH=/nowhere"}, .prepare = [] {
                             constexpr std::array<gid_t, 3> groups{0, 4, 27};
                             setgroups(groups.size(), groups.data());
                             std::signal(SIGUSR1, SIG_IGN);
                             open("/etc/passwd", O_RDONLY);
                         }});
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t app = waitForApp();
    EXPECT_THAT(processNumbers(app, "Uid"), Each(world.user));
    // Real, effective, saved (by which it can call the helper), and of the file system.
    EXPECT_TRUE(eventually(Seconds{5}, [&] {
        return processNumbers(app, "Gid") ==
               std::vector<unsigned long long>{world.user, world.user, world.appGroup, world.user};
    }));
    EXPECT_THAT(processNumbers(app, "Groups"), ElementsAre(world.user));
    // It ignores SIGPIPE itself. That two signals of the C library's own are ignored is how
    // posix_spawn(3) leaves them.
    constexpr unsigned long long own = 1ULL << (SIGPIPE - 1);
    constexpr unsigned long long libraryOnly = 0b11ULL << (32 - 1);
    EXPECT_TRUE(eventually(Seconds{5}, [&] {
        return processNumbers(app, "SigIgn", 16) ==
               std::vector<unsigned long long>{own | libraryOnly};
    }));
    EXPECT_THAT(processNumbers(app, "CapPrm", 16), ElementsAre(0));
    EXPECT_THAT(processNumbers(app, "Umask", 8), ElementsAre(022));
    EXPECT_THAT(
        processWords(app, "environ"),
        UnorderedElementsAre("HOME=" + world.home, "USER=" + world.userName,
                             "LOGNAME=" + world.userName, "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
    const std::string folder = "/proc/" + std::to_string(app);
    EXPECT_EQ(fs::read_symlink(folder + "/cwd"), "/");
    // What it opens itself, to save its record, it closes again.
    std::string inherited;
    EXPECT_TRUE(eventually(Seconds{5}, [&] {
        inherited.clear();
        for (const auto& entry : fs::directory_iterator(folder + "/fd")) {
            std::error_code closed;
            const std::string target = fs::read_symlink(entry.path(), closed);
            if (!closed && target != "/dev/null" && !target.starts_with("socket:") &&
                !target.starts_with("anon_inode:")) {
                inherited += target + " ";
            }
        }
        return inherited.empty();
    })) << inherited;
    EXPECT_EQ(getsid(app), app);
}

// The helper handles SIGTERM; what it does besides must not show in any other signal.
TEST_F(OpeningTest, LeavesSignalsTheirDefaultAndNoZombie) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t app = waitForApp();
    quit(app);
    EXPECT_TRUE(eventually(Seconds{5}, [app] { return kill(app, 0) != 0; })) << "a zombie";
    const pid_t process = helper->process().pid();
    constexpr unsigned long long others = 1ULL << (SIGPIPE - 1) | 1ULL << (SIGCHLD - 1);
    for (const std::string field : {"SigIgn", "SigCgt", "SigBlk"}) {
        EXPECT_EQ(processNumbers(process, field, 16).at(0) & others, 0U) << field;
    }
    helper->process().send(SIGPIPE);
    EXPECT_EQ(helper->wait(), 128 + SIGPIPE);
}

TEST_F(OpeningTest, TellsTheAppThatItWasQuit) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    // It gave a sign of life; then it is quit.
    sleepFor(Seconds{3});
    app.kill();
    const Seconds quitAt = timeNow();
    const pid_t opened = waitForApp();
    EXPECT_LE(timeNow() - quitAt, silence + late);
    EXPECT_THAT(processWords(opened),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
}

TEST_F(OpeningTest, GivesAnAppThatKeepsItsRecordsAsThePerson) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t app = waitForApp();
    const std::string group = "/home/halvo-demo/.local/share/group." HALVO_APP_BUNDLE_ID;
    const SharedFile<KeepAliveState> keepAlive("keepalive.json", group);
    const SharedFile<WidgetSnapshot> widgets("widgets.json", group);
    ASSERT_TRUE(eventually(Seconds{10}, [&] { return widgets.read().has_value(); }))
        << widgets.load().error();
    EXPECT_TRUE(widgets.read()->isRunning);
    const auto state = keepAlive.load();
    ASSERT_TRUE(state.has_value()) << state.error();
    EXPECT_EQ(state->pid, app);
    EXPECT_EQ(state->appPath, Place::app);
    EXPECT_TRUE(state->shouldRelaunch(wallNow()));
    for (const std::string& path : {keepAlive.url(), widgets.url(), group}) {
        struct stat status{};
        ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_uid, world.user) << path;
        EXPECT_NE(status.st_gid, world.appGroup) << "the private group is for the helper alone";
        EXPECT_EQ(status.st_mode & 077, 0U) << path;
    }
    quit(app);
    EXPECT_TRUE(keepAlive.read()->shouldRelaunch(wallNow())) << "it was killed";
}

TEST_F(OpeningTest, ComesNoSoonerThanFifteenSecondsAfterTheLast) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t first = waitForApp();
    const Seconds firstAt = timeNow();
    quit(first);
    const pid_t second = waitForApp(reopenGap + late);
    EXPECT_GE(timeNow() - firstAt, reopenGap - Seconds{0.5});
    EXPECT_NE(second, first);
    EXPECT_EQ(helper->count(opening), 2);
}

TEST_F(OpeningTest, IsTriedAgainWhenTheAppDoesNotComeUp) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    fs::permissions(Place::appExecutable, fs::perms::none);
    EXPECT_TRUE(helper->says(opening, silence + late));
    const Seconds firstAt = timeNow();
    EXPECT_TRUE(eventually(reopenGap + late, [&] { return helper->count(opening) == 2; }));
    EXPECT_GE(timeNow() - firstAt, reopenGap - Seconds{0.5});
    EXPECT_TRUE(world.status().holding);
    EXPECT_TRUE(
        helper->says("error: Opened Halvo 2 times in a row, and it didn't stay; its own "
                     "messages: none are kept",
                     reopenGap + late));
    // What it started and could not become the app is not left behind.
    EXPECT_TRUE(eventually(Seconds{2}, [] { return processesRunning(Place::helper).size() == 1; }));
}

TEST_F(OpeningTest, SaysNothingOfAQuitAfterTheHelperStartedAnew) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    helper->kill();
    const Seconds before = timeNow();
    helper.emplace();
    EXPECT_EQ(helper->count("Holding Ultra Hard mode for another 59*"), 1);
    const pid_t app = waitForApp();
    EXPECT_GE(timeNow() - before, silence);
    EXPECT_THAT(processWords(app), ElementsAre(Place::appExecutable));
}

TEST_F(OpeningTest, IsNotDoneToAnAppThatRunsInSilence) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    sleepFor(Seconds{1});
    app.stop();
    EXPECT_TRUE(always(wellAfterSilence + Seconds{2}, [&] {
        return helper->count(opening) == 0 && processesRunning(Place::appExecutable).size() == 1;
    }));
    app.kill();
    waitForApp();
}

TEST_F(OpeningTest, IsNotHeldUpByTheAppOfAnotherPerson) {
    // One that stays although nothing holds for that person.
    copyFile(HALVO_TEST_CALLER, Place::appExecutable, world.appGroup, 02755);
    TestProcess app({.words = {Place::appExecutable, "run"}, .person = world.other});
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(helper->says(opening, silence + late));
    EXPECT_TRUE(app.isRunning());
}

TEST_F(OpeningTest, WaitsWhileNobodyIsAtTheConsole) {
    world.console({"nobody"});
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(staysClosed(wellAfterSilence));
    const Seconds back = timeNow();
    world.console(world.user);
    waitForApp();
    EXPECT_GE(timeNow() - back, silence);
    EXPECT_EQ(helper->count(opening), 1);
}

TEST_F(OpeningTest, WaitsWhileTheLoginScreenIsAtTheConsole) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // Whoever's account the login screen runs as, it is nobody.
    world.console({"greeter", std::to_string(world.user)});
    EXPECT_TRUE(staysClosed(wellAfterSilence));
    const Seconds back = timeNow();
    world.console(world.user);
    const pid_t app = waitForApp();
    EXPECT_GE(timeNow() - back, silence);
    // Not heard from since the person came back.
    EXPECT_THAT(processWords(app), ElementsAre(Place::appExecutable));
}

TEST_F(OpeningTest, WaitsWhileAnotherPersonIsAtTheConsole) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    world.console(world.other);
    EXPECT_TRUE(staysClosed(wellAfterSilence));
    // The lock holds meanwhile.
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{5}, [] { return isLocked(); }));
    const Seconds back = timeNow();
    world.console(world.user);
    waitForApp();
    EXPECT_GE(timeNow() - back, silence);
}

TEST_F(OpeningTest, WaitsWhileTheSessionIsClosing) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    world.console({"closing"});
    EXPECT_TRUE(staysClosed(wellAfterSilence));
}

TEST_F(OpeningTest, WaitsAfterTheAppSaidThatTheSessionEnds) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    ASSERT_EQ(world.ask({"heartbeat", "--ending"}).status, Reply::yes);
    EXPECT_TRUE(staysClosed(Seconds{20}));
    // The session did not end after all.
    const Seconds back = timeNow();
    ASSERT_EQ(world.heartbeat(), Reply::yes);
    const pid_t app = waitForApp();
    EXPECT_GE(timeNow() - back, silence);
    EXPECT_THAT(processWords(app),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
}

TEST_F(OpeningTest, ForgetsAnEndingSessionWhenSomebodyElseComesToTheConsole) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    ASSERT_EQ(world.ask({"heartbeat", "--ending"}).status, Reply::yes);
    world.console(world.other);
    sleepFor(Seconds{4});
    const Seconds back = timeNow();
    world.console(world.user);
    waitForApp();
    EXPECT_GE(timeNow() - back, silence);
}

TEST_F(OpeningTest, EndsWithTheCommitment) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    quit(waitForApp());
    ASSERT_EQ(world.end(), Reply::yes);
    EXPECT_TRUE(staysClosed(reopenGap + Seconds{3}));
    EXPECT_EQ(helper->count(opening), 1);
}

TEST_F(OpeningTest, IsNotTriedForAnAppThatIsGone) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(eventually(Seconds{5}, [] {
        setLockedByHand(false);
        return rename(Place::app.c_str(), "/Applications/Moved.app") == 0;
    }));
    EXPECT_TRUE(helper->says(opening, silence + late));
    sleepFor(Seconds{1});
    EXPECT_EQ(helper->count("error: *"), 0);
    EXPECT_THAT(processesRunning(Place::helper).size(), 1);
}

}  // namespace
}  // namespace halvo::testing
