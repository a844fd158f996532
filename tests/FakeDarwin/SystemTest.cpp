// What the tests of the macOS layer do not show of the stand-ins.
#include <gtest/gtest.h>
#include <libproc.h>
#include <os/log.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "FakeDarwin.hpp"

namespace {

TEST(SystemTest, RefusesClocksThatDoNotCountSleep) {
    EXPECT_DEATH(clock_gettime_nsec_np(CLOCK_REALTIME), "a clock that does not count sleep");
}

TEST(SystemTest, TellsTheBootSessionWhereThereIsRoomForIt) {
    fake::reset();
    std::string value(37, 'x');
    std::size_t size = 36;
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", value.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    size = value.size();
    EXPECT_EQ(sysctlbyname("kern.bootsessionuuid", value.data(), &size, nullptr, 0), 0);
    EXPECT_EQ(value, fake::world().bootSession);
    EXPECT_EQ(sysctlbyname("kern.other", value.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SystemTest, TellsOfAPathWhatThereIsRoomFor) {
    fake::reset();
    fake::world().processes = {{.pid = 7, .path = std::string("/a\0b", 4)}};
    std::array<char, 8> path{};
    EXPECT_EQ(proc_pidpath(7, path.data(), 2), 2);
    EXPECT_STREQ(path.data(), "/a");
    EXPECT_EQ(proc_pidpath(7, path.data(), path.size()), 4);
    EXPECT_EQ(path[3], 'b');
}

TEST(SystemTest, KeepsEveryBitOfTheFlagsOfAFile) {
    fake::reset();
    struct stat status{};
    ASSERT_EQ(lchflags("/", SF_IMMUTABLE | 0x80000000), 0);
    ASSERT_EQ(lstat("/", &status), 0);
    EXPECT_EQ(status.st_flags, SF_IMMUTABLE | 0x80000000);
}

// os_log(3).
TEST(SystemTest, LogsTextsWhereTheyAreMarkedAsPublicAndNumbersUnlessTheyAreMarkedAsPrivate) {
    fake::reset();
    os_log_with_type(os_log_create("app.halvo", "Test"), OS_LOG_TYPE_DEFAULT,
                     "%s|%{private}d|%{public}s|%{public}ld %d", "secret", 5, "text", LONG_MIN, -7);
    EXPECT_EQ(fake::notices(),
              std::vector<std::string>{"<private>|<private>|text|-9223372036854775808 -7"});
}

}  // namespace
