// The system log. Messages are fixed texts with the unified log's placeholders:
//
//     HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d", verb, number);
//
// "%{public}s" takes a `const char*`, "%{public}ld" a `long`, "%d" an `int`; anything else does not
// compile. The two are macros because the unified log takes a format only as a literal at the place
// of the call; everywhere else they are plain functions. Any thread. Logging never fails towards
// its caller.
#pragma once

#include <cstdint>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

struct Logger {
    const char* subsystem;
    const char* category;
};

// Where everything that the helper says goes.
inline constexpr Logger helperLog{"app.halvo", "Helper"};

// The commitment that is held, for who filters the log.
struct LogContext {
    std::uint32_t uid{};
    std::string bundle;
    WallDate end;
};

// What each line says from now on besides its message, in fields of its own where the system's log
// has such; on macOS it has none. Null: nothing. Main thread only, and no other logs meanwhile.
void setLogContext(const LogContext* context);

// Has each line written to standard error too where that is a terminal, for who starts a service by
// hand. One that is stopped or gone neither delays nor ends the process: the line is lost. On macOS
// the unified log is all there is, as launchd starts the helper or nobody. Main thread only.
void logToTerminalToo();

}  // namespace halvo

// Defines HALVO_LOG_DEFAULT(logger, format, ...), for changes of state, and
// HALVO_LOG_ERROR(logger, format, ...), for refusals and failures. One header of this name per
// system.
#include "LogBackend.hpp"  // IWYU pragma: export
