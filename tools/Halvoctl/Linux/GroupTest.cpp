#include <gtest/gtest.h>

#include <string>

#include "tools/Halvoctl/Linux/Group.hpp"

namespace halvo::control {
namespace {

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
        EXPECT_EQ(check.advice.find("hash"), std::string::npos);
        const std::string end = ", so the helper refuses the app";
        EXPECT_TRUE(check.finding.ends_with(end)) << check.finding;
        return check.finding.substr(0, check.finding.size() - end.size());
    }

    GroupFacts facts;
};

TEST_F(GroupTest, IsAsItMustBeWhenItIsNobodys) {
    EXPECT_EQ(checkGroup(facts), isOk("app's group", "halvo-app (990) is nobody's"));
    facts.hasShadow = false;
    EXPECT_EQ(checkGroup(facts).finding,
              "halvo-app (990) is nobody's, as far as can be seen without root");
}

TEST_F(GroupTest, HasAdviceForEachFlaw) {
    facts.members = {"ann", "ben\x1B"};
    EXPECT_EQ(problem(), "the group halvo-app has members: ann, ben\\u001b");
    facts.members.clear();
    facts.owners = {"ann"};
    EXPECT_EQ(problem(), "the group halvo-app is the own group of ann");
    facts.owners.clear();
    facts.administrators = {"ann"};
    EXPECT_EQ(problem(), "the group halvo-app has administrators: ann");
    facts.administrators.clear();
    facts.shadowPassword = "$6$hash";
    EXPECT_EQ(problem(), "the group halvo-app has a password");
    facts.name.reset();
    EXPECT_EQ(problem(), "the group 990 has no name");
    facts.gid = 0;
    EXPECT_EQ(problem(), "the group 0 is root's");
}

}  // namespace
}  // namespace halvo::control
