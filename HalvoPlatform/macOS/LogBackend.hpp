// The log on macOS: the unified log (os_log(3)), which redacts texts that are not marked public.
#pragma once

#include <os/log.h>

namespace halvo {

struct Logger;

// The system's object for `logger`. The system keeps one for each subsystem and category for as
// long as the process lives; it is never released. os_log_create(3).
os_log_t systemLog(const Logger& logger);

}  // namespace halvo

// NOLINTBEGIN(cppcoreguidelines-macro-usage): see Log.hpp.
#define HALVO_LOG_DEFAULT(logger, ...) \
    os_log_with_type(::halvo::systemLog(logger), OS_LOG_TYPE_DEFAULT, __VA_ARGS__)
#define HALVO_LOG_ERROR(logger, ...) \
    os_log_with_type(::halvo::systemLog(logger), OS_LOG_TYPE_ERROR, __VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)
