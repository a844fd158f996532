#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

int makeFolder(const std::string& path) { return mkdir(path.c_str(), 0700); }

TEST(FaultInjectionTest, WithoutAFaultCallsAreCarriedOutAndCounted) {
    const TemporaryFolder folder;
    const std::size_t before = callsMade(SystemCall::mkdir);
    EXPECT_EQ(makeFolder(folder / "a"), 0);
    EXPECT_EQ(makeFolder(folder / "a"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(callsMade(SystemCall::mkdir), before + 2);
}

TEST(FaultInjectionTest, OneCallFailsAndHasNoEffect) {
    const TemporaryFolder folder;
    const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC);
    EXPECT_EQ(makeFolder(folder / "a"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(makeFolder(folder / "a"), 0) << "only one call goes wrong";
}

TEST(FaultInjectionTest, ALaterCallFails) {
    const TemporaryFolder folder;
    const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC, 2);
    EXPECT_EQ(makeFolder(folder / "a"), 0);
    EXPECT_EQ(makeFolder(folder / "b"), 0);
    EXPECT_EQ(makeFolder(folder / "c"), -1);
    EXPECT_EQ(makeFolder(folder / "c"), 0);
}

TEST(FaultInjectionTest, ADeniedCallHasItsEffect) {
    const TemporaryFolder folder;
    const Fault fault = Fault::denying(SystemCall::mkdir, EIO);
    EXPECT_EQ(makeFolder(folder / "a"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(std::filesystem::exists(folder / "a"));
}

TEST(FaultInjectionTest, ACallReturnsWhatItIsToldTo) {
    const TemporaryFolder folder;
    const Fault fault = Fault::returning(SystemCall::mkdir, 7);
    EXPECT_EQ(makeFolder(folder / "a"), 7);
    EXPECT_FALSE(std::filesystem::exists(folder / "a"));
}

TEST(FaultInjectionTest, ATransferIsCutShortOnce) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Descriptor input(ends[0]);
    const Descriptor output(ends[1]);
    const Fault fault = Fault::cutShort(SystemCall::write, 2);
    EXPECT_EQ(write(output.get(), "12345", 5), 2);
    EXPECT_EQ(write(output.get(), "12345", 5), 5);
}

TEST(FaultInjectionTest, AFaultEndsWithItsLife) {
    const TemporaryFolder folder;
    {
        const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC);
        EXPECT_EQ(makeFolder(folder / "a"), -1);
    }
    EXPECT_EQ(makeFolder(folder / "a"), 0);
}

TEST(FaultInjectionTest, AFaultThatDoesNotHappenFailsTheTest) {
    EXPECT_NONFATAL_FAILURE(
        { const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC); }, "was not made");
    const TemporaryFolder folder;
    EXPECT_EQ(makeFolder(folder / "a"), 0) << "and is over";
}

TEST(FaultInjectionTest, FaultsOfDifferentCallsDoNotMeet) {
    const TemporaryFolder folder;
    const Fault first = Fault::failing(SystemCall::mkdir, ENOSPC);
    const Fault second = Fault::failing(SystemCall::chmod, EPERM);
    EXPECT_EQ(chmod(folder.path().c_str(), 0700), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(makeFolder(folder / "a"), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST(CallTraceTest, TellsWhatWasDoneInOrder) {
    const TemporaryFolder folder;
    const std::string path = folder / "a";
    const CallTrace trace;
    EXPECT_EQ(makeFolder(path), 0);
    EXPECT_EQ(makeFolder(path), -1) << "which is not noted";
    {
        const Descriptor place(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const Descriptor file(openat(place.get(), "b", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(write(file.get(), "12345", 5), 5);
        EXPECT_EQ(fsync(file.get()), 0);
        EXPECT_EQ(renameat(place.get(), "b", place.get(), "c"), 0);
        EXPECT_EQ(fsync(place.get()), 0);
    }
    EXPECT_EQ(std::remove((path + "/c").c_str()), 0);
    EXPECT_EQ(trace.calls(),
              (std::vector<std::string>{"mkdir " + path, "write " + path + "/b",
                                        "fsync " + path + "/b", "rename " + path + "/c",
                                        "fsync " + path, "remove " + path + "/c"}));
    EXPECT_EQ(trace.written(), std::vector<std::string>{"12345"});
}

TEST(FaultInjectionTest, NewFilesKeepTheirPermissions) {
    const TemporaryFolder folder;
    const Descriptor file(open((folder / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640));
    struct stat status{};
    ASSERT_EQ(fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
}

TEST(FaultInjectionTest, ClocksStandStillAndRunOn) {
    timespec time{};
    {
        const StoppedClock stopped(7, 8);
        clock_gettime(CLOCK_MONOTONIC, &time);
        EXPECT_EQ(time.tv_sec, 7);
        EXPECT_EQ(time.tv_nsec, 8);
    }
    clock_gettime(CLOCK_REALTIME, &time);
    EXPECT_GT(time.tv_sec, 7);
}

TEST(FaultInjectionTest, TheWallClockJumpsAndJumpsBack) {
    const WallDate before = wallNow();
    {
        const WallClockJump jump(Seconds{3600});
        EXPECT_GE(wallNow() - before, Seconds{3600});
    }
    EXPECT_LT(wallNow() - before, Seconds{60});
}

}  // namespace
}  // namespace halvo::testing
