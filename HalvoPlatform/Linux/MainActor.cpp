#include "HalvoPlatform/MainActor.hpp"

#include <unistd.h>

namespace halvo {

bool onMainActor() {
    // The initial thread's id is the process's id: gettid(2).
    static thread_local const bool onInitialThread = gettid() == getpid();
    return onInitialThread;
}

}  // namespace halvo
