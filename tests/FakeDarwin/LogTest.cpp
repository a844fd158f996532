#include <gtest/gtest.h>
#include <os/log.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "FakeDarwin.hpp"

// Of LogTestObjects.mm, where the type of the log is another.
os_log_t sameLog();
void logFromObjectiveC(const char* text);

namespace {

class FakeLogTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    os_log_t log = os_log_create("app.halvo", "Test");
};

TEST_F(FakeLogTest, RecordsWhoSaysWhat) {
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "a notice");
    os_log_with_type(log, OS_LOG_TYPE_ERROR, "an error");
    EXPECT_EQ(fake::world().log,
              (std::vector<fake::LogEntry>{{"app.halvo", "Test", false, "a notice"},
                                           {"app.halvo", "Test", true, "an error"}}));
    EXPECT_EQ(fake::notices(), std::vector<std::string>{"a notice"});
    EXPECT_EQ(fake::errors(), std::vector<std::string>{"an error"});
}

TEST_F(FakeLogTest, FillsInWhatIsPublic) {
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "%{public}s %{public}ld %d %05.1f 100%%", "text",
                     LONG_MIN, -7, 2.25);
    EXPECT_EQ(fake::notices(), std::vector<std::string>{"text -9223372036854775808 -7 002.2 100%"});
}

TEST_F(FakeLogTest, HidesWhatIsPrivate) {
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "%s|%{private}d|%{public}s|%x", "secret", 5, "",
                     255);
    EXPECT_EQ(fake::notices(), std::vector<std::string>{"<private>|<private>||ff"});
}

TEST_F(FakeLogTest, KeepsLongTextsWhole) {
    const std::string text(5000, 'x');
    os_log_with_type(log, OS_LOG_TYPE_DEFAULT, "%{public}s", text.c_str());
    EXPECT_EQ(fake::notices(), std::vector<std::string>{text});
}

TEST_F(FakeLogTest, IsTheSameFromObjectiveC) {
    EXPECT_EQ(sameLog(), log);
    logFromObjectiveC("text");
    EXPECT_EQ(fake::world().log,
              (std::vector<fake::LogEntry>{{"app.halvo", "Test", true, "from Objective-C: text"}}));
}

}  // namespace
