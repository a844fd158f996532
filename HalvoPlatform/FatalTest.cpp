#include <gtest/gtest.h>

#include <csignal>

#include "HalvoPlatform/Fatal.hpp"
#include "tests/Support/ChildProcess.hpp"

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

}  // namespace
}  // namespace halvo
