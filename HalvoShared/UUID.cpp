#include "HalvoShared/UUID.hpp"

#include <uuid/uuid.h>

namespace halvo {

std::optional<UUID> UUID::fromText(const std::string& text) {
    UUID uuid;
    // uuid_parse(3) sees a text only up to its first zero byte.
    const bool isUUID = text.size() == textSize && uuid_parse(text.c_str(), uuid.bytes.data()) == 0;
    return isUUID ? std::optional(uuid) : std::nullopt;
}

std::string UUID::text() const {
    std::string text(textSize, '\0');
    // The zero byte at its end takes the place of that of the string.
    uuid_unparse_upper(bytes.data(), text.data());
    return text;
}

}  // namespace halvo
