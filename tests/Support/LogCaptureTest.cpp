#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/Support/LogCapture.hpp"

namespace halvo::testing {
namespace {

using Texts = std::vector<std::string>;

TEST(LogCaptureTest, KeepsWhatIsSaidWithItsLevel) {
    const LogCapture log;
    EXPECT_TRUE(log.isEmpty());
    HALVO_LOG_ERROR(helperLog, "one");
    HALVO_LOG_DEFAULT(helperLog, "two");
    HALVO_LOG_ERROR(helperLog, "one");
    EXPECT_EQ(log.messages(),
              (std::vector<LogMessage>{
                  {LogLevel::Error, "one"}, {LogLevel::Default, "two"}, {LogLevel::Error, "one"}}));
    EXPECT_EQ(log.errors(), (Texts{"one", "one"}));
    EXPECT_EQ(log.notices(), Texts{"two"});
    EXPECT_EQ(log.count("one"), 2U);
    EXPECT_EQ(log.count("on"), 0U);
    EXPECT_FALSE(log.isEmpty());
}

TEST(LogCaptureTest, ForgetsWhenToldTo) {
    LogCapture log;
    HALVO_LOG_ERROR(helperLog, "one");
    log.clear();
    EXPECT_TRUE(log.isEmpty());
}

TEST(LogCaptureTest, TheInnermostReceives) {
    const LogCapture outer;
    {
        const LogCapture inner;
        HALVO_LOG_ERROR(helperLog, "inner");
        EXPECT_EQ(inner.errors(), Texts{"inner"});
    }
    HALVO_LOG_ERROR(helperLog, "outer");
    EXPECT_EQ(outer.errors(), Texts{"outer"});
}

TEST(LogCaptureTest, AMessageUnderAnotherNameFailsTheTest) {
    const LogCapture log;
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"app.halvo", "Other"}), "one"), "Other");
    EXPECT_NONFATAL_FAILURE(HALVO_LOG_ERROR(Logger({"other", "Helper"}), "one"), "other");
}

}  // namespace
}  // namespace halvo::testing
