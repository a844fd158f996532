// Zone files of tzfile(5) to read in tests.
#pragma once

#include <cstdint>
#include <string>

namespace halvo::testing {

// A file with one offset, no changes and `end` after them; version '\0' has one part and no end.
inline std::string zoneFile(std::int32_t offset, char version, const std::string& end) {
    const auto number = [](std::uint32_t value) {
        std::string bytes;
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            bytes.push_back(static_cast<char>(value >> shift & 0xFFU));
        }
        return bytes;
    };
    // How many there are of six things: one kind of time and four bytes of names.
    const std::string block = std::string("TZif") + version + std::string(15, '\0') + number(0) +
                              number(0) + number(0) + number(0) + number(1) + number(4) +
                              number(static_cast<std::uint32_t>(offset)) +
                              std::string("\0\0ABC\0", 6);
    return version == '\0' ? block : block + block + end;
}

}  // namespace halvo::testing
