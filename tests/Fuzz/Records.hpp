// What holds of every record's reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "HalvoShared/JSON.hpp"

namespace halvo::testing {

// Reads a T from the bytes, if they hold one, and ends the process when it could not be written
// and read again as the same.
template <class T>
std::optional<T> readForFuzzing(const std::uint8_t* data, std::size_t size) {
    const auto record = JSON::decode<T>({reinterpret_cast<const char*>(data), size});
    if (!record) {
        if (JSON::description(record.error()).empty()) {
            std::abort();
        }
        return std::nullopt;
    }
    const auto json = JSON::encode(*record);
    if (!json || JSON::decode<T>(*json) != *record) {
        std::abort();
    }
    return *record;
}

}  // namespace halvo::testing
