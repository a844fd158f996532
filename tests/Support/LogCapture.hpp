// What the code under test says to the log.
#pragma once

#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoPlatform/Log.hpp"

namespace halvo::testing {

struct LogMessage {
    LogLevel level{};
    std::string text;

    bool operator==(const LogMessage&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const LogMessage& message);

// Receives every message in place of the system's log for as long as it lives. A message of another
// subsystem or category than the helper's fails the test. Captures may nest; the innermost
// receives. The messages may come from any thread, but none while a capture begins or ends.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything since the start or the last clear(), in order.
    [[nodiscard]] std::vector<LogMessage> messages() const;

    // The texts at one level, in order.
    [[nodiscard]] std::vector<std::string> errors() const;
    [[nodiscard]] std::vector<std::string> notices() const;

    // How often exactly `text` was said, at either level.
    [[nodiscard]] std::size_t count(std::string_view text) const;

    [[nodiscard]] bool isEmpty() const { return messages().empty(); }

    void clear();

  private:
    static void receive(const Logger& logger, LogLevel level, std::string_view message);
    [[nodiscard]] std::vector<std::string> texts(LogLevel level) const;

    LogCapture* outer_;
    LogSink sinkBefore_;
    mutable std::mutex mutex_;
    std::vector<LogMessage> messages_;
};

}  // namespace halvo::testing
