#include "HalvoPlatform/MainActor.hpp"

#include <dispatch/dispatch.h>
#include <pthread.h>

namespace halvo {

bool onMainActor() {
    // Which thread serves the main queue says nothing: from dispatch_main(3) on it is any. So the
    // queue carries a mark, which only its own work sees (dispatch_get_specific(3)).
    static char mark = 0;
    [[maybe_unused]] static const bool marked = [] {
        dispatch_queue_set_specific(dispatch_get_main_queue(), &mark, &mark, nullptr);
        return true;
    }();
    // Until dispatch_main(3) the main queue is the main thread (pthread_main_np(3)), which does
    // nothing after it.
    return dispatch_get_specific(&mark) != nullptr || pthread_main_np() != 0;
}

}  // namespace halvo
