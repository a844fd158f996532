#include <gtest/gtest.h>

#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {
namespace {

TEST(ClearCommandTest, IsForAShell) {
    EXPECT_EQ(clearCommand("/Applications/Halvo.app"), "chattr -i /Applications/Halvo.app");
    EXPECT_EQ(clearCommand("/Applications/My App.app"), "chattr -i '/Applications/My App.app'");
}

}  // namespace
}  // namespace halvo::control
