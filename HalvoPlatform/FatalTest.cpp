#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "HalvoPlatform/Fatal.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

TEST(FatalTest, PrintsOneLineAndAborts) {
    const auto result = testing::runInChild([] { fatal("the roof is gone"); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, "Fatal error: the roof is gone\n");
}

TEST(FatalTest, PrintsNoMoreThanTheMessage) {
    constexpr std::string_view text = "the roof is gone";
    const auto result = testing::runInChild([&] { fatal(text.substr(0, 8)); });
    EXPECT_EQ(result.output, "Fatal error: the roof\n");
}

TEST(FatalTest, TakesAMessageForTextAndNotForAFormat) {
    const auto result = testing::runInChild([] { fatal("%s %n"); });
    EXPECT_EQ(result.output, "Fatal error: %s %n\n");
}

TEST(FatalTest, AbortsAlsoWhenNobodyReadsTheLine) {
    const auto result = testing::runInChild([] {
        std::signal(SIGPIPE, SIG_DFL);
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe(ends.data()), 0);
        ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
        close(ends[0]);
        fatal("the roof is gone");
    });
    EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
}  // namespace halvo
