// The timeline that a widget gets of a snapshot, with the reason for each date.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo::records {

// The dates at which a widget's picture changes, and when it asks for new ones.
struct Timeline {
    struct Row {
        WallDate date;
        // Any of "start" (the timeline's own), "phase", "midnight" (a day's first instant) and
        // "minute" (of a countdown).
        std::vector<std::string> reasons;
        WidgetSnapshot::State state;
    };

    std::vector<Row> rows;
    WallDate reload;

    // The timeline of `snapshot` that a widget asks for at `from`: timelineDates() of the other
    // arguments, and its reloadDate().
    static Timeline of(const WidgetSnapshot& snapshot, WallDate from,
                       const GregorianCalendar& calendar, Seconds countdownSpan, std::size_t limit);
};

// A table with a heading, a line for each date on the clocks of `calendar`, and a line for the
// reload. Can be printed to a terminal.
std::string description(const Timeline& timeline, const GregorianCalendar& calendar);

// An object with the list "dates" and with "reload", each date as in the records, or null where the
// records have no text for it. Over several lines.
std::string asJSON(const Timeline& timeline);

}  // namespace halvo::records
