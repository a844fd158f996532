// The rule by which a time zone goes on after the last change that its file lists.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string_view>
#include <variant>

namespace halvo {

// From `begin` on, clocks are `offset` ahead of UTC.
struct OffsetChange {
    std::chrono::sys_seconds begin;
    std::chrono::seconds offset;

    bool operator==(const OffsetChange&) const = default;
};

// What the TZ variable of tzset(3) says, and the last line of a file of tzfile(5), with the times
// of day from -167 to 167 hours that RFC 8536 (3.3.1) adds. A value; any thread.
struct TimeZoneRule {
    // "Jn": the n-th day of the year from 1 to 365; 29 February is not counted.
    struct DayButLeapDay {
        int day;

        bool operator==(const DayButLeapDay&) const = default;
    };

    // "n": this many days after 1 January, from 0 to 365.
    struct DayOfYear {
        int day;

        bool operator==(const DayOfYear&) const = default;
    };

    // "Mm.w.d": in month `month`, from 1, the `week`-th day `weekday`, from Sunday as 0; week 5 is
    // the last.
    struct WeekdayOfMonth {
        int month;
        int week;
        int weekday;

        bool operator==(const WeekdayOfMonth&) const = default;
    };

    // When the clock changes, every year.
    struct Change {
        std::variant<DayButLeapDay, DayOfYear, WeekdayOfMonth> day;
        // After the midnight at which `day` begins, on the clock as it is before the change.
        std::chrono::seconds time;

        bool operator==(const Change&) const = default;
    };

    // The part of the year with another offset; despite the name it may be winter, with a smaller
    // one.
    struct SummerTime {
        std::chrono::seconds offset;
        Change begin;
        Change end;

        bool operator==(const SummerTime&) const = default;
    };

    // How far clocks are ahead of UTC, but for the summer.
    std::chrono::seconds standardOffset;
    std::optional<SummerTime> summer;

    bool operator==(const TimeZoneRule&) const = default;

    // The rule that `text` is, or nothing when it is none: also when it names a summer time and not
    // its days, for which there is no agreed rule.
    static std::optional<TimeZoneRule> parse(std::string_view text);

    // The two changes that belong to `year`, first the one into the summer, which in the south is
    // the later one; nothing without a summer. They may fall a few days outside of the year.
    [[nodiscard]] std::optional<std::array<OffsetChange, 2>> changes(std::chrono::year year) const;
};

}  // namespace halvo
