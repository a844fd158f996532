#include "LogBackend.hpp"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/SIGPIPEGuard.hpp"

// The journal's source-code fields would name our build paths; the message is enough.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace halvo {
namespace {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): set by tests only.
LogSink installedSink = nullptr;

// The fields of the log's context, as "NAME=value"; empty while there is none. Made once for all
// lines until it changes.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the log is the process's.
std::array<std::string, 3> contextFields;

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

iovec field(const std::string& text) {
    // Only read from; readv(2) shares the type.
    return {const_cast<char*>(text.data()), text.size()};  // NOLINT(*-const-cast)
}

// Whether the journal took the line. sd_journal_sendv() succeeds silently where none listens, so it
// looks first.
bool writeToJournal(const Logger& logger, LogLevel level, std::string_view message) {
    if (access("/run/systemd/journal/socket", W_OK) != 0) {
        return false;
    }
    // Those of syslog(3): an error, and a notice, which "default" of the unified log is.
    const std::array<std::string, 4> fields{
        "MESSAGE=" + std::string(message), level == LogLevel::Error ? "PRIORITY=3" : "PRIORITY=5",
        std::string("SUBSYSTEM=") + logger.subsystem, std::string("CATEGORY=") + logger.category};
    std::array<iovec, fields.size() + contextFields.size()> all{};
    std::size_t count = 0;
    for (const std::string& each : fields) {
        all[count++] = field(each);
    }
    for (const std::string& each : contextFields) {
        if (!each.empty()) {
            all[count++] = field(each);
        }
    }
    return sd_journal_sendv(all.data(), static_cast<int>(count)) == 0;
}

// Nobody is left to tell when standard error does not take it.
void writeToStandardError(const std::string& line) {
    const SIGPIPEGuard guard;
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

// By a description of our own, since O_NONBLOCK would be that of all who share the other.
void writeToTerminal(const std::string& line) {
    const Descriptor terminal(
        open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!terminal.isOpen()) {
        // Somebody else's terminal, of who is not root, and so ends at once.
        if (errno == EACCES) {
            writeToStandardError(line);
        }
        return;
    }
    // In the background of a terminal with "stty tostop" the signal would stop us; termios(3).
    sigset_t background{};
    sigset_t before{};
    sigemptyset(&background);
    sigaddset(&background, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &background, &before);
    [[maybe_unused]] const ssize_t written = write(terminal.get(), line.data(), line.size());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
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
        writeToStandardError(line);
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
    if (context == nullptr) {
        contextFields = {};
        return;
    }
    const std::string end = internetDate(context->end);
    contextFields = {"HALVO_UID=" + std::to_string(context->uid), "HALVO_BUNDLE=" + context->bundle,
                     end.empty() ? "" : "HALVO_END=" + end};
}

std::vector<std::string> logFields() {
    std::vector<std::string> fields(contextFields.begin(), contextFields.end());
    std::erase(fields, "");
    return fields;
}

void logToTerminalToo() { isForTerminal = true; }

void detail::writeLog(const Logger& logger, LogLevel level, std::string_view format,
                      const LogArgument* arguments) {
    const LogSink sink = installedSink != nullptr ? installedSink : writeToSystem;
    sink(logger, level, formatted(format, arguments));
}

}  // namespace halvo
