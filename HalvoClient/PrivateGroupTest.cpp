#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using ::testing::HasSubstr;

constexpr uid_t person = 64001;
constexpr gid_t ownGroup = 64002;
constexpr gid_t privateGroup = 64003;

struct Groups {
    gid_t real;
    gid_t effective;
    gid_t saved;

    bool operator==(const Groups&) const = default;
};

constexpr Groups asideGroups{ownGroup, ownGroup, privateGroup};

Groups groupsNow() {
    Groups groups{};
    getresgid(&groups.real, &groups.effective, &groups.saved);
    return groups;
}

// Makes this process what the kernel makes of a person's process that executes a set-group-id file.
void becomeSetGroupID() {
    ASSERT_EQ(setgroups(0, nullptr), 0);
    ASSERT_EQ(setresgid(ownGroup, privateGroup, privateGroup), 0);
    ASSERT_EQ(setresuid(person, person, person), 0);
}

class PrivateGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root to give a process a group as the kernel does";
        }
    }

    static void expectInSetGroupIDProcess(const std::function<void()>& body) {
        expectInChild([&body] {
            becomeSetGroupID();
            body();
            exitAtOnce();
        });
    }
};

TEST(PrivateGroupWithoutOneTest, DoesNothing) {
    expectInChild([] {
        const Groups before = groupsNow();
        PrivateGroup::setAside();
        EXPECT_EQ(groupsNow(), before);
        const PrivateGroup::InEffect group;
        EXPECT_EQ(groupsNow(), before);
    });
}

TEST_F(PrivateGroupTest, IsTheSavedGroupOnlyAndInEffectWhileTheObjectLives) {
    expectInSetGroupIDProcess([] {
        PrivateGroup::setAside();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(groupsNow(), asideGroups);
            const PrivateGroup::InEffect group;
            EXPECT_EQ(groupsNow(), (Groups{ownGroup, privateGroup, privateGroup}));
        }
        EXPECT_EQ(groupsNow(), asideGroups);
    });
}

TEST_F(PrivateGroupTest, StaysInEffectInAProcessThatDidNotSetItAside) {
    expectInSetGroupIDProcess([] {
        const Groups before = groupsNow();
        {
            const PrivateGroup::InEffect group;
        }
        EXPECT_EQ(groupsNow(), before);
    });
}

// What the kernel says of the groups: real, effective, saved and for files.
std::string groupLine(const Groups& groups) {
    std::ostringstream line;
    line << "Gid:\t" << groups.real << '\t' << groups.effective << '\t' << groups.saved << '\t'
         << groups.effective << '\n';
    return line.str();
}

TEST_F(PrivateGroupTest, IsInEffectForTheCallingThreadAlone) {
    expectInSetGroupIDProcess([] {
        PrivateGroup::setAside();
        std::thread([] {
            const PrivateGroup::InEffect group;
            EXPECT_EQ(groupsNow().effective, privateGroup);
            const std::string initialThread = std::to_string(getpid());
            EXPECT_THAT(
                readTestFile("/proc/" + initialThread + "/task/" + initialThread + "/status"),
                HasSubstr(groupLine(asideGroups)));
        }).join();
        EXPECT_EQ(groupsNow(), asideGroups);
    });
}

TEST_F(PrivateGroupTest, IsInEffectOnlyToConnectToTheHelper) {
    const TemporaryFolder folder;
    FakeHelper helper(folder / "helper.sock", {Behavior::AnswerOnce, Behavior::Answer});
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    // Seen from inside: the folders above may be closed to other users.
    ASSERT_EQ(chdir(folder.path().c_str()), 0);
    expectInSetGroupIDProcess([&helper] {
        PrivateGroup::setAside();
        HelperClient client("helper.sock");
        for (int i = 0; i < 2; ++i) {
            helper.record().group = 0;
            EXPECT_TRUE(client.status().has_value());
            EXPECT_EQ(helper.record().group, privateGroup);
            EXPECT_EQ(groupsNow(), asideGroups);
        }
    });
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(PrivateGroupTest, IsDroppedByExec) {
    const ChildResult child = runInChild([] {
        becomeSetGroupID();
        PrivateGroup::setAside();
        execl("/bin/cat", "cat", "/proc/self/status", nullptr);
        FAIL() << "no cat";
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_THAT(child.output, HasSubstr(groupLine({ownGroup, ownGroup, ownGroup})));
}

}  // namespace
}  // namespace halvo::testing
