#include "HalvoPlatform/Paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdlib>

namespace halvo {
namespace {

// The well-formed sequences of the Unicode Standard (table 3-7): the range of the first byte, that
// of the second, and how many follow the first. All that follow the second are 0x80 to 0xBF.
struct Form {
    unsigned char first;
    unsigned char last;
    unsigned char lowest;
    unsigned char highest;
    std::size_t following;
};

constexpr std::array forms{
    Form{0x00, 0x7F, 0x00, 0x00, 0}, Form{0xC2, 0xDF, 0x80, 0xBF, 1},
    Form{0xE0, 0xE0, 0xA0, 0xBF, 2}, Form{0xE1, 0xEC, 0x80, 0xBF, 2},
    Form{0xED, 0xED, 0x80, 0x9F, 2}, Form{0xEE, 0xEF, 0x80, 0xBF, 2},
    Form{0xF0, 0xF0, 0x90, 0xBF, 3}, Form{0xF1, 0xF3, 0x80, 0xBF, 3},
    Form{0xF4, 0xF4, 0x80, 0x8F, 3},
};

bool isIn(char character, unsigned char first, unsigned char last) {
    const auto byte = static_cast<unsigned char>(character);
    return byte >= first && byte <= last;
}

}  // namespace

bool hasZeroByte(const std::string& path) { return path.find('\0') != std::string::npos; }

bool isUTF8(std::string_view text) {
    while (!text.empty()) {
        const auto* form = std::ranges::find_if(
            forms, [&text](const Form& each) { return isIn(text.front(), each.first, each.last); });
        if (form == forms.end() || text.size() <= form->following) {
            return false;
        }
        for (std::size_t i = 1; i <= form->following; ++i) {
            if (!isIn(text[i], i == 1 ? form->lowest : 0x80, i == 1 ? form->highest : 0xBF)) {
                return false;
            }
        }
        text.remove_prefix(form->following + 1);
    }
    return true;
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
