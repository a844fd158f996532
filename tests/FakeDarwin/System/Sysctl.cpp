// sysctl(3) "kern.bootsessionuuid".
#include <sys/sysctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "../FakeDarwin.hpp"

extern "C" int sysctlbyname(const char* name, void* value, std::size_t* size, void*, std::size_t) {
    fake::World& world = fake::world();
    ++world.sysctlCalls;
    if (std::strcmp(name, "kern.bootsessionuuid") != 0 || !world.bootSession) {
        errno = ENOENT;
        return -1;
    }
    const std::string& bytes = *world.bootSession;
    if (value != nullptr) {
        if (world.bootSessionReadFails || *size < bytes.size()) {
            errno = ENOMEM;
            return -1;
        }
        std::ranges::copy(bytes, static_cast<char*>(value));
    }
    *size = bytes.size();
    return 0;
}
