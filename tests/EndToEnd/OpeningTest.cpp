// How the helper keeps the app open. When it is opened, and when not, is held by the tests of the
// engine, of the probe of sessions, and in real sessions by those on a booted machine.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

constexpr Seconds silence{6};
// A tick comes every 2 seconds, and a busy machine is late.
constexpr Seconds late{5};

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
    // A helper with groups, variables and descriptors that the app is not to have.
    helper.reset();
    helper.emplace(Start{.environment = {"SECRET=1", "LD_LIBRARY_PATH=/nowhere"}, .prepare = [] {
                             constexpr std::array<gid_t, 3> groups{0, 4, 27};
                             setgroups(groups.size(), groups.data());
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
    EXPECT_THAT(processNumbers(app, "CapPrm", 16), ElementsAre(0));
    EXPECT_THAT(
        processWords(app, "environ"),
        UnorderedElementsAre("HOME=" + world.home, "USER=" + world.userName,
                             "LOGNAME=" + world.userName, "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
    const std::string folder = "/proc/" + std::to_string(app);
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
}

TEST_F(OpeningTest, TellsTheAppThatItWasQuit) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    // It gave a sign of life; then it is quit.
    sleepFor(Seconds{3});
    app.kill();
    EXPECT_THAT(processWords(waitForApp()),
                ElementsAre(Place::appExecutable, "-halvoRelaunchedAfterQuit", "YES"));
}

TEST_F(OpeningTest, GivesAnAppThatKeepsItsRecordsAsThePerson) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t app = waitForApp();
    const std::string group = world.home + "/.local/share/group." HALVO_APP_BUNDLE_ID;
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

TEST_F(OpeningTest, IsNotDoneToAnAppThatRunsInSilence) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    sleepFor(Seconds{1});
    app.stop();
    // Clear of any opening that would come.
    EXPECT_TRUE(always(Seconds{13}, [&] {
        return helper->count(opening) == 0 && processesRunning(Place::appExecutable).size() == 1;
    }));
    app.kill();
    waitForApp();
}

// The app is replaced while it runs.
class UpgradeTest : public OpeningTest {
  protected:
    // Puts a new version in the place of the executable, as installers do it.
    void upgrade() const {
        const std::string next = Place::appExecutable + ".new";
        copyFile(HALVO_APP_BUNDLE "/Contents/MacOS/Halvo", next, world.appGroup, 02755);
        ASSERT_EQ(rename(next.c_str(), Place::appExecutable.c_str()), 0);
    }

    // A running app of the version before, which tells the helper that it is alive.
    TestProcess startFormerApp() const {
        TestProcess app = world.startApp();
        EXPECT_TRUE(eventually(Seconds{5}, [&] { return !app.output().empty(); }));
        sleepFor(Seconds{1});
        upgrade();
        EXPECT_TRUE(processesRunning(Place::appExecutable).empty());
        EXPECT_EQ(processesRunning(Place::appExecutable + " (deleted)").size(), 1);
        return app;
    }
};

TEST_F(UpgradeTest, LeavesTheFormerAppItsConnectionAndCountsItForNothingOnceItIsSilent) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    // It is heard of, so that none is opened.
    EXPECT_TRUE(always(Seconds{12}, [&] { return helper->count(opening) == 0; }));
    EXPECT_TRUE(former.isRunning());
    EXPECT_TRUE(world.status().holding);
    former.stop();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    waitForApp(Seconds{3});
    // The new one is let in and heard of.
    EXPECT_TRUE(always(Seconds{8}, [&] { return helper->count(opening) == 1; }));
    EXPECT_EQ(helper->count("error: *"), 0);
}

TEST_F(UpgradeTest, KeepsTheFormerAppFromConnectingAgain) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    helper->kill();
    helper.emplace();
    EXPECT_TRUE(
        helper->says("error: Refused a caller: the app was replaced since it started; quit "
                     "it and start it anew",
                     Seconds{10}))
        << helper->process().output();
    EXPECT_TRUE(eventually(Seconds{10}, [&] {
        return former.output().find("start it anew") != std::string::npos;
    })) << former.output();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    waitForApp(Seconds{3});
    EXPECT_EQ(world.ask({"status"}).status, Reply::yes);
}

TEST_F(UpgradeTest, IsDoneByTheInstallerWhileTheAppIsLocked) {
    const std::string next = "/tmp/next/Halvo.app";
    fs::remove_all("/tmp/next");
    fs::create_directory("/tmp/next");
    fs::copy(HALVO_APP_BUNDLE, next, fs::copy_options::recursive);
    // Another version, which works as well.
    std::ofstream(next + "/Contents/MacOS/Halvo", std::ios::binary | std::ios::app) << "next";
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = world.startApp();
    EXPECT_TRUE(eventually(Seconds{5}, [&] { return !former.output().empty(); }));
    const auto size = fs::file_size(Place::appExecutable);

    TestProcess installer({.words = {HALVO_SOURCE_FOLDER "/examples/SampleApp/install", "--group",
                                     "halvo-app", "--halvoctl", Place::control, next}});
    EXPECT_EQ(installer.wait(), 0) << installer.output();
    EXPECT_EQ(fs::file_size(Place::appExecutable), size + 4);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(former.isRunning());
    former.kill();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    waitForApp(Seconds{3});
    EXPECT_TRUE(always(Seconds{8}, [&] { return helper->count(opening) == 1; }));
    EXPECT_EQ(helper->count("error: *"), 0);
}

}  // namespace
}  // namespace halvo::testing
