#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tools/Halvoctl/Linux/Group.hpp"

namespace halvo::control {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class GroupTest : public ::testing::Test {
  protected:
    GroupTest() {
        facts.gid = 990;
        facts.name = "halvo-app";
        facts.password = "x";
        facts.shadowPassword = "!";
        facts.hasShadow = true;
    }

    // What is wrong with the group.
    std::string problem() {
        const Check check = checkGroup(facts);
        EXPECT_EQ(check.verdict, Verdict::problem);
        EXPECT_NE(check.advice, "");
        return check.finding;
    }

    GroupFacts facts;
};

TEST_F(GroupTest, IsAsItMustBeWhenItIsNobodys) {
    EXPECT_EQ(checkGroup(facts), isOk("app's group", "halvo-app (990) is nobody's"));
    facts.hasShadow = false;
    EXPECT_EQ(checkGroup(facts).finding,
              "halvo-app (990) is nobody's, as far as can be seen without root");
}

TEST_F(GroupTest, MustNotBeOpenToAnybody) {
    facts.members = {"ann", "ben\x1B"};
    EXPECT_EQ(problem(), "halvo-app has members: ann, ben\\u001b");
    facts.members.clear();
    facts.owners = {"ann"};
    EXPECT_EQ(problem(), "halvo-app is the own group of ann");
    facts.owners.clear();
    facts.administrators = {"ann"};
    EXPECT_EQ(problem(), "halvo-app has administrators: ann");
}

TEST_F(GroupTest, MustHaveANameAndNotRoots) {
    facts.name.reset();
    EXPECT_EQ(problem(), "the app's executable has the group 990, which has no name");
    facts.gid = 0;
    facts.name = "root";
    EXPECT_EQ(problem(), "the app's executable has root's group");
}

TEST_F(GroupTest, MustHaveNoPassword) {
    for (const char* locked : {"", "x", "!", "!!", "*", "!$6$hash"}) {
        facts.password = facts.shadowPassword = locked;
        EXPECT_EQ(checkGroup(facts).verdict, Verdict::ok) << locked;
    }
    facts.shadowPassword = "$6$hash";
    EXPECT_EQ(problem(), "halvo-app has a password");
    facts.shadowPassword = "!";
    facts.password = "$6$hash";
    EXPECT_EQ(problem(), "halvo-app has a password");
    EXPECT_THAT(checkGroup(facts).advice, Not(HasSubstr("hash")));
}

TEST_F(GroupTest, IsReadFromTheAccounts) {
    const GroupFacts root = readGroup(0);
    EXPECT_EQ(root.name, "root");
    EXPECT_THAT(root.owners, Contains("root"));
    EXPECT_EQ(root.hasShadow, geteuid() == 0);
    const GroupFacts none = readGroup(4'000'000'000U);
    EXPECT_EQ(none.name, std::nullopt);
    EXPECT_TRUE(none.members.empty());
    EXPECT_TRUE(none.owners.empty());
}

}  // namespace
}  // namespace halvo::control
