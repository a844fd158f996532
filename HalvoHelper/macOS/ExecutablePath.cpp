#include "HalvoHelper/macOS/ExecutablePath.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace halvo {

std::optional<std::string_view> executablePath(pid_t process, PathBuffer& buffer) {
    buffer.fill('\0');
    const int length =
        proc_pidpath(process, buffer.data(), static_cast<std::uint32_t>(buffer.size()));
    if (length < 1) {
        return std::nullopt;
    }
    return std::string_view(buffer.data(),
                            std::min(buffer.size(), static_cast<std::size_t>(length)));
}

}  // namespace halvo
