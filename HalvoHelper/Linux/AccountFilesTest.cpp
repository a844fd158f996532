#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "HalvoHelper/Linux/AccountFiles.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"

namespace halvo::testing {
namespace {

constexpr gid_t gid = 990;

// Account files in which the group 990 is nobody's.
class AccountFilesTest : public ::testing::Test {
  protected:
    AccountFilesTest() {
        write("group", "root:x:0:\nhalvo-app:x:990:\nann:x:1000:\n");
        write("gshadow", "root:*::\nhalvo-app:!::\nann:!::\n");
        write("passwd", "root:x:0:0::/root:/bin/sh\nann:x:1000:1000::/home/ann:/bin/sh\n");
    }

    void write(const std::string& name, const std::string& text) const {
        replaceTestFile(etc / name, text);
    }

    [[nodiscard]] std::string problem(gid_t group = gid) const {
        return PrivateGroups(etc.path()).problem(group).value_or("nobody's");
    }

    TemporaryFolder etc;
};

TEST_F(AccountFilesTest, IsNobodys) {
    EXPECT_EQ(problem(), "nobody's");
    EXPECT_EQ(problem(1000), "the group ann is the own group of ann");
    EXPECT_EQ(problem(0), "the group 0 is root's");
    EXPECT_EQ(problem(991), "the group 991 has no name");
}

TEST_F(AccountFilesTest, HasNoMembersOwnersOrPassword) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, who alone looks at the shadow";
    }

    const struct {
        const char* file;
        const char* text;
        const char* problem;
    } rows[] = {
        {"group", "halvo-app:x:990:ann,ben\n", "the group halvo-app has members: ann, ben"},
        // Whichever entry has the number.
        {"group", "halvo-app:x:990:\nother:x:990:ann\n", "the group halvo-app has members: ann"},
        {"group", "halvo-app:$6$hash:990:\n", "the group halvo-app has a password"},
        {"group", "halvo-app::990:\n", "nobody's"},
        {"gshadow", "halvo-app:!::ann\n", "the group halvo-app has members: ann"},
        {"gshadow", "halvo-app:!:ann:\n", "the group halvo-app has administrators: ann"},
        {"gshadow", "halvo-app:$6$hash::\n", "the group halvo-app has a password"},
        {"gshadow", "halvo-app:!$6$hash::\n", "nobody's"},
        {"gshadow", "halvo-app:*::\n", "nobody's"},
        {"gshadow", "other:$6$hash:ann:ann\n", "nobody's"},
        {"passwd", "ann:x:1000:990::/:/bin/sh\nben:x:1001:990::/:\n",
         "the group halvo-app is the own group of ann, ben"},
        {"passwd", "", "nobody's"},
        {"group", "", "the group 990 has no name"},
    };

    for (const auto& row : rows) {
        const std::string path = etc / row.file;
        const std::string before = readTestFile(path);
        write(row.file, row.text);
        EXPECT_EQ(problem(), row.problem) << row.file << ": " << row.text;
        write(row.file, before);
    }
}

TEST_F(AccountFilesTest, HasALineLongerThanAnyBuffer) {
    std::string members;
    for (int number = 0; number < 100'000; ++number) {
        members += (number == 0 ? "u" : ",u") + std::to_string(number);
    }
    write("group", "crowd:x:2000:" + members + "\nhalvo-app:x:990:ann\n");
    EXPECT_EQ(problem(), "the group halvo-app has members: ann");
}

TEST_F(AccountFilesTest, IsNotToldFromAFileThatCannotBeRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, who alone looks at the shadow";
    }
    std::filesystem::remove(etc / "gshadow");
    EXPECT_EQ(problem(), "nobody's") << "there need not be one";
    for (const char* name : {"group", "gshadow", "passwd"}) {
        std::filesystem::remove(etc / name);
        std::filesystem::create_directory(etc / name);
        EXPECT_EQ(problem(),
                  "it cannot be told whose the group 990 is: " + (etc / name) + ": Is a directory");
        std::filesystem::remove(etc / name);
        write(name, "halvo-app:x:990:\n");
    }
    std::filesystem::remove(etc / "passwd");
    EXPECT_EQ(problem(), "it cannot be told whose the group 990 is: " + (etc / "passwd") +
                             ": No such file or directory");
}

TEST_F(AccountFilesTest, IsAskedForAgainWhenAFileHasChanged) {
    PrivateGroups groups(etc.path());
    sleep(3);  // until a change would show
    EXPECT_EQ(groups.problem(gid), std::nullopt);
    const std::size_t opened = callsMade(SystemCall::open);
    EXPECT_EQ(groups.problem(gid), std::nullopt);
    EXPECT_EQ(callsMade(SystemCall::open), opened);
    EXPECT_EQ(groups.problem(1000), "the group ann is the own group of ann");
    EXPECT_EQ(groups.problem(gid), std::nullopt);
    write("passwd", "ann:x:1000:990::/:/bin/sh\n");
    EXPECT_EQ(groups.problem(gid), "the group halvo-app is the own group of ann");
}

TEST_F(AccountFilesTest, IsReadFromTheMachinesOwnFiles) {
    const auto root = readGroup(0);
    ASSERT_TRUE(root) << root.error();
    EXPECT_EQ(root->name, "root");
    EXPECT_THAT(root->owners, ::testing::Contains("root"));
    EXPECT_EQ(root->hasShadow, geteuid() == 0);
}

}  // namespace
}  // namespace halvo::testing
