#include "HalvoHelperCore/ItemFlags.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "HalvoPlatform/Paths.hpp"

namespace halvo {

std::optional<std::uint32_t> itemFlags(const std::string& path) {
    struct stat status{};
    if (hasZeroByte(path) || lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(status.st_flags);
}

int setItemFlags(const std::string& path, std::uint32_t wanted) {
    return lchflags(path.c_str(), wanted) == 0 ? 0 : errno;
}

}  // namespace halvo
