// What the mode becomes on macOS, as a process. What is the same on every system:
// HalvoHelper/OpenAsUserTest.cpp.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "tests/FakeDarwin/FakeOpen.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using Words = std::vector<std::string>;

const std::string app = "/Applications/Halvo.app";

class OpenAsUserPrivateMachineTest : public PrivateMachineTest {
  protected:
    // Runs the mode for the app, with more words than it must have.
    [[nodiscard]] ChildResult run(const Words& more = {}) const {
        Words words{std::to_string(user.uid), app};
        words.insert(words.end(), more.begin(), more.end());
        return runInChild([&] {
            // A process that has changed its user is closed to ptrace(2), by which leaks are looked
            // for.
            std::atexit([] { prctl(PR_SET_DUMPABLE, 1); });
            const gid_t inherited[]{0, 4, 61300};
            ASSERT_EQ(setgroups(std::size(inherited), inherited), 0);
            ASSERT_EQ(setenv("LEFT", "over", 1), 0);
            umask(077);
            OpenAsUser::run(words);
        });
    }
};

TEST_F(OpenAsUserPrivateMachineTest, BecomesOpenAsTheUserWithTheUsersGroupsAndNothingOfRoots) {
    const std::string groups = readTestFile("/etc/group");
    overwriteTestFile("/etc/group", groups + "halvo-team:x:61200:" + userName + "\n");
    const std::pair<Words, Words> rows[] = {
        {{}, {"/usr/bin/open", "-g", "-a", app}},
        {{"other", "--after-quit"},
         {"/usr/bin/open", "-g", "-a", app, "--args", "-halvoRelaunchedAfterQuit", "YES"}},
    };
    for (const auto& [more, arguments] : rows) {
        const FakeOpen open;
        EXPECT_EQ(run(more), (ChildResult{0, ""}));
        TestReport report = open.report();
        EXPECT_THAT(report["executable"], ElementsAre("/usr/bin/open"));
        EXPECT_EQ(report["argument"], arguments);
        EXPECT_THAT(report["user"], AllOf(SizeIs(3), Each(std::to_string(user.uid))));
        EXPECT_THAT(report["group"], AllOf(SizeIs(3), Each(std::to_string(user.gid))));
        EXPECT_THAT(report["supplementary"],
                    UnorderedElementsAre(std::to_string(user.gid), "61200"));
        EXPECT_THAT(report["environment"],
                    ElementsAre("HOME=/home/" + userName, "USER=" + userName, "LOGNAME=" + userName,
                                "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
        EXPECT_THAT(report["umask"], ElementsAre("22"));
    }
    overwriteTestFile("/etc/group", groups);
}

TEST_F(OpenAsUserPrivateMachineTest, FailsWithoutAnOpenThatCanBeRun) {
    const FakeOpen open;
    std::filesystem::permissions("/usr/bin/open", std::filesystem::perms{0644});
    EXPECT_EQ(run(), (ChildResult{71, ""}));
    std::filesystem::remove("/usr/bin/open");
    EXPECT_EQ(run(), (ChildResult{71, ""}));
}

}  // namespace
}  // namespace halvo::testing
