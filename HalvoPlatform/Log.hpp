// The system log. Messages are fixed texts with the unified log's placeholders:
//
//     HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d", verb, number);
//
// "%{public}s" takes a `const char*`, "%{public}ld" a `long`, "%d" an `int`; anything else does not
// compile. The two are macros because the unified log takes a format only as a literal at the place
// of the call; everywhere else they are plain functions. Any thread. Logging never fails towards
// its caller.
#pragma once

namespace halvo {

struct Logger {
    const char* subsystem;
    const char* category;
};

// Where everything that the helper says goes.
inline constexpr Logger helperLog{"app.halvo", "Helper"};

}  // namespace halvo

// Defines HALVO_LOG_DEFAULT(logger, format, ...), for changes of state, and
// HALVO_LOG_ERROR(logger, format, ...), for refusals and failures. One header of this name per
// system.
#include "LogBackend.hpp"  // IWYU pragma: export
