// Whatever the snapshot file holds, reading it does not crash, what is read can be written, and a
// widget can draw from it.

#include <algorithm>

#include "HalvoShared/WidgetMoment.hpp"
#include "tests/Fuzz/Records.hpp"
#include "tests/Support/SampleSnapshot.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto snapshot = halvo::testing::readForFuzzing<halvo::WidgetSnapshot>(data, size);
    if (!snapshot) {
        return 0;
    }
    const halvo::testing::UTCCalendar calendar;
    constexpr std::size_t limit = 60;
    constexpr halvo::Seconds span{86400};
    const auto from = snapshot->phases.empty() ? snapshot->writtenAt : snapshot->phases[0].start;
    const auto dates = snapshot->timelineDates(from, calendar, span, limit);
    if (dates.empty() || dates.size() > limit || dates.front() != from ||
        std::ranges::adjacent_find(dates, std::ranges::greater_equal()) != dates.end()) {
        std::abort();
    }
    for (const halvo::WallDate date : dates) {
        if (snapshot->moment(date, calendar).week.size() != 7) {
            std::abort();
        }
    }
    return 0;
}
