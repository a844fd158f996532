// The log on Linux: the journal's fields MESSAGE, PRIORITY, SUBSYSTEM and CATEGORY where a journal
// listens (sd_journal_sendv(3)), with HALVO_UID, HALVO_BUNDLE and HALVO_END while a commitment is
// known; else one line on standard error.
#pragma once

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace halvo {

struct Logger;

enum class LogLevel { Default, Error };

// Receives each finished message: the system's log, unless a test puts another in its place. Not to
// be replaced while another thread logs.
using LogSink = void (*)(const Logger& logger, LogLevel level, std::string_view message);
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the log is the process's.
extern LogSink logSink;

// The fields of the current context, as "NAME=value". For tests.
std::vector<std::string> logFields();

namespace detail {

// The placeholder of each type of argument.
constexpr std::string_view placeholderOf(const char*) { return "%{public}s"; }

constexpr std::string_view placeholderOf(long) { return "%{public}ld"; }

constexpr std::string_view placeholderOf(int) { return "%d"; }

// The text of an argument, without control characters.
std::string printed(const char* value);

inline std::string printed(long value) { return std::to_string(value); }

// A format that is checked against the types of its arguments at compile time.
template <class... Arguments>
struct LogFormat {
    consteval LogFormat(const char* format) : text(format) {
        const std::array<std::string_view, sizeof...(Arguments)> placeholders{
            placeholderOf(Arguments{})...};
        bool agrees = true;
        std::string_view rest = text;
        for (const std::string_view placeholder : placeholders) {
            rest.remove_prefix(std::min(rest.find('%'), rest.size()));
            agrees = agrees && rest.starts_with(placeholder);
            rest.remove_prefix(std::min(placeholder.size(), rest.size()));
        }
        if (!agrees || rest.contains('%')) {
            // Not a constant expression, so the compilation fails here.
            throw "placeholders and arguments do not agree";
        }
    }

    std::string_view text;
};

void writeLog(const Logger& logger, LogLevel level, std::string_view format,
              std::initializer_list<std::string> arguments);

}  // namespace detail

template <class... Arguments>
void log(const Logger& logger, LogLevel level,
         detail::LogFormat<std::type_identity_t<Arguments>...> format, Arguments... arguments) {
    detail::writeLog(logger, level, format.text, {detail::printed(arguments)...});
}

}  // namespace halvo

// NOLINTBEGIN(cppcoreguidelines-macro-usage): see Log.hpp.
#define HALVO_LOG_DEFAULT(logger, ...) \
    ::halvo::log((logger), ::halvo::LogLevel::Default, __VA_ARGS__)
#define HALVO_LOG_ERROR(logger, ...) ::halvo::log((logger), ::halvo::LogLevel::Error, __VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)
