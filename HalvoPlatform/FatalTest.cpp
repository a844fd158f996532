#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string_view>
#include <utility>

#include "HalvoPlatform/Fatal.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

TEST(FatalTest, PrintsOneLineAndAborts) {
    constexpr std::string_view text = "the roof is gone: %s %n, all of it";
    const auto result = testing::runInChild([&] { fatal(text.substr(0, 23)); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, "Fatal error: the roof is gone: %s %n\n");
}

// Standard error becomes a pipe without a reader.
void closeReader() {
    std::signal(SIGPIPE, SIG_DFL);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
    close(ends[0]);
}

TEST(FatalTest, AbortsAlsoWhenNoProcessReadsTheLine) {
    const auto result = testing::runInChild([] {
        closeReader();
        fatal("the roof is gone");
    });
    EXPECT_EQ(result.signal, SIGABRT);
}

// Whether SIGPIPE is blocked, and whether it is pending.
std::pair<bool, bool> blockedAndPending() {
    sigset_t blocked{};
    sigset_t pending{};
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    sigpending(&pending);
    return {sigismember(&blocked, SIGPIPE) == 1, sigismember(&pending, SIGPIPE) == 1};
}

TEST(WriteUndisturbedTest, OutlivesAReaderThatIsGoneAndLeavesTheSignalAsItWas) {
    testing::expectInChild([] {
        closeReader();
        writeUndisturbed(STDERR_FILENO, "text");
        EXPECT_EQ(blockedAndPending(), std::pair(false, false));
        sigset_t set{};
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        raise(SIGPIPE);
        writeUndisturbed(STDERR_FILENO, "text");
        EXPECT_EQ(blockedAndPending(), std::pair(true, true));
    });
}

// What ends the process otherwise.
TEST(WriteUndisturbedTest, LeavesTheSignalItsEffect) {
    const auto result = testing::runInChild([] {
        closeReader();
        writeUndisturbed(STDERR_FILENO, "text");
        EXPECT_EQ(write(STDERR_FILENO, "x", 1), -1);
    });
    EXPECT_EQ(result.signal, SIGPIPE) << result.output;
}

}  // namespace
}  // namespace halvo
