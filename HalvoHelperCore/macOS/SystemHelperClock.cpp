#include "HalvoHelperCore/SystemHelperClock.hpp"

#include <sys/sysctl.h>

#include <cstddef>
#include <string>

namespace halvo {

BootID readBootID() {
    constexpr const char* name = "kern.bootsessionuuid";
    std::size_t size = 0;
    if (sysctlbyname(name, nullptr, &size, nullptr, 0) != 0 || size == 0) {
        return unknownBootID;
    }
    std::string bytes(size, '\0');
    if (sysctlbyname(name, bytes.data(), &size, nullptr, 0) != 0) {
        return unknownBootID;
    }
    return bootIDFrom(bytes);
}

}  // namespace halvo
