// The calendar of a time zone, as the system's own time zone files know it.
#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "HalvoShared/Calendar.hpp"
#include "HalvoShared/TimeZone.hpp"

namespace halvo {

// The Gregorian calendar, also before it was introduced, in one time zone of the IANA database. Its
// range are the years 1 to 9999 in UTC; a date that is not finite is outside of it.
//
// An immutable value whose copies share what was read. Making one reads the zone's file, about
// a millisecond; after that no member reads, waits or allocates. The files are those in
// /usr/share/zoneinfo (see tzfile(5)); TZDIR does not count. Newer files are seen by the next.
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
    [[nodiscard]] std::optional<WallDate> addingDays(int days, WallDate date) const override;

  private:
    // The change since which clocks go as they do at `instant`.
    [[nodiscard]] const OffsetChange* changeAt(std::chrono::sys_seconds instant) const;

    std::shared_ptr<const TimeZone> zone_;
};

}  // namespace halvo
