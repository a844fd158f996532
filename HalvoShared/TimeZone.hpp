// What the system's file of a time zone says, as tzfile(5) and RFC 8536 lay it out.
#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halvo {

// From `begin` on, clocks are `offset` ahead of UTC.
struct OffsetChange {
    std::chrono::sys_seconds begin;
    std::chrono::seconds offset{};

    bool operator==(const OffsetChange&) const = default;
};

// Clocks are `offset` ahead of UTC from `begin` on until `end`. The spans that lie beside it may
// have the same offset.
struct OffsetSpan {
    std::chrono::sys_seconds begin;
    std::chrono::sys_seconds end;
    std::chrono::seconds offset{};

    bool operator==(const OffsetSpan&) const = default;
};

// A value; any thread. Failures are sentences for a person, without a full stop.
struct TimeZone {
    std::string name;
    // Those in the file, and those of the rule by which it goes on, for a little more than the 400
    // years after which the Gregorian calendar repeats itself. Each begins later than the one
    // before and has another offset, of at most 26 hours. The first begins at sys_seconds::min();
    // the last, at sys_seconds::max(), only ends the one before.
    std::vector<OffsetChange> changes;
    // From here on the changes of 400 years come again and again.
    std::chrono::sys_seconds repeatsFrom = std::chrono::sys_seconds::max();

    // The span that holds `instant`, which is before sys_seconds::max().
    [[nodiscard]] OffsetSpan at(std::chrono::sys_seconds instant) const;

    // Reads the file of the zone `name`, /usr/share/zoneinfo/NAME, links followed. Fails with `no
    // time zone is named "X"` when no file there is called that, or it is one of the texts that
    // come with the zones; with `that is not the name of a time zone` when the name would only
    // spoil such a message; or with why the file cannot be used. A name is a relative path that
    // does not lead out of the folder; whether case counts is up to the file system.
    static std::expected<TimeZone, std::string> read(const std::string& name);

    // What the file `bytes` of the zone `name` says. Every number in it is checked, wherever it
    // leads. Refuses also a file that counts leap seconds, since the clock of the process does not,
    // and one with a rule that cannot be read: a wrong hour is worse than none.
    static std::expected<TimeZone, std::string> parse(std::string_view bytes,
                                                      const std::string& name);
};

// The name of the zone to which the machine is set: what follows the last "zoneinfo/" in what
// /etc/localtime links to (see localtime(5)), on macOS a path in /var/db/timezone/zoneinfo. When it
// is no link, the first line of /etc/timezone, where Debian repeats the name. Nothing when neither
// says; whether there is such a zone is for read() to tell. Any thread.
std::optional<std::string> timeZoneOfMachine();

}  // namespace halvo
