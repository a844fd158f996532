// The one executor that owns all state.
#pragma once

#include "HalvoPlatform/Fatal.hpp"

namespace halvo {

// Whether the caller runs on the main queue. Costs no system call after a thread's first question.
// On Linux the main queue is the process's initial thread; on macOS it is that until
// dispatch_main(3), and whichever thread Dispatch has serve it from then on.
bool onMainActor();

// Checks that the caller runs on the main queue, and otherwise ends the process with the fatal
// error "Incorrect actor executor assumption; Expected same executor as MainActor."
inline void assumeMainActor() {
    if (!onMainActor()) {
        fatal("Incorrect actor executor assumption; Expected same executor as MainActor.");
    }
}

}  // namespace halvo
