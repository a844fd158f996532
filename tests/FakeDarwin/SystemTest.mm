#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace {

using halvo::testing::TemporaryFolder;
using halvo::testing::writeTestFile;

class SystemTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    void TearDown() override { fake::reset(); }
};

TEST_F(SystemTest, HasClocksOfTheWorld) {
    EXPECT_EQ(clock_gettime_nsec_np(CLOCK_MONOTONIC), 1'000'000'000'000U);
    EXPECT_EQ(std::chrono::system_clock::now().time_since_epoch(),
              std::chrono::seconds(1'800'001'000));
    fake::serve(1.5);
    EXPECT_EQ(clock_gettime_nsec_np(CLOCK_MONOTONIC), 1'001'500'000'000U);
    EXPECT_EQ(std::chrono::system_clock::now().time_since_epoch(),
              std::chrono::milliseconds(1'800'001'001'500));
}

TEST_F(SystemTest, TellsTheBootSession) {
    std::size_t size = 0;
    ASSERT_EQ(sysctlbyname("kern.bootsessionuuid", nullptr, &size, nullptr, 0), 0);
    EXPECT_EQ(size, 37U);
    std::string value(size, 'x');
    ASSERT_EQ(sysctlbyname("kern.bootsessionuuid", value.data(), &size, nullptr, 0), 0);
    EXPECT_EQ(value, fake::world().bootSession);
    size = 36;
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", value.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(fake::world().sysctlCalls, 3);
    EXPECT_EQ(sysctlbyname("kern.other", nullptr, &size, nullptr, 0), -1);
    fake::world().bootSessionReadFails = true;
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", nullptr, &size, nullptr, 0), 0);
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", value.data(), &size, nullptr, 0), -1);
    fake::world().bootSession.reset();
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", nullptr, &size, nullptr, 0), -1);
}

TEST_F(SystemTest, ListsProcesses) {
    fake::world().processes = {{.pid = 7}, {.pid = 0}, {.pid = 9}};
    EXPECT_EQ(proc_listallpids(nullptr, 0), 3);
    std::array<pid_t, 4> pids{-1, -1, -1, -1};
    EXPECT_EQ(proc_listallpids(pids.data(), sizeof pids), 3);
    EXPECT_EQ(pids, (std::array<pid_t, 4>{7, 0, 9, -1}));
    EXPECT_EQ(proc_listallpids(pids.data(), sizeof(pid_t)), 1);
    fake::world().announcedProcesses = -1;
    fake::world().listedProcesses = 100;
    EXPECT_EQ(proc_listallpids(nullptr, 0), -1);
    EXPECT_EQ(proc_listallpids(pids.data(), sizeof pids), 100);
}

TEST_F(SystemTest, TellsOfAProcess) {
    fake::world().processes = {{.pid = 7, .uid = 501, .path = std::string("/a\0b", 4)},
                               {.pid = 8, .infoSize = 0}};
    proc_bsdshortinfo info{};
    EXPECT_EQ(proc_pidinfo(7, PROC_PIDT_SHORTBSDINFO, 0, &info, sizeof info), 64);
    EXPECT_EQ(info.pbsi_uid, 501U);
    EXPECT_EQ(info.pbsi_pid, 7U);
    EXPECT_EQ(proc_pidinfo(8, PROC_PIDT_SHORTBSDINFO, 0, &info, sizeof info), 0);
    EXPECT_EQ(proc_pidinfo(9, PROC_PIDT_SHORTBSDINFO, 0, &info, sizeof info), 0);
    EXPECT_EQ(errno, ESRCH);
    std::array<char, 8> path{};
    EXPECT_EQ(proc_pidpath(7, path.data(), path.size()), 4);
    EXPECT_EQ(std::string(path.data(), 5), std::string("/a\0b\0", 5));
    EXPECT_EQ(proc_pidpath(7, path.data(), 2), 2);
    EXPECT_EQ(proc_pidpath(8, path.data(), path.size()), 0);
    EXPECT_EQ(fake::world().infoCalls, 3);
    EXPECT_EQ(fake::world().pathCalls, 3);
}

TEST_F(SystemTest, KeepsFlagsOfFiles) {
    const TemporaryFolder folder;
    const std::string path = folder / "item";
    struct stat status{};
    EXPECT_EQ(lchflags(path.c_str(), SF_IMMUTABLE), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lstat(path.c_str(), &status), -1);
    writeTestFile(path, "text");
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_flags, 0);
    EXPECT_EQ(status.st_size, 4);
    ASSERT_EQ(lchflags(path.c_str(), SF_IMMUTABLE | 0x80000000), 0);
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_flags, SF_IMMUTABLE | 0x80000000);
    fake::world().lchflagsError = EPERM;
    EXPECT_EQ(lchflags(path.c_str(), 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(fake::world().lchflagsCalls, 3);
    EXPECT_EQ(fake::world().flags.at(path), SF_IMMUTABLE | 0x80000000);
}

TEST_F(SystemTest, BringsFilesToTheDisk) {
    const TemporaryFolder folder;
    writeTestFile(folder / "item", "text");
    const int file = open((folder / "item").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(fcntl(file, F_FULLFSYNC), 0);
    EXPECT_EQ(fsync(file), 0);
    EXPECT_EQ(fcntl(file, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(file, F_SETFD, 0), 0);
    EXPECT_EQ(fcntl(file, F_GETFD), 0);
    fake::world().fullSyncError = ENOTSUP;
    fake::world().syncError = EIO;
    EXPECT_EQ(fcntl(file, F_FULLFSYNC), -1);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(fsync(file), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fake::world().fullSyncCalls, 2);
    EXPECT_EQ(fake::world().syncCalls, 2);
    close(file);
    fake::reset();
    EXPECT_EQ(fcntl(file, F_FULLFSYNC), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SystemTest, KnowsWhoHasTheConsole) {
    @autoreleasepool {
        uid_t uid = 7;
        gid_t gid = 0;
        EXPECT_EQ(SCDynamicStoreCopyConsoleUser(nullptr, &uid, &gid), nullptr);
        EXPECT_EQ(uid, 7U);
        fake::world().consoleUser = "anna";
        fake::world().consoleUID = 501;
        NSString* name = CFBridgingRelease(SCDynamicStoreCopyConsoleUser(nullptr, &uid, &gid));
        EXPECT_TRUE([name isEqualToString:@"anna"]);
        EXPECT_EQ(uid, 501U);
        EXPECT_EQ(gid, 20U);
        name = CFBridgingRelease(SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr));
        EXPECT_EQ(name.length, 4U);
    }
    EXPECT_EQ(fake::liveObjects("NSString"), 0);
}

}  // namespace
