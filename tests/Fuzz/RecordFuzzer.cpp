// Decoding any bytes as a record does not crash, a decoded record can be encoded, and a widget can
// draw a decoded snapshot.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace {

void require(bool isSo) {
    if (!isSo) {
        std::abort();
    }
}

// Decodes a T, which must survive a round trip; nothing when `bytes` are none.
template <class T>
std::optional<T> readRecord(std::string_view bytes) {
    const auto record = halvo::JSON::decode<T>(bytes);
    if (!record) {
        require(!halvo::JSON::description(record.error()).empty());
        return std::nullopt;
    }
    const auto json = halvo::JSON::encode(*record);
    require(json && halvo::JSON::decode<T>(*json) == *record);
    return *record;
}

void draw(const halvo::WidgetSnapshot& snapshot) {
    const halvo::GregorianCalendar utc{halvo::TimeZone{}};
    // Seven days after the calendar begins.
    constexpr halvo::WallDate firstWeek = halvo::wallDate(-62135078400);
    constexpr std::size_t limit = 60;
    constexpr halvo::Seconds span{86400};
    const auto from = snapshot.phases.empty() ? snapshot.writtenAt : snapshot.phases[0].start;
    const auto dates = snapshot.timelineDates(from, utc, span, limit);
    require(!dates.empty() && dates.size() <= limit && dates.front() == from);
    require(std::ranges::adjacent_find(dates, std::ranges::greater_equal()) == dates.end());
    for (const halvo::WallDate date : dates) {
        require(date < firstWeek || snapshot.moment(date, utc).week.size() == 7);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (const auto state = readRecord<halvo::KeepAliveState>(bytes)) {
        require(!state->shouldRelaunch(state->updatedAt) || !state->clean);
    }
    if (const auto snapshot = readRecord<halvo::WidgetSnapshot>(bytes)) {
        draw(*snapshot);
    }
    return 0;
}
