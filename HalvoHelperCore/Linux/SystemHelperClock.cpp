#include "HalvoHelperCore/SystemHelperClock.hpp"

#include <ctime>
#include <string>

#include "HalvoPlatform/Files.hpp"

namespace halvo {

BootID readBootID() {
    constexpr std::size_t longest = 256;
    auto text = readFile("/proc/sys/kernel/random/boot_id", longest);
    if (!text) {
        return unknownBootID;
    }
    if (text->ends_with('\n')) {
        text->pop_back();
    }
    return bootIDFrom(*text);
}

Seconds sinceBoot() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

}  // namespace halvo
