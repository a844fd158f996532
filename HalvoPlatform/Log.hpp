// The system log. Messages are fixed texts with the unified log's placeholders:
//
//     HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d", verb, number);
//
// "%{public}s" takes a `const char*`, "%{public}ld" a `long`, "%d" an `int`; anything else does not
// compile. They are macros because the unified log takes a format only as a literal at the call
// site. A failure to log is ignored. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

struct Logger {
    const char* subsystem;
    const char* category;
};

// The helper's only logger.
inline constexpr Logger helperLog{"app.halvo", "Helper"};

// The commitment that is held, as fields to filter the log by.
struct LogContext {
    std::uint32_t uid{};
    std::string bundle;
    WallDate end;
};

// Sets the fields that each line has from now on besides its message, where the system's log has
// fields; on macOS it has none. Null: none. Main thread only, while no other thread logs.
void setLogContext(const LogContext* context);

// Writes each line to standard error too where that is a terminal, for a service that is started by
// hand. A terminal that is stopped or closed neither delays nor ends the process: the line is lost.
// Without effect on macOS, where only launchd starts the helper. Main thread only.
void logToTerminalToo();

}  // namespace halvo

// Defines HALVO_LOG_DEFAULT(logger, format, ...), for changes of state, and
// HALVO_LOG_ERROR(logger, format, ...), for refusals and failures. One header of this name per
// system.
#include "LogBackend.hpp"  // IWYU pragma: export
