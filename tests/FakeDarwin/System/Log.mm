// The unified log. Private arguments are redacted, as in os_log(3): strings are private unless
// marked public, numbers are public unless marked private.
#include <os/log.h>

#include <cstdarg>
#include <map>
#include <regex>
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

// Formats the next of `arguments`, for a placeholder like "{public}ld".
std::string valueFor(const std::string& options, const std::string& conversion,
                     va_list& arguments) {
    std::string value;
    if (conversion == "s") {
        value = va_arg(arguments, const char*);
    } else if (conversion == "d") {
        value = std::to_string(va_arg(arguments, int));
    } else if (conversion == "ld") {
        value = std::to_string(va_arg(arguments, long));
    } else {
        fake::objc::fail("the log does not know %%%s", conversion.c_str());
    }
    const bool isPublic = options == "{public}" || (options.empty() && conversion != "s");
    return isPublic ? value : "<private>";
}

}  // namespace

extern "C" {

// One object per subsystem and category, never freed.
os_log_t os_log_create(const char* subsystem, const char* category) {
    static auto& all = *new std::map<std::pair<std::string, std::string>, FakeLog*>;
    FakeLog* __strong& log = all[{subsystem, category}];
    if (log == nil) {
        log = [[FakeLog alloc] init];
        log->_subsystem = subsystem;
        log->_category = category;
    }
    return log;
}

void fakeOSLog(os_log_t log, os_log_type_t type, const char* format, ...) {
    static const std::regex placeholder(R"(%(\{[a-z]*\})?(l?.))");
    const auto* logger = static_cast<FakeLog*>(log);
    std::string text;
    std::string rest = format;
    va_list arguments;
    va_start(arguments, format);
    for (std::smatch found; std::regex_search(rest, found, placeholder); rest = found.suffix()) {
        text += found.prefix().str() + valueFor(found[1], found[2], arguments);
    }
    va_end(arguments);
    fake::world().log.push_back(
        {logger->_subsystem, logger->_category, type == OS_LOG_TYPE_ERROR, text + rest});
}
}
