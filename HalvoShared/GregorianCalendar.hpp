// Calendar days in a time zone of the system.
#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/TimeZone.hpp"

namespace halvo {

// The proleptic Gregorian calendar in one time zone of the IANA database: where days begin, and
// arithmetic with days. Its range is the years 1 to 9999 in UTC; a date that is not finite is
// outside of it.
//
// A day is all the instants with one calendar date. It may last 23 or 25 hours or not exist, and
// where the clock goes back across midnight it may be interrupted by another day. To iterate over
// days, step from start to start: 24 hours may end on the same day, or skip one.
//
// An immutable value; copies share the zone. All members: any thread, never throw, allocate or
// block. Making one reads the zone's file in /usr/share/zoneinfo (tzfile(5); TZDIR is ignored) in
// less than a tenth of a millisecond. An update of the file takes effect with the next calendar.
class GregorianCalendar {
  public:
    explicit GregorianCalendar(TimeZone zone);

    // The calendar of the zone `name`, such as "Europe/Berlin"; links such as "Eire" work too.
    // Fails as TimeZone::read() does. Any thread.
    static std::expected<GregorianCalendar, std::string> named(const std::string& name);

    // The calendar of the system's zone: the one in the environment variable TZ (without a leading
    // ":", see tzset(3)), else timeZoneOfMachine(), else UTC. Later changes of either do not affect
    // it. Any thread, as long as no other changes the environment.
    static GregorianCalendar system();

    // The first instant of the calendar day of `date`: later than midnight when midnight was
    // skipped, the first one when midnight came twice. A date outside the range is returned as it
    // is.
    [[nodiscard]] WallDate startOfDay(WallDate date) const;

    // The first instant after `date` with a later calendar date. Nothing when it or `date` is
    // outside the range.
    [[nodiscard]] std::optional<WallDate> startOfNextDay(WallDate date) const;

    // The same time of day, `count` calendar days later, earlier when negative; as
    // -[NSCalendar dateByAddingUnit:value:toDate:options:] does. A time that is skipped on that day
    // is moved later by the length of the gap. Of a time that comes twice the result is, going
    // forward, the first; going back, the one with the offset of `date`, if there is one. Across a
    // whole day that was skipped, or came twice, each day counts as 24 hours: the next day takes
    // the place of a skipped one, the previous day when going back. Fractions of a second are kept.
    // Nothing when the result or `date` is outside the range.
    [[nodiscard]] std::optional<WallDate> addingDays(int count, WallDate date) const;

    // The offset from UTC at `date`, positive east of Greenwich; 0 for a date outside the range.
    [[nodiscard]] Seconds offset(WallDate date) const;

    // Not movable: a moved-from calendar would have no zone.
    GregorianCalendar(const GregorianCalendar&) = default;
    GregorianCalendar& operator=(const GregorianCalendar&) = default;

  private:
    std::shared_ptr<const TimeZone> zone_;
};

}  // namespace halvo
