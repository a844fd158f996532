// Calendar days, as the person at the machine counts them.
#pragma once

#include <optional>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// Where days begin, and what time it is a number of days later. All members: any thread, never
// throw.
//
// A day is all the instants with one calendar date; it may last 23 or 25 hours, or not exist, and
// where the clock goes back across midnight some of another day may lie within it. To go
// through days, step from start to start: a span of 24 hours may end on the same day, or pass over
// one.
class Calendar {
  public:
    Calendar() = default;
    virtual ~Calendar() = default;

    // The first instant of the calendar day that holds `date`. It is later than midnight when
    // midnight was skipped, and the first of the two when midnight came twice. A date outside the
    // calendar's range is given back as it is.
    [[nodiscard]] virtual WallDate startOfDay(WallDate date) const = 0;

    // The first instant of the next calendar day that exists: the first one after `date` that has a
    // later calendar date. Nothing when it or `date` is outside the calendar's range.
    [[nodiscard]] virtual std::optional<WallDate> startOfNextDay(WallDate date) const = 0;

    // The same time of day, `days` calendar days later, earlier when negative; as
    // -[NSCalendar dateByAddingUnit:value:toDate:options:] does. A time that the clock skips on
    // that day is later by as much as it skips. Of a time that comes twice it is, on the way
    // forward, the first; on the way back the one with the offset of `date`, where there is one.
    // Over a whole day that was skipped, or came twice, it goes by 24 hours for each day, so that
    // the day after one that was skipped takes its place, or the day before on the way back.
    // Fractions of a second are kept, as far as a WallDate holds them. Nothing when it or `date` is
    // outside the calendar's range.
    [[nodiscard]] virtual std::optional<WallDate> addingDays(int days, WallDate date) const = 0;

  protected:
    Calendar(const Calendar&) = default;
    Calendar& operator=(const Calendar&) = default;
};

}  // namespace halvo
