#include "HalvoPlatform/Paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <utility>

namespace halvo {

bool hasZeroByte(const std::string& path) { return path.find('\0') != std::string::npos; }

bool isUTF8(std::string_view text) {
    // The least code point that takes so many bytes; a single byte begins with a zero bit.
    constexpr std::array<char32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
    constexpr char32_t last = 0x10FFFF;
    while (!text.empty()) {
        const auto lead = static_cast<unsigned char>(text.front());
        const auto ones = static_cast<std::size_t>(std::countl_one(lead));
        const std::size_t size = std::max<std::size_t>(ones, 1);
        if (ones == 1 || ones >= least.size() || text.size() < size) {
            return false;
        }
        char32_t code = lead & (0xFFU >> (ones + 1));
        for (const char each : text.substr(1, size - 1)) {
            const auto byte = static_cast<unsigned char>(each);
            if (std::countl_one(byte) != 1) {
                return false;
            }
            code = code << 6U | (byte & 0x3FU);
        }
        const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
        if (code < least.at(ones) || code > last || isSurrogate) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

std::expected<std::string, int> linkTarget(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0 || std::cmp_equal(length, target.size())) {
        return std::unexpected(length < 0 ? errno : ENAMETOOLONG);
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> canonicalPath(const std::string& path) {
    std::array<char, PATH_MAX> real{};
    if (hasZeroByte(path) || realpath(path.c_str(), real.data()) == nullptr) {
        return std::nullopt;
    }
    return real.data();
}

std::string resolvedPath(const std::string& path) { return canonicalPath(path).value_or(path); }

bool isFolder(const std::string& path) {
    struct stat status{};
    return !hasZeroByte(path) && lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool itemExists(const std::string& path) {
    return !hasZeroByte(path) && access(path.c_str(), F_OK) == 0;
}

}  // namespace halvo
