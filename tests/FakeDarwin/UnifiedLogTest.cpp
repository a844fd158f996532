#include <gtest/gtest.h>
#include <os/log.h>

#include <climits>
#include <string>
#include <vector>

#include "FakeDarwin.hpp"

namespace {

class UnifiedLogTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    os_log_t log = os_log_create("app.halvo", "Test");
};

TEST_F(UnifiedLogTest, FillsInWhatIsPublic) {
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "%{public}s %{public}ld %d %05.1f 100%%", "text",
                     LONG_MIN, -7, 2.25);
    EXPECT_EQ(fake::notices(), std::vector<std::string>{"text -9223372036854775808 -7 002.2 100%"});
}

TEST_F(UnifiedLogTest, HidesWhatIsPrivate) {
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "%s|%{private}d|%{public}s|%x", "secret", 5, "",
                     255);
    EXPECT_EQ(fake::notices(), std::vector<std::string>{"<private>|<private>||ff"});
}

}  // namespace
