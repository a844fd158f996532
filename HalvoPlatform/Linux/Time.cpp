#include "HalvoPlatform/Time.hpp"

#include <ctime>

namespace halvo {

Seconds sinceBoot() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

}  // namespace halvo
