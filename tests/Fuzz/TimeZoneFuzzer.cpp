// Whatever the file of a time zone holds, reading it does not crash, and what is read keeps its
// promises.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string_view>

#include "HalvoShared/TimeZoneFile.hpp"

namespace {

bool isOffset(std::chrono::seconds offset) {
    return offset >= std::chrono::hours{-26} && offset <= std::chrono::hours{26};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto file =
        halvo::TimeZoneFile::parse({reinterpret_cast<const char*>(data), size}, "Fuzz");
    if (!file) {
        if (file.error().empty()) {
            std::abort();
        }
        return 0;
    }
    const auto& changes = file->changes;
    if (!isOffset(file->firstOffset) ||
        !std::ranges::all_of(changes, isOffset, &halvo::OffsetChange::offset) ||
        std::ranges::adjacent_find(changes, std::ranges::greater_equal(),
                                   &halvo::OffsetChange::begin) != changes.end()) {
        std::abort();
    }
    if (file->rule) {
        if (!isOffset(file->rule->standardOffset)) {
            std::abort();
        }
        for (const int year : {1, 1900, 2000, 10'400}) {
            if (file->rule->changes(std::chrono::year{year}).has_value() !=
                file->rule->summer.has_value()) {
                std::abort();
            }
        }
    }
    return 0;
}
