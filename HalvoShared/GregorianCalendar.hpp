// Calendar days, as the person at the machine counts them: by the system's own time zone files.
#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/TimeZone.hpp"

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

// The Gregorian calendar, also before it was introduced, in one time zone of the IANA database. Its
// range are the years 1 to 9999 in UTC; a date that is not finite is outside of it.
//
// An immutable value whose copies share what was read. Making one reads the zone's file, less
// than a tenth of a millisecond; after that no member reads, waits or allocates. The files are
// those in /usr/share/zoneinfo (see tzfile(5)); TZDIR does not count. Newer files are seen by the
// next.
class GregorianCalendar final : public Calendar {
  public:
    explicit GregorianCalendar(TimeZone zone);

    // The calendar of the zone `name`, such as "Europe/Berlin", links such as "Eire" included. Any
    // thread. Fails as TimeZone::read does, with a sentence for a person, without a full stop:
    // `no time zone is named "X"`, or why its file cannot be used.
    static std::expected<GregorianCalendar, std::string> named(const std::string& name);

    // The calendar of the system's zone: the one that the environment variable TZ names (a ":" in
    // front is passed over, see tzset(3)), else the one to which the machine is set (see
    // timeZoneOfMachine), else UTC. Any thread, as long as no other changes the environment. The
    // zone stays as it is now when somebody chooses another.
    static GregorianCalendar system();

    // No moves: nothing is cheaper than sharing, and what was moved from would have no zone.
    GregorianCalendar(const GregorianCalendar&) = default;
    GregorianCalendar& operator=(const GregorianCalendar&) = default;
    ~GregorianCalendar() override = default;

    // The name it was asked for; that of the system's zone; or "UTC".
    [[nodiscard]] const std::string& zoneName() const;

    // How far clocks are ahead of UTC at `date`, negative where they are behind. 0 for a date
    // outside the calendar's range.
    [[nodiscard]] Seconds offset(WallDate date) const;

    [[nodiscard]] WallDate startOfDay(WallDate date) const override;
    [[nodiscard]] std::optional<WallDate> startOfNextDay(WallDate date) const override;
    [[nodiscard]] std::optional<WallDate> addingDays(int count, WallDate date) const override;

  private:
    std::shared_ptr<const TimeZone> zone_;
};

}  // namespace halvo
