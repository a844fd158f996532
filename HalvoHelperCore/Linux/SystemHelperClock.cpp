#include "HalvoHelperCore/SystemHelperClock.hpp"

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

}  // namespace halvo
