#include "tests/Support/LogCapture.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace halvo::testing {
namespace {

// A log sink is a plain function and finds its capture here.
LogCapture* innermost = nullptr;

}  // namespace

std::ostream& operator<<(std::ostream& stream, const LogMessage& message) {
    return stream << (message.level == LogLevel::Error ? "error: " : "notice: ") << message.text;
}

LogCapture::LogCapture()
    : outer_(std::exchange(innermost, this)), sinkBefore_(replaceLogSink(&LogCapture::receive)) {}

LogCapture::~LogCapture() {
    replaceLogSink(sinkBefore_);
    innermost = outer_;
}

void LogCapture::receive(const Logger& logger, LogLevel level, std::string_view message) {
    EXPECT_STREQ(logger.subsystem, "app.halvo");
    EXPECT_STREQ(logger.category, "Helper");
    const std::lock_guard lock(innermost->mutex_);
    innermost->messages_.push_back({level, std::string(message)});
}

std::vector<LogMessage> LogCapture::messages() const {
    const std::lock_guard lock(mutex_);
    return messages_;
}

std::vector<std::string> LogCapture::texts(LogLevel level) const {
    std::vector<std::string> result;
    for (const LogMessage& message : messages()) {
        if (message.level == level) {
            result.push_back(message.text);
        }
    }
    return result;
}

std::vector<std::string> LogCapture::errors() const { return texts(LogLevel::Error); }

std::vector<std::string> LogCapture::notices() const { return texts(LogLevel::Default); }

std::size_t LogCapture::count(std::string_view text) const {
    return static_cast<std::size_t>(std::ranges::count(messages(), text, &LogMessage::text));
}

void LogCapture::clear() {
    const std::lock_guard lock(mutex_);
    messages_.clear();
}

}  // namespace halvo::testing
