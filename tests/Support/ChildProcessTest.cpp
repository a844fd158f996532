#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "tests/Support/ChildProcess.hpp"

namespace halvo::testing {
namespace {

TEST(ChildProcessTest, ABodyThatReturnsIsWell) {
    const ChildResult result = runInChild([] { std::puts("done"); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.output, "done\n");
}

TEST(ChildProcessTest, ABodyThatFailsAnExpectationIsNot) {
    const ChildResult result = runInChild([] { EXPECT_EQ(1, 2) << "this is why"; });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("this is why"), std::string::npos);
}

TEST(ChildProcessTest, TellsTheStatusThatTheBodyExitsWith) {
    EXPECT_EQ(runInChild([] { std::exit(75); }).status, 75);
}

TEST(ChildProcessTest, TellsTheSignalThatEndedTheBody) {
    const ChildResult result = runInChild([] { kill(getpid(), SIGKILL); });
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.signal, SIGKILL);
}

TEST(ChildProcessTest, CollectsBothOutputs) {
    const ChildResult result = runInChild([] {
        std::fputs("one ", stderr);
        std::fputs("two", stdout);
    });
    EXPECT_EQ(result.output, "one two");
}

TEST(ChildProcessTest, ChangesNothingInTheParent) {
    static int number = 1;
    runInChild([] { number = 2; });
    EXPECT_EQ(number, 1);
}

}  // namespace
}  // namespace halvo::testing
