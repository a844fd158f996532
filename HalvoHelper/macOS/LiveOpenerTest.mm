#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/LiveOpener.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string helper = "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";

// The helper lies in a bundle that is root's alone, until a test changes that.
class LiveOpenerPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        std::filesystem::create_directory(app);
        std::filesystem::create_directories(std::filesystem::path(helper).parent_path());
        writeTestFile(helper, "the helper");
        fake::world().mainInfo =
            "<plist version=\"1.0\"><dict><key>HalvoAppBundleID</key><string>com.example.app"
            "</string><key>HalvoTeamID</key><string>7QX4KD19MT</string></dict></plist>";
        fake::world().signedFiles["the helper"] = identity.helperRequirement();
    }

    void cleanUp() override {
        ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(false, bundle);
        std::filesystem::remove_all(bundle);
        ASSERT_EQ(chmod(applications.c_str(), 0755), 0);
        HelperCopy::remove(identity);
    }

    const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
    const std::string applications = "/Applications";
    const std::string bundle = applications + "/Halvo.app";
    const std::string copy = "/Library/Application Support/com.example.app.helper.copy/HalvoHelper";
    TemporaryFolder disk;
    const std::string app = disk / "Halvo.app";
    LiveOpener opener{helper};
};

TEST_F(LiveOpenerPrivateMachineTest, StartsTheHelpersExecutableThroughLaunchctlEachTime) {
    // One may have any name, also one that is not text: no folder of the app's is named so, but a
    // disk may have one.
    const std::string odd = disk / "H\xC3\xA4 \"l$vo\n.app";
    const std::string broken = disk / "\xFF.app";
    std::filesystem::create_directory(odd);
    std::filesystem::create_directory(broken);
    opener.open(app, 501, false);
    opener.open(app, 4294967295, true);
    opener.open(odd, 501, false);
    opener.open(broken, 501, true);
    const auto launch = [](std::vector<std::string> words) {
        return fake::Launch{"/bin/launchctl", std::move(words), {}, true};
    };
    EXPECT_THAT(fake::world().launches,
                ElementsAre(launch({"asuser", "501", helper, "--open-as-user", "501", app}),
                            launch({"asuser", "4294967295", helper, "--open-as-user", "4294967295",
                                    app, "--after-quit"}),
                            launch({"asuser", "501", helper, "--open-as-user", "501", odd}),
                            launch({"asuser", "501", helper, "--open-as-user", "501", "",
                                    "--after-quit"})));
    EXPECT_THAT(fake::world().log, IsEmpty());
}

TEST_F(LiveOpenerPrivateMachineTest, TellsWhereTheMessagesAreOfAnAppThatDoesNotStay) {
    for (int turn = 0; turn < 6; ++turn) {
        opener.open(app, 501, false);
    }
    const auto told = [&](const std::string& times) {
        return fake::LogEntry{"app.halvo", "Helper", true,
                              "Opened Halvo " + times +
                                  " times in a row, and it didn't stay; its own messages: log show "
                                  "--last 10m --predicate 'processImagePath CONTAINS \"" +
                                  app + "/\"'"};
    };
    EXPECT_THAT(fake::world().log, ElementsAre(told("2"), told("4")));
    EXPECT_EQ(fake::world().launches.back(), fake::world().launches.front())
        << "there is one way only";
    // Never a command that a path could end.
    const std::string odd = disk / "H'$(x)'.app";
    std::filesystem::create_directory(odd);
    for (int turn = 0; turn < 3; ++turn) {
        opener.open(odd, 501, false);
    }
    EXPECT_THAT(fake::errors().back(), ::testing::EndsWith("CONTAINS \".app/\"'"));
}

TEST_F(LiveOpenerPrivateMachineTest, LeavesBlockedWhatTheThreadBlocks) {
    sigset_t some;
    sigset_t before;
    sigset_t after;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &some, &before);
    opener.open(app, 501, false);
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
}

TEST_F(LiveOpenerPrivateMachineTest, DoesNothingWithoutAnApp) {
    std::filesystem::create_directory_symlink(disk / "nothing", disk / "Link.app");
    for (const std::string& path :
         {disk / "Missing.app", disk / "Link.app", std::string(), app + std::string("\0x", 2)}) {
        opener.open(path, 501, false);
    }
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_THAT(fake::world().log, IsEmpty());
}

TEST_F(LiveOpenerPrivateMachineTest, SaysWhyTheChildCouldNotBeStarted) {
    fake::world().launchError = "The file \xE2\x80\x9Claunchctl\xE2\x80\x9D doesn't exist.";
    opener.open(app, 501, false);
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_THAT(fake::world().log,
                ElementsAre(fake::LogEntry{"app.halvo", "Helper", true,
                                           "Couldn't open Halvo: " + *fake::world().launchError}));
}

TEST_F(LiveOpenerPrivateMachineTest, NeverStartsAsRootWhatLiesInABundleOfAnotherUser) {
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    opener.open(app, 501, true);
    ASSERT_EQ(fake::world().launches.size(), 1U);
    EXPECT_EQ(fake::world().launches[0].executable, "/bin/launchctl");
    EXPECT_THAT(fake::world().launches[0].arguments,
                ElementsAre("asuser", "501", copy, "--open-as-user", "501", app, "--after-quit"));
    EXPECT_THAT(fake::world().log, IsEmpty());
}

// As "/Applications" is on every Mac: the admin group's.
TEST_F(LiveOpenerPrivateMachineTest, StartsALockedBundleOfRootsInAFolderOfAdminsAsItLies) {
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    const auto program = [this](const std::string& of) {
        fake::world().launches.clear();
        opener.open(of, 501, false);
        return fake::world().launches.empty() ? "" : fake::world().launches[0].arguments.at(2);
    };
    const auto change = [](const std::string& path, mode_t mode) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    };
    change(applications, 0775);
    EXPECT_EQ(program(bundle), copy) << "another could be put in its place";
    ASSERT_TRUE(flags.setLocked(true, bundle));
    EXPECT_EQ(program(bundle), helper);
    EXPECT_EQ(program(app), copy) << "the helper is in another bundle";
    change(bundle + "/Contents", 0777);
    EXPECT_EQ(program(bundle), copy) << "what lies in the bundle is not root's alone";
    change(bundle + "/Contents", 0755);
    change("/", 0777);
    EXPECT_EQ(program(bundle), "") << "the folder itself could be another, and the copy's";
    EXPECT_EQ(fake::errors().size(), 1U);
    change("/", 0755);
    EXPECT_EQ(program(bundle), helper);
    EXPECT_EQ(fake::world().log.size(), 1U);

    const std::string link = "/Link";
    std::filesystem::create_directory_symlink(applications, link);
    // The stand-in keeps flags by path.
    ASSERT_TRUE(flags.setLocked(true, link + "/Halvo.app"));
    LiveOpener linked{link + helper.substr(applications.size())};
    fake::world().launches.clear();
    linked.open(link + "/Halvo.app", 501, false);
    std::filesystem::remove(link);
    ASSERT_EQ(fake::world().launches.size(), 1U);
    EXPECT_EQ(fake::world().launches[0].arguments.at(2), copy) << "the folder is a link";
}

TEST_F(LiveOpenerPrivateMachineTest, StartsNothingWhenItsCopyIsNotSignedAsTheHelperMustBe) {
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    writeTestFile(helper, "a way to root");
    opener.open(app, 501, false);
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_THAT(fake::errors(), ElementsAre("Couldn't open Halvo: " + copy +
                                            ".unchecked: code object is not signed at all"));
    EXPECT_EQ(fake::world().log.size(), 1U);
    // There is nothing to check it by.
    fake::world().mainInfo = "";
    opener.open(app, 501, false);
    EXPECT_THAT(fake::world().launches, IsEmpty());
    EXPECT_EQ(fake::errors().back(),
              "Couldn't open Halvo: The helper has no team or app identifier in its Info.plist");
}

TEST_F(LiveOpenerPrivateMachineTest, IsMadeWithoutTheCopyOfAHelperThatWasKilled) {
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    opener.open(app, 501, false);
    EXPECT_TRUE(std::filesystem::exists(copy));
    const LiveOpener next{helper};
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(copy).parent_path()));
}

}  // namespace
}  // namespace halvo::testing
