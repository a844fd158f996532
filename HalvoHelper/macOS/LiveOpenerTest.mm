#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelper/LiveOpener.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string helper = "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";

class LiveOpenerTest : public ::testing::Test {
  protected:
    LiveOpenerTest() {
        fake::reset();
        std::filesystem::create_directory(app);
    }

    TemporaryFolder disk;
    const std::string app = disk / "Halvo.app";
    LiveOpener opener{helper};
};

TEST_F(LiveOpenerTest, StartsTheHelpersExecutableThroughLaunchctl) {
    opener.open(app, 501, false);
    const fake::Launch expected{
        "/bin/launchctl", {"asuser", "501", helper, "--open-as-user", "501", app}, {}, true};
    EXPECT_THAT(fake::world().launches, ElementsAre(expected));
    EXPECT_THAT(fake::world().log, IsEmpty());
}

TEST_F(LiveOpenerTest, TellsWhenItIsAfterAQuit) {
    opener.open(app, 4294967295, true);
    const fake::Launch expected{
        "/bin/launchctl",
        {"asuser", "4294967295", helper, "--open-as-user", "4294967295", app, "--after-quit"},
        {},
        true};
    EXPECT_THAT(fake::world().launches, ElementsAre(expected));
}

TEST_F(LiveOpenerTest, OpensAgainEachTimeItIsAsked) {
    opener.open(app, 501, false);
    opener.open(app, 501, false);
    EXPECT_EQ(fake::world().launches.size(), 2U);
}

TEST_F(LiveOpenerTest, TellsWhereTheMessagesAreOfAnAppThatDoesNotStay) {
    for (int turn = 0; turn < 6; ++turn) {
        opener.open(app, 501, false);
    }
    const auto told = [&](const std::string& times) {
        return fake::LogEntry{"app.halvo", "Helper", true,
                              "Opened Halvo " + times +
                                  " times in a row, and it didn't stay; its own messages: log show "
                                  "--last 10m --predicate 'processImagePath BEGINSWITH \"" +
                                  app + "/\"'"};
    };
    EXPECT_THAT(fake::world().log, ElementsAre(told("2"), told("4")));
    EXPECT_EQ(fake::world().launches.back(), fake::world().launches.front())
        << "there is one way only";
}

TEST_F(LiveOpenerTest, OpensAnOddlyNamedApp) {
    const std::string odd = disk / "H\xC3\xA4 \"l$vo\n.app";
    std::filesystem::create_directory(odd);
    opener.open(odd, 501, false);
    ASSERT_EQ(fake::world().launches.size(), 1U);
    EXPECT_EQ(fake::world().launches[0].arguments.back(), odd);
}

TEST_F(LiveOpenerTest, DoesNothingWithoutAnApp) {
    std::filesystem::create_directory_symlink(disk / "nothing", disk / "Link.app");
    for (const std::string& path :
         {disk / "Missing.app", disk / "Link.app", std::string(), app + std::string("\0x", 2)}) {
        opener.open(path, 501, false);
    }
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_THAT(fake::world().log, IsEmpty());
}

TEST_F(LiveOpenerTest, SaysWhyTheChildCouldNotBeStarted) {
    fake::world().launchError = "The file \xE2\x80\x9Claunchctl\xE2\x80\x9D doesn't exist.";
    opener.open(app, 501, false);
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_THAT(fake::world().log,
                ElementsAre(fake::LogEntry{"app.halvo", "Helper", true,
                                           "Couldn't open Halvo: " + *fake::world().launchError}));
}

// No folder of the app's is named so, but a disk may have one.
TEST_F(LiveOpenerTest, SurvivesAPathThatIsNotText) {
    const std::string odd = disk / "\xFF.app";
    std::filesystem::create_directory(odd);
    opener.open(odd, 501, true);
    ASSERT_EQ(fake::world().launches.size(), 1U);
    EXPECT_THAT(fake::world().launches[0].arguments,
                ElementsAre("asuser", "501", helper, "--open-as-user", "501", "", "--after-quit"));
}

}  // namespace
}  // namespace halvo::testing
