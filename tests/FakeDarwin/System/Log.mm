// The unified log. What is not public in a message is not recorded, as in the real one: texts are
// private unless marked, numbers are public (os_log(3)).
#include <os/log.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "../FakeDarwin.hpp"
#include "../ObjectiveC/Runtime.hpp"

@interface FakeLog : NSObject <OS_os_log> {
  @public
    std::string _subsystem;
    std::string _category;
}
@end

@implementation FakeLog
@end

namespace {

// The log is the one place that several threads may reach at once.
std::mutex& lock() {
    static auto& only = *new std::mutex;
    return only;
}

// A placeholder of a format: %{public}ld.
struct Placeholder {
    bool isPublic = false;
    bool isPrivate = false;
    // What printf(3) is to do: %ld, without the options in braces.
    std::string forPrintf = "%";
    char conversion = '\0';
    bool isLong = false;
};

// Reads the placeholder behind the percent sign, and moves `format` behind it.
Placeholder placeholderAt(const char*& format) {
    Placeholder found;
    if (*format == '{') {
        const char* end = std::strchr(format, '}');
        const std::string options(format + 1, end);
        found.isPublic = options.find("public") != std::string::npos;
        found.isPrivate = options.find("private") != std::string::npos;
        format = end + 1;
    }
    while (std::strchr("-+ #0123456789.", *format) != nullptr && *format != '\0') {
        found.forPrintf += *format++;
    }
    while (std::strchr("hlqjzt", *format) != nullptr && *format != '\0') {
        found.isLong = found.isLong || *format != 'h';
        found.forPrintf += *format++;
    }
    found.conversion = *format++;
    found.forPrintf += found.conversion;
    return found;
}

template <typename Value>
std::string printed(const Placeholder& placeholder, Value value) {
    char text[512];
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text, sizeof text, placeholder.forPrintf.c_str(), value);
#pragma clang diagnostic pop
    return text;
}

class Message {
  public:
    // Takes the arguments that `format` asks for.
    Message(const char* format, va_list arguments) {
        va_copy(arguments_, arguments);
        while (*format != '\0') {
            if (*format != '%') {
                text_ += *format++;
                continue;
            }
            ++format;
            fill(placeholderAt(format));
        }
    }

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    ~Message() { va_end(arguments_); }

    [[nodiscard]] const std::string& text() const { return text_; }

  private:
    void fill(const Placeholder& placeholder) {
        const std::string value = valueFor(placeholder);
        const bool isText = placeholder.conversion == 's';
        const bool isHidden = placeholder.isPrivate || (isText && !placeholder.isPublic);
        text_ += isHidden ? "<private>" : value;
    }

    std::string valueFor(const Placeholder& placeholder) {
        switch (placeholder.conversion) {
            case '%':
                return "%";
            case 'm':
                return std::strerror(errno);
            case 's': {
                const char* text = va_arg(arguments_, const char*);
                return text == nullptr ? "(null)" : text;
            }
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
                return placeholder.isLong ? printed(placeholder, va_arg(arguments_, long))
                                          : printed(placeholder, va_arg(arguments_, int));
            case 'f':
            case 'g':
                return printed(placeholder, va_arg(arguments_, double));
            default:
                fake::objc::fail("the log does not know %s", placeholder.forPrintf.c_str());
        }
    }

    va_list arguments_;
    std::string text_;
};

}  // namespace

extern "C" {

// One object for each subsystem and category, for as long as the process lives.
os_log_t os_log_create(const char* subsystem, const char* category) {
    static auto& all = *new std::map<std::pair<std::string, std::string>, FakeLog*>;
    const std::scoped_lock held(lock());
    FakeLog* __strong& log = all[{subsystem, category}];
    if (log == nil) {
        log = [[FakeLog alloc] init];
        log->_subsystem = subsystem;
        log->_category = category;
    }
    return log;
}

void fakeOSLog(os_log_t log, os_log_type_t type, const char* format, ...) {
    const auto* logger = static_cast<FakeLog*>(log);
    va_list arguments;
    va_start(arguments, format);
    const Message message(format, arguments);
    va_end(arguments);
    const std::scoped_lock held(lock());
    fake::world().log.push_back(
        {logger->_subsystem, logger->_category, type == OS_LOG_TYPE_ERROR, message.text()});
}
}
