// The log on Linux: the journal's fields MESSAGE, PRIORITY, SUBSYSTEM and CATEGORY where a journal
// listens (sd_journal_sendv(3)), with HALVO_UID, HALVO_BUNDLE and HALVO_END while a commitment is
// known; else one line on standard error.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace halvo {

struct Logger;

enum class LogLevel { Default, Error };

// Receives each finished message in place of the system's log. For tests.
using LogSink = void (*)(const Logger& logger, LogLevel level, std::string_view message);

// Installs `sink` (null: the system's log again) and returns the one before it. Not to be called
// while another thread logs.
LogSink replaceLogSink(LogSink sink);

// The fields of the context that lines have now, as "NAME=value". For tests.
std::vector<std::string> logFields();

namespace detail {

struct LogArgument {
    enum class Kind { Text, Long, Int } kind;

    union {
        const char* text;
        long number;
    };

    constexpr LogArgument(const char* value) : kind(Kind::Text), text(value) {}

    constexpr LogArgument(long value) : kind(Kind::Long), number(value) {}

    constexpr LogArgument(int value) : kind(Kind::Int), number(value) {}
};

struct LogPlaceholder {
    std::string_view spelling;
    LogArgument::Kind kind;
};

inline constexpr std::array logPlaceholders{
    LogPlaceholder{"%{public}s", LogArgument::Kind::Text},
    LogPlaceholder{"%{public}ld", LogArgument::Kind::Long},
    LogPlaceholder{"%d", LogArgument::Kind::Int},
};

// The placeholder that `text` begins with, or null.
constexpr const LogPlaceholder* placeholderAt(std::string_view text) {
    for (const LogPlaceholder& placeholder : logPlaceholders) {
        if (text.starts_with(placeholder.spelling)) {
            return &placeholder;
        }
    }
    return nullptr;
}

// A format that has been checked against the types of its arguments by the compiler.
template <class... Arguments>
class LogFormat {
  public:
    consteval LogFormat(const char* format) : text(format) {
        constexpr std::array<LogArgument::Kind, sizeof...(Arguments)> kinds{
            LogArgument(Arguments{}).kind...};
        std::size_t used = 0;
        std::string_view rest = text;
        while (!rest.empty()) {
            if (rest.front() != '%') {
                rest.remove_prefix(1);
                continue;
            }
            const LogPlaceholder* placeholder = placeholderAt(rest);
            // A throw is not a constant expression: it stops the compilation here.
            if (placeholder == nullptr) {
                throw "unknown placeholder";
            }
            if (used == kinds.size() || kinds[used] != placeholder->kind) {
                throw "placeholder and argument do not agree";
            }
            ++used;
            rest.remove_prefix(placeholder->spelling.size());
        }
        if (used != kinds.size()) {
            throw "more arguments than placeholders";
        }
    }

    std::string_view text;
};

void writeLog(const Logger& logger, LogLevel level, std::string_view format,
              const LogArgument* arguments);

}  // namespace detail

template <class... Arguments>
void log(const Logger& logger, LogLevel level,
         detail::LogFormat<std::type_identity_t<Arguments>...> format, Arguments... arguments) {
    const std::array<detail::LogArgument, sizeof...(Arguments) + 1> list{
        detail::LogArgument(arguments)..., detail::LogArgument(0)};
    detail::writeLog(logger, level, format.text, list.data());
}

}  // namespace halvo

// NOLINTBEGIN(cppcoreguidelines-macro-usage): see Log.hpp.
#define HALVO_LOG_DEFAULT(logger, ...) \
    ::halvo::log((logger), ::halvo::LogLevel::Default, __VA_ARGS__)
#define HALVO_LOG_ERROR(logger, ...) ::halvo::log((logger), ::halvo::LogLevel::Error, __VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)
