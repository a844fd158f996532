#include "HalvoShared/UUID.hpp"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstddef>

namespace halvo {
namespace {

// uuid_unparse(3): with the zero byte at its end.
constexpr std::size_t textSize = 37;

}  // namespace

std::optional<UUID> UUID::fromText(const std::string& text) {
    uuid_t raw;
    // uuid_parse(3) sees a text only up to its first zero byte.
    if (text.size() != textSize - 1 || uuid_parse(text.c_str(), raw) != 0) {
        return std::nullopt;
    }
    UUID uuid;
    std::ranges::copy(raw, uuid.bytes.begin());
    return uuid;
}

std::string UUID::text() const {
    std::string text(textSize, '\0');
    uuid_unparse_upper(bytes.data(), text.data());
    text.pop_back();
    return text;
}

}  // namespace halvo
