#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "HalvoPlatform/SIGPIPEGuard.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::runInChild;

void writeWithoutAReader() {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    close(ends[1]);
}

bool isIn(const sigset_t& set) { return sigismember(&set, SIGPIPE) == 1; }

sigset_t mask() {
    sigset_t set{};
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return set;
}

sigset_t pending() {
    sigset_t set{};
    sigpending(&set);
    return set;
}

TEST(SIGPIPEGuardTest, OutlivesAReaderThatIsGone) {
    const auto result = runInChild([] {
        std::signal(SIGPIPE, SIG_DFL);
        {
            const SIGPIPEGuard guard;
            writeWithoutAReader();
        }
        EXPECT_FALSE(isIn(mask()));
        EXPECT_FALSE(isIn(pending()));
        EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(SIGPIPEGuardTest, KeepsErrno) {
    const auto result = runInChild([] {
        {
            const SIGPIPEGuard guard;
            writeWithoutAReader();
            errno = EDOM;
        }
        EXPECT_EQ(errno, EDOM);
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(SIGPIPEGuardTest, LeavesWhatWasBlockedAndPendingBefore) {
    const auto result = runInChild([] {
        const SIGPIPEGuard outer;
        raise(SIGPIPE);
        {
            const SIGPIPEGuard inner;
            writeWithoutAReader();
        }
        EXPECT_TRUE(isIn(mask()));
        EXPECT_TRUE(isIn(pending()));
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

// What does it without the guard, and what else may end the process.
TEST(SIGPIPEGuardTest, IsNeededAndLeavesTheSignalItsEffect) {
    const auto result = runInChild([] {
        std::signal(SIGPIPE, SIG_DFL);
        {
            const SIGPIPEGuard guard;
        }
        writeWithoutAReader();
    });
    EXPECT_EQ(result.signal, SIGPIPE) << result.output;
}

}  // namespace
}  // namespace halvo
