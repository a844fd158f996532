// Captures the log messages of the code under test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoPlatform/Log.hpp"

namespace halvo::testing {

struct LogMessage {
    LogLevel level{};
    std::string text;

    bool operator==(const LogMessage&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const LogMessage& message) {
    return stream << (message.level == LogLevel::Error ? "error: " : "notice: ") << message.text;
}

// Receives every message in place of the system's log while it lives. A message with another
// subsystem or category than the helper's fails the test. Captures may nest; the innermost one
// receives. Messages may come from any thread, but not while a capture is created or destroyed.
class LogCapture {
  public:
    LogCapture()
        : outer_(std::exchange(innermost, this)), sinkBefore_(std::exchange(logSink, &receive)) {}

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    ~LogCapture() {
        logSink = sinkBefore_;
        innermost = outer_;
    }

    // All messages since the construction or the last clear(), in order.
    [[nodiscard]] std::vector<LogMessage> messages() const {
        const std::lock_guard lock(mutex_);
        return messages_;
    }

    // The texts of one level, in order.
    [[nodiscard]] std::vector<std::string> errors() const { return texts(LogLevel::Error); }

    [[nodiscard]] std::vector<std::string> notices() const { return texts(LogLevel::Default); }

    // The number of messages, of either level, that equal `text`.
    [[nodiscard]] std::size_t count(std::string_view text) const {
        return static_cast<std::size_t>(std::ranges::count(messages(), text, &LogMessage::text));
    }

    [[nodiscard]] bool isEmpty() const { return messages().empty(); }

    void clear() {
        const std::lock_guard lock(mutex_);
        messages_.clear();
    }

  private:
    static void receive(const Logger& logger, LogLevel level, std::string_view message) {
        EXPECT_STREQ(logger.subsystem, "app.halvo");
        EXPECT_STREQ(logger.category, "Helper");
        const std::lock_guard lock(innermost->mutex_);
        innermost->messages_.push_back({level, std::string(message)});
    }

    [[nodiscard]] std::vector<std::string> texts(LogLevel level) const {
        std::vector<std::string> result;
        for (const LogMessage& message : messages()) {
            if (message.level == level) {
                result.push_back(message.text);
            }
        }
        return result;
    }

    // A log sink is a plain function without context.
    static inline LogCapture* innermost = nullptr;

    LogCapture* outer_;
    LogSink sinkBefore_;
    mutable std::mutex mutex_;
    std::vector<LogMessage> messages_;
};

}  // namespace halvo::testing
