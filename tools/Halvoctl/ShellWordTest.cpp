#include <gtest/gtest.h>

#include "tools/Halvoctl/ShellWord.hpp"

namespace halvo::control {
namespace {

TEST(ShellWordTest, IsWhatAShellTakesForOneWord) {
    EXPECT_EQ(shellWord("/Applications/Halvo.app"), "/Applications/Halvo.app");
    EXPECT_EQ(shellWord("/Library/Application Support"), "'/Library/Application Support'");
    EXPECT_EQ(shellWord("it's $HOME"), "'it'\\''s $HOME'");
    EXPECT_EQ(shellWord("~"), "'~'");
    EXPECT_EQ(shellWord("\xC3\xBC"), "'\xC3\xBC'");
    EXPECT_EQ(shellWord(""), "''");
}

TEST(ShellWordTest, HoldsNothingThatATerminalObeys) {
    EXPECT_EQ(shellWord("a\x1B[2J\n"), "'a\\u001b[2J\\n'");
}

}  // namespace
}  // namespace halvo::control
