// The mode as a process. What it decides without the system: HalvoHelper/OpenAsUserTest.cpp.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "tests/FakeDarwin/FakeOpen.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::OpenAsUser {
namespace {

using halvo::testing::become;
using halvo::testing::ChildResult;
using halvo::testing::FakeOpen;
using halvo::testing::Person;
using halvo::testing::PrivateMachineTest;
using halvo::testing::runInChild;
using halvo::testing::TestReport;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

using Words = std::vector<std::string>;

constexpr Person nobody{65534, 65534};
const std::string app = "/Applications/Halvo.app";

// How the mode ends when `person` calls it with these words after its own. It says nothing.
int statusOf(const Person& person, const Words& words) {
    const ChildResult result = runInChild([&] {
        // A process that has changed its user is closed to ptrace(2), by which leaks are looked
        // for.
        std::atexit([] { prctl(PR_SET_DUMPABLE, 1); });
        if (person.uid != geteuid()) {
            become(person);
        }
        run(words);
    });
    EXPECT_EQ(result.output, "");
    return result.status;
}

// ------------------------------------------------------------------------------------ the command

const User ann{501, 20, "ann", "/Users/ann"};
const Words annsEnvironment{"HOME=/Users/ann", "USER=ann", "LOGNAME=ann",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};

TEST(OpenAsUserOnMacOSTest, BecomesOpen) {
    EXPECT_EQ(commandFor({501, app, false}, ann),
              (Command{"/usr/bin/open", {"/usr/bin/open", "-g", "-a", app}, annsEnvironment}));
}

TEST(OpenAsUserOnMacOSTest, TellsTheAppThatItIsBackAfterAQuit) {
    EXPECT_EQ(
        commandFor({501, app, true}, ann),
        (Command{"/usr/bin/open",
                 {"/usr/bin/open", "-g", "-a", app, "--args", "-halvoRelaunchedAfterQuit", "YES"},
                 annsEnvironment}));
}

// ------------------------------------------------------------------------------------ the process

class OpenAsUserBadWordsTest : public ::testing::TestWithParam<Words> {};

TEST_P(OpenAsUserBadWordsTest, AreRefused) {
    EXPECT_EQ(statusOf({geteuid(), getegid()}, GetParam()), 64);
}

INSTANTIATE_TEST_SUITE_P(Words, OpenAsUserBadWordsTest,
                         // The last is nobody's number.
                         ::testing::Values(Words{}, Words{"0", app}, Words{"4294967294", app}));

// It takes the privileges of whoever runs it for what they are.
TEST(OpenAsUserProcessTest, RefusesToRunForSomebodyWhoIsNotRoot) {
    const Person person = geteuid() == 0 ? nobody : Person{geteuid(), getegid()};
    EXPECT_EQ(statusOf(person, {"1", app}), 77);
    EXPECT_EQ(statusOf(person, {std::to_string(person.uid), app}), 77);
}

// -------------------------------------------------------------------------- as root, in a machine

class OpenAsUserPrivateMachineTest : public PrivateMachineTest {
  protected:
    [[nodiscard]] Words request(const Words& more = {}) const {
        Words words{std::to_string(user.uid), app};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
};

TEST_F(OpenAsUserPrivateMachineTest, BecomesOpenAsTheUser) {
    const FakeOpen open;
    EXPECT_EQ(statusOf({0, 0}, request()), 0);
    TestReport report = open.report();
    const std::string uid = std::to_string(user.uid);
    const std::string gid = std::to_string(user.gid);
    EXPECT_THAT(report["executable"], ElementsAre("/usr/bin/open"));
    EXPECT_THAT(report["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app));
    EXPECT_THAT(report["user"], ElementsAre(uid, uid, uid));
    EXPECT_THAT(report["group"], ElementsAre(gid, gid, gid));
    EXPECT_THAT(report["supplementary"], ElementsAre(gid));
}

TEST_F(OpenAsUserPrivateMachineTest, GivesOpenTheUsersEnvironmentAndNothingElse) {
    const FakeOpen open;
    EXPECT_EQ(setenv("LEFT", "over", 1), 0);
    EXPECT_EQ(statusOf({0, 0}, request()), 0);
    EXPECT_THAT(open.report()["environment"],
                ElementsAre("HOME=/home/" + userName, "USER=" + userName, "LOGNAME=" + userName,
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
}

TEST_F(OpenAsUserPrivateMachineTest, TellsTheAppThatItIsBackAfterAQuit) {
    const FakeOpen open;
    EXPECT_EQ(statusOf({0, 0}, request({"other", "--after-quit"})), 0);
    EXPECT_THAT(open.report()["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app, "--args",
                                                       "-halvoRelaunchedAfterQuit", "YES"));
}

TEST_F(OpenAsUserPrivateMachineTest, GivesOpenTheUsersGroupsAndNoneOfRoots) {
    const FakeOpen open;
    const std::string groups = halvo::testing::readTestFile("/etc/group");
    halvo::testing::overwriteTestFile("/etc/group",
                                      groups + "halvo-team:x:61200:" + userName + "\n");
    const ChildResult result = runInChild([&] {
        const gid_t inherited[]{0, 4, 61300};
        ASSERT_EQ(setgroups(std::size(inherited), inherited), 0);
        run(request());
    });
    halvo::testing::overwriteTestFile("/etc/group", groups);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(open.report()["supplementary"],
                UnorderedElementsAre(std::to_string(user.gid), "61200"));
}

TEST_F(OpenAsUserPrivateMachineTest, OpensWithTheUsualUmask) {
    const FakeOpen open;
    const ChildResult result = runInChild([&] {
        umask(077);
        run(request());
    });
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(open.report()["umask"], ElementsAre("22"));
}

TEST_F(OpenAsUserPrivateMachineTest, FailsWithoutOpen) {
    const FakeOpen open;
    std::filesystem::remove("/usr/bin/open");
    EXPECT_EQ(statusOf({0, 0}, request()), 71);
}

TEST_F(OpenAsUserPrivateMachineTest, FailsWhenOpenCannotBeRun) {
    const FakeOpen open;
    std::filesystem::permissions("/usr/bin/open", std::filesystem::perms{0644});
    EXPECT_EQ(statusOf({0, 0}, request()), 71);
}

TEST_F(OpenAsUserPrivateMachineTest, RefusesUnknownUsersAndRoot) {
    const FakeOpen open;
    EXPECT_EQ(statusOf({0, 0}, {"61999", app}), 64);
    EXPECT_EQ(statusOf({0, 0}, {"0", app}), 64);
    EXPECT_FALSE(open.wasStarted());
}

TEST_F(OpenAsUserPrivateMachineTest, RefusesWhoIsTheUserAlready) {
    const FakeOpen open;
    EXPECT_EQ(statusOf(user, request()), 77);
    EXPECT_FALSE(open.wasStarted());
}

}  // namespace
}  // namespace halvo::OpenAsUser
