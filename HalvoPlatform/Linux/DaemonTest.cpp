#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "HalvoPlatform/Daemon.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::runInChild;
using testing::SystemCall;

bool isNullDevice(int descriptor) {
    struct stat status{};
    struct stat null{};
    return fstat(descriptor, &status) == 0 && stat("/dev/null", &null) == 0 &&
           status.st_rdev == null.st_rdev;
}

bool isOpenFile(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

int lowestFreeDescriptor() {
    const int descriptor = open("/", O_PATH | O_CLOEXEC);
    close(descriptor);
    return descriptor;
}

// Prepares a process in which those of the descriptors 0 to 2 are closed whose bits are set, and
// checks what became of each.
void prepareWithClosed(unsigned closed) {
    // Kept to tell the parent what went wrong.
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100);
    const int freeBefore = lowestFreeDescriptor();
    std::array<bool, 3> wasNull{};
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
        const auto index = static_cast<std::size_t>(descriptor);
        wasNull[index] = isNullDevice(descriptor);
        if ((closed >> index & 1U) != 0) {
            close(descriptor);
        }
    }
    prepareDaemon();
    const int freeAfter = lowestFreeDescriptor();
    std::array<bool, 3> isNull{};
    for (std::size_t index = 0; index < isNull.size(); ++index) {
        isNull[index] = isNullDevice(static_cast<int>(index));
    }
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    EXPECT_EQ(freeAfter, freeBefore) << "one descriptor more, or fewer, is open";
    for (std::size_t index = 0; index < isNull.size(); ++index) {
        const bool filled = (closed >> index & 1U) != 0;
        EXPECT_EQ(isNull[index], filled || wasNull[index]) << index;
    }
}

TEST(DaemonTest, FillsWhicheverStandardDescriptorsAreClosed) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        const auto result = runInChild([&] { prepareWithClosed(closed); });
        EXPECT_EQ(result.status, 0) << closed << ": " << result.output;
    }
}

TEST(DaemonTest, FillsThemForReadingAndWriting) {
    const auto result = runInChild([] {
        const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100);
        close(STDIN_FILENO);
        close(STDERR_FILENO);
        prepareDaemon();
        char byte = 0;
        const bool reads = read(STDIN_FILENO, &byte, 1) == 0;
        const bool writes = write(STDERR_FILENO, &byte, 1) == 1;
        dup2(output, STDERR_FILENO);
        EXPECT_TRUE(reads);
        EXPECT_TRUE(writes);
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(DaemonTest, HasTheUsualUmaskKeepsNoFolderInUseAndLeavesSignalsAlone) {
    const auto result = runInChild([] {
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
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(DaemonTest, GoesOnWithoutTheNullDeviceAndTheRoot) {
    const auto result = runInChild([] {
        ASSERT_EQ(chdir("/tmp"), 0);
        const Fault noDevice = Fault::failing(SystemCall::open, EMFILE);
        const Fault noRoot = Fault::failing(SystemCall::chdir, EACCES);
        close(STDIN_FILENO);
        prepareDaemon();
        EXPECT_FALSE(isOpenFile(STDIN_FILENO));
        EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical("/tmp"));
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(DaemonTest, KnowsTheRealUser) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_TRUE(runsAsRoot());
    const auto result = runInChild([] {
        ASSERT_EQ(setresuid(65534, 0, 0), 0);
        EXPECT_FALSE(runsAsRoot()) << "although the effective user still is root";
        ASSERT_EQ(setresuid(0, 0, 0), 0);
        ASSERT_EQ(setresuid(0, 65534, 0), 0);
        EXPECT_TRUE(runsAsRoot()) << "although the effective user no longer is root";
        // The leak sanitizer looks at the process at its end, as one user.
        ASSERT_EQ(setresuid(0, 0, 0), 0);
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace halvo
