// Parsing any bytes as a time-zone file does not crash, a parsed zone has the documented
// invariants, and its calendar moves forward.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/TimeZone.hpp"

namespace {

void require(bool isSo) {
    if (!isSo) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto zone = halvo::TimeZone::parse({reinterpret_cast<const char*>(data), size}, "Fuzz");
    if (!zone) {
        require(!zone.error().empty());
        return 0;
    }
    const auto& changes = zone->changes;
    require(changes.size() >= 2 && changes.front().begin == std::chrono::sys_seconds::min() &&
            changes.back().begin == std::chrono::sys_seconds::max());
    for (std::size_t i = 0; i + 1 < changes.size(); ++i) {
        require(changes[i].begin < changes[i + 1].begin);
        require(changes[i].offset != changes[i + 1].offset);
        require(std::chrono::abs(changes[i].offset) <= std::chrono::hours{26});
    }
    for (const std::int64_t second : {-62135596800, 0L, 4102444800L, 64092211200L, 1L << 60U}) {
        const std::chrono::sys_seconds instant{std::chrono::seconds{second}};
        const halvo::OffsetSpan span = zone->at(instant);
        require(span.begin <= instant && instant < span.end);
    }
    const halvo::GregorianCalendar calendar(*std::move(zone));
    for (const double seconds : {-62135596800.0, -2e9, 0.0, 1.7e9, 6.4e10, 253402300799.0}) {
        const halvo::WallDate date = halvo::wallDate(seconds);
        require(calendar.startOfDay(date) <= date);
        require(calendar.startOfNextDay(date).value_or(halvo::WallDate::max()) > date);
        static_cast<void>(calendar.addingDays(1, date));
        static_cast<void>(calendar.addingDays(-400, date));
    }
    return 0;
}
