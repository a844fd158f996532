// The app is replaced while it runs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

const std::string replaced =
    "error: Refused a caller: the app was replaced since it started; quit it and start it anew";

class UpgradeTest : public ::testing::Test {
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

    World world;
    std::optional<RunningHelper> helper{std::in_place};
};

TEST_F(UpgradeTest, LeavesTheFormerAppItsConnection) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    // It is heard of, so that none is opened.
    EXPECT_TRUE(always(Seconds{12}, [&] { return helper->count(opening) == 0; }));
    EXPECT_TRUE(former.isRunning());
    EXPECT_TRUE(world.status().holding);
    EXPECT_TRUE(isLocked());
}

TEST_F(UpgradeTest, MakesTheFormerAppCountForNothingOnceItIsSilent) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    former.stop();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    EXPECT_TRUE(
        eventually(Seconds{3}, [] { return processesRunning(Place::appExecutable).size() == 1; }));
    // The new one is let in and heard of.
    EXPECT_TRUE(always(Seconds{8}, [&] { return helper->count(opening) == 1; }));
    EXPECT_EQ(helper->count("error: *"), 0);
}

TEST_F(UpgradeTest, KeepsTheFormerAppFromConnectingAgain) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    helper->kill();
    helper.emplace();
    EXPECT_TRUE(helper->says(replaced, Seconds{10})) << helper->process().output();
    EXPECT_TRUE(eventually(Seconds{10}, [&] {
        return former.output().find("start it anew") != std::string::npos;
    })) << former.output();
    EXPECT_TRUE(helper->says(opening, Seconds{12}));
    EXPECT_TRUE(
        eventually(Seconds{3}, [] { return processesRunning(Place::appExecutable).size() == 1; }));
    EXPECT_EQ(world.ask({"status"}).status, Reply::yes);
}

TEST_F(UpgradeTest, CannotBeForgedByAFileOfThatName) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess former = startFormerApp();
    // Even root's own copy under the name that the kernel gives to what was replaced.
    copyFile(HALVO_APP_BUNDLE "/Contents/MacOS/Halvo", Place::appExecutable + " (deleted)",
             world.appGroup, 02755);
    helper->kill();
    helper.emplace();
    EXPECT_TRUE(helper->says(replaced, Seconds{10})) << helper->process().output();
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
    EXPECT_TRUE(
        eventually(Seconds{3}, [] { return processesRunning(Place::appExecutable).size() == 1; }));
    EXPECT_TRUE(always(Seconds{8}, [&] { return helper->count(opening) == 1; }));
    EXPECT_EQ(helper->count("error: *"), 0);
}

}  // namespace
}  // namespace halvo::testing
