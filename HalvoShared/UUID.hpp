// Universally unique identifiers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace halvo {

// A value; nil by default.
struct UUID {
    static constexpr std::size_t textSize = 36;

    std::array<std::uint8_t, 16> bytes{};

    bool operator==(const UUID&) const = default;

    // Parses the 36 characters of the hyphenated form, in either case; nothing for other texts.
    static std::optional<UUID> fromText(const std::string& text);

    // The hyphenated form in upper case, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
    [[nodiscard]] std::string text() const;
};

}  // namespace halvo
