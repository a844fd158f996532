// How the helper opens the app. When it does is covered by the tests of the engine, of
// LiveSessionProbe and, in real sessions, of tests/Booted.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
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
// A tick comes every 2 s, and a busy machine is late.
constexpr Seconds lateness{5};
// By then a silent app would have been opened again.
constexpr Seconds wellAfter = silence + Seconds{4};

class OpeningTest : public ::testing::Test {
  protected:
    // Waits for the app to run, and fails the test unless it does within `limit`.
    pid_t waitForApp(Seconds limit = silence + lateness) const {
        EXPECT_TRUE(eventually(limit, [] {
            return !processesRunning(Place::appExecutable).empty();
        })) << "the app was not opened";
        const auto processes = processesRunning(Place::appExecutable);
        return processes.empty() ? -1 : processes.front();
    }

    // Waits until the helper has admitted that app, and told it that a commitment holds: then the
    // app says so in its record.
    void expectServed(pid_t app) const {
        EXPECT_TRUE(eventually(Seconds{10}, [&] {
            const auto state = keepAlive.read();
            return state && state->pid == app && state->ultraHard;
        })) << "the helper does not serve the app";
    }

    World world;
    std::optional<RunningHelper> helper{std::in_place};
    const std::string group = world.home + "/.local/share/group." HALVO_APP_BUNDLE_ID;
    const SharedFile<KeepAliveState> keepAlive{"keepalive.json", group};
};

TEST_F(OpeningTest, ComesAfterSixSecondsOfSilence) {
    const Seconds before = timeNow();
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const Seconds begun = timeNow();
    const pid_t app = waitForApp();
    EXPECT_GE(timeNow() - before, silence);
    EXPECT_LE(timeNow() - begun, silence + lateness);
    EXPECT_EQ(helper->count(opening), 1);
    expectServed(app);
    EXPECT_EQ(processesRunning(Place::appExecutable), std::vector<pid_t>{app});
}

TEST_F(OpeningTest, RunsTheAppAsTheUserAndInheritsNothing) {
    // A helper with groups, variables and descriptors that the app must not inherit.
    helper.reset();
    helper.emplace(
        ProcessOptions{.environment = {"SECRET=1", "LD_LIBRARY_PATH=/nowhere"}, .prepare = [] {
                           constexpr std::array<gid_t, 3> groups{0, 4, 27};
                           setgroups(groups.size(), groups.data());
                           open("/etc/passwd", O_RDONLY);
                       }});
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t app = waitForApp();
    EXPECT_THAT(processNumbers(app, "Uid"), Each(world.user));
    // Real, effective, saved (which admits it to the helper) and file-system group.
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
    // The app itself opens files for a moment, to save its records.
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

TEST_F(OpeningTest, LetsTheAppKeepItsRecordsAsTheUser) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    expectServed(waitForApp());
    const SharedFile<WidgetSnapshot> widgets("widgets.json", group);
    ASSERT_TRUE(eventually(Seconds{10}, [&] { return widgets.read().has_value(); }))
        << widgets.load().error();
    for (const std::string& path : {keepAlive.url(), widgets.url(), group}) {
        struct stat status{};
        ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_uid, world.user) << path;
        EXPECT_NE(status.st_gid, world.appGroup)
            << "the private group is only for calls of the helper";
        EXPECT_EQ(status.st_mode & 077, 0U) << path;
    }
}

TEST_F(OpeningTest, LeavesARunningAppAloneThatIsSilent) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    expectServed(app.pid());
    app.stop();
    EXPECT_TRUE(always(wellAfter, [&] {
        return helper->count(opening) == 0 && processesRunning(Place::appExecutable).size() == 1;
    }));
    app.kill();
    waitForApp();
}

// The app's executable is replaced while it runs.
class UpgradeTest : public OpeningTest {
  protected:
    // Replaces the executable by rename(2), as installers do.
    void upgrade() const {
        const std::string next = Place::appExecutable + ".new";
        copyFile(HALVO_APP_BUNDLE "/Contents/MacOS/Halvo", next, world.appGroup, 02755);
        ASSERT_EQ(rename(next.c_str(), Place::appExecutable.c_str()), 0);
    }

    // A running app whose executable was replaced after the helper had admitted it.
    TestProcess startOldApp() const {
        TestProcess app = world.startApp();
        expectServed(app.pid());
        upgrade();
        EXPECT_TRUE(processesRunning(Place::appExecutable).empty());
        EXPECT_EQ(processesRunning(Place::appExecutable + " (deleted)").size(), 1);
        return app;
    }
};

TEST_F(UpgradeTest, KeepsTheConnectionOfTheOldAppUntilItIsSilent) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess old = startOldApp();
    // Its heartbeats are taken, so no app is opened.
    EXPECT_TRUE(always(wellAfter, [&] { return helper->count(opening) == 0; }));
    EXPECT_TRUE(old.isRunning());
    EXPECT_TRUE(world.status().holding);
    old.stop();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    expectServed(waitForApp(Seconds{3}));
    EXPECT_EQ(helper->count(opening), 1);
    EXPECT_EQ(helper->count("error: *"), 0);
}

TEST_F(UpgradeTest, RefusesNewConnectionsOfTheOldApp) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess old = startOldApp();
    helper->kill();
    helper.emplace();
    EXPECT_TRUE(
        helper->says("error: Refused a caller: the app was replaced since it started; quit "
                     "it and start it anew",
                     Seconds{10}))
        << helper->process().output();
    EXPECT_TRUE(eventually(Seconds{10}, [&] {
        return old.output().contains("Quit Halvo and start it again");
    })) << old.output();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    waitForApp(Seconds{3});
    EXPECT_EQ(world.ask({"status"}).status, Reply::yes);
}

TEST_F(UpgradeTest, InstallerReplacesALockedApp) {
    const std::string next = "/tmp/next/Halvo.app";
    fs::remove_all("/tmp/next");
    fs::create_directory("/tmp/next");
    fs::copy(HALVO_APP_BUNDLE, next, fs::copy_options::recursive);
    // Another version: bytes after the end of an ELF file are ignored.
    std::ofstream(next + "/Contents/MacOS/Halvo", std::ios::binary | std::ios::app) << "next";
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess old = world.startApp();
    EXPECT_TRUE(eventually(Seconds{5}, [&] { return !old.output().empty(); }));
    const auto size = fs::file_size(Place::appExecutable);

    TestProcess installer({.words = {HALVO_SOURCE_FOLDER "/examples/SampleApp/install", "--group",
                                     "halvo-app", "--halvoctl", Place::control, next}});
    EXPECT_EQ(installer.wait(), 0) << installer.output();
    EXPECT_EQ(fs::file_size(Place::appExecutable), size + 4);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(old.isRunning());
    old.kill();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    expectServed(waitForApp(Seconds{3}));
    EXPECT_EQ(helper->count(opening), 1);
    EXPECT_EQ(helper->count("error: *"), 0);
}

}  // namespace
}  // namespace halvo::testing
