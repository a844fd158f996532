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
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;
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

const User ann{501, 20, "ann", "/Users/ann"};
const Words annsEnvironment{"HOME=/Users/ann", "USER=ann", "LOGNAME=ann",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};

TEST(OpenAsUserOnMacOSTest, BecomesOpen) {
    EXPECT_EQ(commandFor({501, app, false}, ann),
              (Command{"/usr/bin/open", {"/usr/bin/open", "-g", "-a", app}, annsEnvironment}));
    EXPECT_EQ(
        commandFor({501, app, true}, ann),
        (Command{"/usr/bin/open",
                 {"/usr/bin/open", "-g", "-a", app, "--args", "-halvoRelaunchedAfterQuit", "YES"},
                 annsEnvironment}));
}

TEST(OpenAsUserProcessTest, RefusesBadWords) {
    // The last two are in no account files.
    for (const Words& words :
         {Words{}, Words{"0", app}, Words{"61999", app}, Words{"4294967294", app}}) {
        EXPECT_EQ(statusOf({geteuid(), getegid()}, words), 64);
    }
}

// It takes the privileges of whoever runs it for what they are.
TEST(OpenAsUserProcessTest, RefusesToRunForSomebodyWhoIsNotRoot) {
    const Person person = geteuid() == 0 ? nobody : Person{geteuid(), getegid()};
    EXPECT_EQ(statusOf(person, {"1", app}), 77);
    EXPECT_EQ(statusOf(person, {std::to_string(person.uid), app}), 77);
}

class OpenAsUserPrivateMachineTest : public PrivateMachineTest {
  protected:
    [[nodiscard]] Words request(const Words& more = {}) const {
        Words words{std::to_string(user.uid), app};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
};

TEST_F(OpenAsUserPrivateMachineTest, BecomesOpenAsTheUserWithTheUsersGroupsAndNothingOfRoots) {
    const FakeOpen open;
    const std::string groups = halvo::testing::readTestFile("/etc/group");
    halvo::testing::overwriteTestFile("/etc/group",
                                      groups + "halvo-team:x:61200:" + userName + "\n");
    const ChildResult result = runInChild([&] {
        const gid_t inherited[]{0, 4, 61300};
        ASSERT_EQ(setgroups(std::size(inherited), inherited), 0);
        ASSERT_EQ(setenv("LEFT", "over", 1), 0);
        umask(077);
        run(request({"other", "--after-quit"}));
    });
    halvo::testing::overwriteTestFile("/etc/group", groups);
    EXPECT_EQ(result.status, 0) << result.output;
    TestReport report = open.report();
    EXPECT_THAT(report["executable"], ElementsAre("/usr/bin/open"));
    EXPECT_THAT(report["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app, "--args",
                                                "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(report["user"], AllOf(SizeIs(3), Each(std::to_string(user.uid))));
    EXPECT_THAT(report["group"], AllOf(SizeIs(3), Each(std::to_string(user.gid))));
    EXPECT_THAT(report["supplementary"], UnorderedElementsAre(std::to_string(user.gid), "61200"));
    EXPECT_THAT(report["environment"],
                ElementsAre("HOME=/home/" + userName, "USER=" + userName, "LOGNAME=" + userName,
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
    EXPECT_THAT(report["umask"], ElementsAre("22"));
}

TEST_F(OpenAsUserPrivateMachineTest, FailsWithoutAnOpenThatCanBeRun) {
    const FakeOpen open;
    std::filesystem::permissions("/usr/bin/open", std::filesystem::perms{0644});
    EXPECT_EQ(statusOf({0, 0}, request()), 71);
    std::filesystem::remove("/usr/bin/open");
    EXPECT_EQ(statusOf({0, 0}, request()), 71);
}

TEST_F(OpenAsUserPrivateMachineTest, RefusesWhoIsTheUserAlready) {
    const FakeOpen open;
    EXPECT_EQ(statusOf(user, request()), 77);
    EXPECT_FALSE(open.wasStarted());
}

}  // namespace
}  // namespace halvo::OpenAsUser
