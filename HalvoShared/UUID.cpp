#include "HalvoShared/UUID.hpp"

#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace halvo {

std::optional<UUID> UUID::fromText(const std::string& text) {
    // That of macOS, and of Foundation on Linux, takes blanks and signs for digits.
    constexpr std::string_view form = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";
    const auto isInPlace = [](unsigned char given, char place) {
        return place == '-' ? given == '-' : std::isxdigit(given) != 0;
    };
    UUID uuid;
    const bool isUUID = std::ranges::equal(text, form, isInPlace) &&
                        uuid_parse(text.c_str(), uuid.bytes.data()) == 0;
    return isUUID ? std::optional(uuid) : std::nullopt;
}

std::string UUID::text() const {
    std::string text(textSize, '\0');
    // The zero byte at its end takes the place of that of the string.
    uuid_unparse_upper(bytes.data(), text.data());
    return text;
}

}  // namespace halvo
