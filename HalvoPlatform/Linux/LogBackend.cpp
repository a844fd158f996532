#include "LogBackend.hpp"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <initializer_list>
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

// The fields of the log's context, as "NAME=value".
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the log is the process's.
std::vector<std::string> contextFields;

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the same.
bool isForTerminal = false;

// Substitutes the arguments for their placeholders, each of which ends with its first 's' or 'd'.
std::string formatted(std::string_view format, std::initializer_list<std::string> arguments) {
    std::string message;
    for (const std::string& argument : arguments) {
        const std::size_t place = format.find('%');
        message.append(format.substr(0, place)).append(argument);
        format.remove_prefix(format.find_first_of("sd", place) + 1);
    }
    return message.append(format);
}

// Returns whether the journal accepted the line. sd_journal_sendv(3) succeeds where there is no
// journal, so that is checked first.
bool writeToJournal(const Logger& logger, LogLevel level, std::string_view message) {
    if (access("/run/systemd/journal/socket", W_OK) != 0) {
        return false;
    }
    // The levels of syslog(3): an error; a notice for the unified log's "default".
    std::vector<std::string> fields = contextFields;
    fields.insert(
        fields.end(),
        {"MESSAGE=" + std::string(message), level == LogLevel::Error ? "PRIORITY=3" : "PRIORITY=5",
         std::string("SUBSYSTEM=") + logger.subsystem, std::string("CATEGORY=") + logger.category});
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (std::string& field : fields) {
        parts.push_back({field.data(), field.size()});
    }
    return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

// Through an open file description of its own: on the inherited one O_NONBLOCK would be shared with
// other processes.
void writeToTerminal(const std::string& line) {
    const Descriptor terminal(
        open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (terminal.isOpen()) {
        writeUndisturbed(terminal.get(), line);
    } else if (errno == EACCES) {
        // The terminal of another user: only a process that is not root gets here, and ends at
        // once.
        writeUndisturbed(STDERR_FILENO, line);
    }
}

void writeToSystem(const Logger& logger, LogLevel level, std::string_view message) {
    const bool isLogged = writeToJournal(logger, level, message);
    const bool isTerminal = isForTerminal && isatty(STDERR_FILENO) != 0;
    if (isLogged && !isTerminal) {
        return;
    }
    const std::string line = std::string(logger.subsystem) + " " + logger.category + ": " +
                             (level == LogLevel::Error ? "error: " : "") + std::string(message) +
                             "\n";
    if (isTerminal) {
        writeToTerminal(line);
    } else {
        writeUndisturbed(STDERR_FILENO, line);
    }
}

// "2026-11-20T09:30:00Z", to the nearest second; empty where that has no such form.
std::string rfc3339(WallDate date) {
    // Truncated below, without std::floor(): nothing else in the helper uses pages of libm.
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

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): replaced by tests only.
LogSink logSink = writeToSystem;

void setLogContext(const LogContext* context) {
    contextFields.clear();
    if (context == nullptr) {
        return;
    }
    contextFields = {"HALVO_UID=" + std::to_string(context->uid),
                     "HALVO_BUNDLE=" + context->bundle};
    if (const std::string end = rfc3339(context->end); !end.empty()) {
        contextFields.push_back("HALVO_END=" + end);
    }
}

std::vector<std::string> logFields() { return contextFields; }

void logToTerminalToo() { isForTerminal = true; }

// A path may contain anything: forged log lines, control sequences of a terminal.
std::string detail::printed(const char* value) {
    constexpr unsigned char firstPrintable = 0x20;
    constexpr char deletion = 0x7F;
    std::string text = value;
    std::ranges::replace_if(
        text,
        [](char character) {
            return static_cast<unsigned char>(character) < firstPrintable || character == deletion;
        },
        ' ');
    return text;
}

void detail::writeLog(const Logger& logger, LogLevel level, std::string_view format,
                      std::initializer_list<std::string> arguments) {
    logSink(logger, level, formatted(format, arguments));
}

}  // namespace halvo
