#include <gtest/gtest.h>
#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <chrono>
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

}  // namespace
