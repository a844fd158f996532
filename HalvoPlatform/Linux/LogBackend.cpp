#include "LogBackend.hpp"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Log.hpp"

// The journal's source-code fields would name our build paths; the message is enough.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace halvo {
namespace {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): set by tests only.
LogSink installedSink = nullptr;

// The fields of the log's context, as "NAME=value". Made once for all lines until it changes.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the log is the process's.
std::vector<std::string> contextFields;

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the same.
bool isForTerminal = false;

// A path may hold anything: the lines of somebody else, what a terminal takes for a command.
void appendPrintable(std::string& message, std::string_view text) {
    constexpr unsigned char firstPrintable = 0x20;
    constexpr unsigned char deletion = 0x7F;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        message += byte < firstPrintable || byte == deletion ? ' ' : character;
    }
}

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
            appendPrintable(message, arguments->text);
        } else {
            message += std::to_string(arguments->number);
        }
        ++arguments;
        format.remove_prefix(placeholder->spelling.size());
    }
    return message;
}

// Whether the journal took the line. sd_journal_sendv() succeeds silently where none listens, so it
// looks first.
bool writeToJournal(const Logger& logger, LogLevel level, std::string_view message) {
    if (access("/run/systemd/journal/socket", W_OK) != 0) {
        return false;
    }
    // Those of syslog(3): an error, and a notice, which "default" of the unified log is.
    std::vector<std::string> fields = contextFields;
    fields.push_back("MESSAGE=" + std::string(message));
    fields.emplace_back(level == LogLevel::Error ? "PRIORITY=3" : "PRIORITY=5");
    fields.push_back(std::string("SUBSYSTEM=") + logger.subsystem);
    fields.push_back(std::string("CATEGORY=") + logger.category);
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (std::string& field : fields) {
        parts.push_back({field.data(), field.size()});
    }
    return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

// By a description of our own, since O_NONBLOCK would be that of all who share the other.
void writeToTerminal(const std::string& line) {
    const Descriptor terminal(
        open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!terminal.isOpen()) {
        // The terminal of another user, for a process that is not root and so ends at once.
        if (errno == EACCES) {
            writeUndisturbed(STDERR_FILENO, line);
        }
        return;
    }
    writeUndisturbed(terminal.get(), line);
}

void writeToSystem(const Logger& logger, LogLevel level, std::string_view message) {
    const bool isLogged = writeToJournal(logger, level, message);
    const bool isTerminal = isForTerminal && isatty(STDERR_FILENO) != 0;
    if (isLogged && !isTerminal) {
        return;
    }
    std::string line = std::string(logger.subsystem) + " " + logger.category + ": ";
    line += level == LogLevel::Error ? "error: " : "";
    line += message;
    line += '\n';
    if (isTerminal) {
        writeToTerminal(line);
    } else {
        writeUndisturbed(STDERR_FILENO, line);
    }
}

// "2026-11-20T09:30:00Z", to the nearest second; empty where that has no such form.
std::string internetDate(WallDate date) {
    // Cut off below, not by std::floor(): nothing else of the helper uses pages of libm.
    const double seconds = secondsSince1970(date) + 0.5;
    constexpr double year10000 = 253402300800;
    const bool fits = seconds >= 0 && seconds < year10000;  // not-a-number does not
    if (!fits) {
        return "";
    }
    const auto whole = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, sizeof "2026-11-20T09:30:00Z"> text{};
    gmtime_r(&whole, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

}  // namespace

LogSink replaceLogSink(LogSink sink) {
    const LogSink before = installedSink;
    installedSink = sink;
    return before;
}

void setLogContext(const LogContext* context) {
    contextFields.clear();
    if (context == nullptr) {
        return;
    }
    contextFields = {"HALVO_UID=" + std::to_string(context->uid),
                     "HALVO_BUNDLE=" + context->bundle};
    if (const std::string end = internetDate(context->end); !end.empty()) {
        contextFields.push_back("HALVO_END=" + end);
    }
}

std::vector<std::string> logFields() { return contextFields; }

void logToTerminalToo() { isForTerminal = true; }

void detail::writeLog(const Logger& logger, LogLevel level, std::string_view format,
                      const LogArgument* arguments) {
    const LogSink sink = installedSink != nullptr ? installedSink : writeToSystem;
    sink(logger, level, formatted(format, arguments));
}

}  // namespace halvo
