#include "HalvoHelperCore/SystemHelperClock.hpp"

#include <string>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

ClockReading SystemHelperClock::reading() {
    static const BootID bootID = readBootID();
    // In this order: the wall clock is taken last.
    const Seconds monotonic = sinceBoot();
    return {bootID, monotonic, wallNow()};
}

BootID bootIDFrom(std::string_view bytes) {
    const std::string_view text = bytes.substr(0, bytes.find('\0'));
    return isUTF8(text) ? BootID(std::string(text)) : BootID(unknownBootID);
}

}  // namespace halvo
