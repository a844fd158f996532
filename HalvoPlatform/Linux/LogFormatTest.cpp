// Calls of the log of which all but the first must not compile. HALVO_CASE chooses one.
#include "HalvoPlatform/Log.hpp"

namespace halvo {

void say() {
#if HALVO_CASE == 0
    HALVO_LOG_DEFAULT(helperLog, "%{public}s %{public}ld %d", "text", 1L, 1);
#elif HALVO_CASE == 1
    HALVO_LOG_DEFAULT(helperLog, "%d", "text");
#elif HALVO_CASE == 2
    HALVO_LOG_DEFAULT(helperLog, "%{public}ld", 1);
#elif HALVO_CASE == 3
    HALVO_LOG_DEFAULT(helperLog, "%d %d", 1);
#elif HALVO_CASE == 4
    HALVO_LOG_DEFAULT(helperLog, "%d", 1, 2);
#elif HALVO_CASE == 5
    HALVO_LOG_DEFAULT(helperLog, "%s", "text");
#elif HALVO_CASE == 6
    HALVO_LOG_DEFAULT(helperLog, "100%");
#endif
}

}  // namespace halvo
