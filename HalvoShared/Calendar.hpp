// Calendar days, as the person at the machine counts them.
#pragma once

#include <optional>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// Where days begin, and what time it is a number of days later. All members: any thread, never
// throw.
//
// A day is all the instants with one calendar date; it may last 23 or 25 hours, or not exist. To go
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

    // The same time of day, `days` calendar days later, earlier when negative. A time that the
    // clock skips on that day is later by as much as it skips; of a time that comes twice it is the
    // first, also when `days` is 0. Fractions of a second are kept, as far as a WallDate holds
    // them. Nothing when that day does not exist, or when it or `date` is outside the calendar's
    // range.
    [[nodiscard]] virtual std::optional<WallDate> addingDays(int days, WallDate date) const = 0;

  protected:
    Calendar(const Calendar&) = default;
    Calendar& operator=(const Calendar&) = default;
};

}  // namespace halvo
