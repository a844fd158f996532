// The images of this process, dyld(3), and their sections, getsectiondata(3): of the program alone,
// which is the first.
#include <mach-o/dyld.h>
#include <mach-o/getsect.h>

#include <string_view>

#include "../FakeDarwin.hpp"

struct mach_header {};

extern "C" {

const mach_header* _dyld_get_image_header(std::uint32_t index) {
    static const mach_header program;
    return index == 0 ? &program : nullptr;
}

std::uint8_t* getsectiondata(const mach_header_64* image, const char* segment, const char* section,
                             unsigned long* size) {
    auto& info = fake::world().carriedInfo;
    if (static_cast<const void*>(image) != _dyld_get_image_header(0) ||
        std::string_view(segment) != "__TEXT" || std::string_view(section) != "__info_plist" ||
        !info) {
        return nullptr;
    }
    *size = info->size();
    return reinterpret_cast<std::uint8_t*>(info->data());
}

}  // extern "C"
