#include "HalvoHelper/Linux/UnitSuffix.hpp"

#include <sys/random.h>
#include <unistd.h>

#include <cstdint>

namespace halvo {

std::string randomUnitSuffix() {
    std::uint32_t number = 0;
    // For uniqueness only: without randomness the process id does.
    if (getrandom(&number, sizeof number, 0) != sizeof number) {
        number = static_cast<std::uint32_t>(getpid());
    }
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 4) {
        text += digits[number >> shift & 0xFU];
    }
    return text;
}

}  // namespace halvo
