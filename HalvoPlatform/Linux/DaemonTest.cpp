#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <new>
#include <string>

#include "HalvoPlatform/Daemon.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::expectInChild;
using testing::Fault;
using testing::runInChild;
using testing::SystemCall;

bool isNullDevice(int descriptor) {
    struct stat status{};
    struct stat null{};
    return fstat(descriptor, &status) == 0 && stat("/dev/null", &null) == 0 &&
           status.st_rdev == null.st_rdev;
}

int lowestFreeDescriptor() {
    const int descriptor = open("/", O_PATH | O_CLOEXEC);
    close(descriptor);
    return descriptor;
}

// Prepares a process in which those of the descriptors 0 to 2 are closed whose bits are set. Those
// are then the null device, for reading and writing, and nothing else is open.
void prepareWithClosed(unsigned closed) {
    // Kept to tell the parent what went wrong.
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100);
    const int freeBefore = lowestFreeDescriptor();
    std::array<bool, 3> expected{};
    for (std::size_t index = 0; index < expected.size(); ++index) {
        const bool isClosed = (closed >> index & 1U) != 0;
        expected[index] = isClosed || isNullDevice(static_cast<int>(index));
        if (isClosed) {
            close(static_cast<int>(index));
        }
    }
    prepareDaemon();
    const int freeAfter = lowestFreeDescriptor();
    std::array<bool, 3> isNull{};
    std::array<int, 3> modes{};
    for (std::size_t index = 0; index < isNull.size(); ++index) {
        isNull[index] = isNullDevice(static_cast<int>(index));
        modes[index] = fcntl(static_cast<int>(index), F_GETFL) & O_ACCMODE;
    }
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    EXPECT_EQ(freeAfter, freeBefore) << "one descriptor more, or fewer, is open";
    EXPECT_EQ(isNull, expected);
    for (std::size_t index = 0; index < modes.size(); ++index) {
        EXPECT_TRUE((closed >> index & 1U) == 0 || modes[index] == O_RDWR) << index;
    }
}

TEST(DaemonTest, FillsWhicheverStandardDescriptorsAreClosed) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        const auto result = runInChild([&] { prepareWithClosed(closed); });
        EXPECT_EQ(result.status, 0) << closed << ": " << result.output;
    }
}

TEST(DaemonTest, HasTheUsualUmaskKeepsNoFolderInUseAndLeavesSignalsAlone) {
    expectInChild([] {
        umask(0);
        ASSERT_EQ(chdir("/tmp"), 0);
        for (const int signal : {SIGPIPE, SIGCHLD, SIGHUP}) {
            std::signal(signal, SIG_DFL);
        }
        prepareDaemon();
        for (const int signal : {SIGPIPE, SIGCHLD, SIGHUP}) {
            EXPECT_EQ(std::signal(signal, SIG_DFL), SIG_DFL) << signal;
        }
        EXPECT_EQ(umask(0), 022U);
        EXPECT_EQ(std::filesystem::current_path(), "/");
    });
}

TEST(DaemonTest, GoesOnWithoutTheNullDeviceAndTheRoot) {
    expectInChild([] {
        ASSERT_EQ(chdir("/tmp"), 0);
        const Fault noDevice = Fault::failing(SystemCall::open, EMFILE);
        const Fault noRoot = Fault::failing(SystemCall::chdir, EACCES);
        close(STDIN_FILENO);
        prepareDaemon();
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical("/tmp"));
    });
}

TEST(DaemonTest, KnowsTheRealUser) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_TRUE(runsAsRoot());
    expectInChild([] {
        ASSERT_EQ(setresuid(65534, 0, 0), 0);
        EXPECT_FALSE(runsAsRoot()) << "although the effective user still is root";
        ASSERT_EQ(setresuid(0, 0, 0), 0);
        ASSERT_EQ(setresuid(0, 65534, 0), 0);
        EXPECT_TRUE(runsAsRoot()) << "although the effective user no longer is root";
        // The leak sanitizer looks at the process at its end, as one user.
        ASSERT_EQ(setresuid(0, 0, 0), 0);
    });
}

TEST(DaemonTest, EndsWithOneLineWhenMemoryRunsOut) {
    const auto result = runInChild([] {
        prepareDaemon();
        std::get_new_handler()();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, "Fatal error: Memory ran out\n");
}

}  // namespace
}  // namespace halvo
