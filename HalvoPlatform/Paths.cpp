#include "HalvoPlatform/Paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace halvo {
namespace {

// The forms of a character of several bytes: what its first byte looks like, how many follow, and
// the smallest character that may be written so.
struct Form {
    unsigned char mask;
    unsigned char lead;
    std::size_t following;
    std::uint32_t smallest;
};

constexpr std::array forms{
    Form{0x80, 0x00, 0, 0x0},
    Form{0xE0, 0xC0, 1, 0x80},
    Form{0xF0, 0xE0, 2, 0x800},
    Form{0xF8, 0xF0, 3, 0x10000},
};

const Form* formOf(unsigned char lead) {
    for (const Form& form : forms) {
        if ((lead & form.mask) == form.lead) {
            return &form;
        }
    }
    return nullptr;
}

}  // namespace

bool hasZeroByte(const std::string& path) { return path.find('\0') != std::string::npos; }

bool isUTF8(std::string_view text) {
    while (!text.empty()) {
        const auto lead = static_cast<unsigned char>(text.front());
        const Form* form = formOf(lead);
        if (form == nullptr || text.size() <= form->following) {
            return false;
        }
        std::uint32_t character = lead & static_cast<unsigned char>(~form->mask);
        for (std::size_t i = 1; i <= form->following; ++i) {
            const auto next = static_cast<unsigned char>(text[i]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            character = character << 6 | (next & 0x3F);
        }
        const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
        if (character < form->smallest || character > 0x10FFFF || surrogate) {
            return false;
        }
        text.remove_prefix(form->following + 1);
    }
    return true;
}

std::optional<std::string> canonicalPath(const std::string& path) {
    if (hasZeroByte(path)) {
        return std::nullopt;
    }
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                           &std::free);
    if (real == nullptr) {
        return std::nullopt;
    }
    return std::string(real.get());
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
