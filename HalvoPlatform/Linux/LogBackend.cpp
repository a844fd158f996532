#include "LogBackend.hpp"

#include <sys/syslog.h>
#include <unistd.h>

#include <string>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/SIGPIPEGuard.hpp"

// The journal's source-code fields would name our build paths; the message is enough.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace halvo {
namespace {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): set by tests only.
LogSink installedSink = nullptr;

std::string formatted(std::string_view format, const detail::LogArgument* arguments) {
    std::string message;
    while (!format.empty()) {
        const detail::LogPlaceholder* placeholder = detail::placeholderAt(format);
        if (placeholder == nullptr) {
            message += format.front();
            format.remove_prefix(1);
            continue;
        }
        if (arguments->kind == detail::LogArgument::Kind::Text) {
            message += arguments->text;
        } else {
            message += std::to_string(arguments->number);
        }
        ++arguments;
        format.remove_prefix(placeholder->spelling.size());
    }
    return message;
}

void writeToSystem(const Logger& logger, LogLevel level, std::string_view message) {
    // sd_journal_send() succeeds silently where no journal listens, so look first.
    if (access("/run/systemd/journal/socket", W_OK) == 0) {
        // "Default" of the unified log is what syslog calls a notice.
        const int priority = level == LogLevel::Error ? LOG_ERR : LOG_NOTICE;
        if (sd_journal_send("MESSAGE=%s", std::string(message).c_str(), "PRIORITY=%i", priority,
                            "SUBSYSTEM=%s", logger.subsystem, "CATEGORY=%s", logger.category,
                            nullptr) == 0) {
            return;
        }
    }
    std::string line = std::string(logger.subsystem) + " " + logger.category + ": ";
    line += level == LogLevel::Error ? "error: " : "";
    line += message;
    // A message is one line, whatever a path inside it holds.
    for (char& character : line) {
        if (character == '\n' || character == '\r') {
            character = ' ';
        }
    }
    line += '\n';
    // Nobody is left to tell when standard error does not take it.
    const SIGPIPEGuard guard;
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

LogSink replaceLogSink(LogSink sink) {
    const LogSink before = installedSink;
    installedSink = sink;
    return before;
}

void detail::writeLog(const Logger& logger, LogLevel level, std::string_view format,
                      const LogArgument* arguments) {
    const LogSink sink = installedSink != nullptr ? installedSink : writeToSystem;
    sink(logger, level, formatted(format, arguments));
}

}  // namespace halvo
