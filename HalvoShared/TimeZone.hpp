// The system's time zone files: TZif, see tzfile(5) and RFC 8536.
#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halvo {

// A transition: from `begin` on the offset from UTC is `offset`.
struct OffsetChange {
    std::chrono::sys_seconds begin;
    std::chrono::seconds offset{};

    bool operator==(const OffsetChange&) const = default;
};

// The offset from UTC in [begin, end). Adjacent spans may have the same offset.
struct OffsetSpan {
    std::chrono::sys_seconds begin;
    std::chrono::sys_seconds end;
    std::chrono::seconds offset{};

    bool operator==(const OffsetSpan&) const = default;
};

// A time zone; UTC by default. A value; any thread.
struct TimeZone {
    static constexpr std::chrono::seconds largestOffset = std::chrono::hours{26};

    // The transitions of the file, then those of its rule for a little more than the 400 years
    // after which the Gregorian calendar repeats. Ascending; each changes the offset, which is at
    // most largestOffset. The first begins at sys_seconds::min(); the last, at sys_seconds::max(),
    // only ends the one before.
    std::vector<OffsetChange> changes{{.begin = std::chrono::sys_seconds::min()},
                                      {.begin = std::chrono::sys_seconds::max()}};
    // From here on the transitions repeat every 400 years.
    std::chrono::sys_seconds repeatsFrom = std::chrono::sys_seconds::max();

    // The span of `instant`, which must be before sys_seconds::max().
    [[nodiscard]] OffsetSpan at(std::chrono::sys_seconds instant) const;

    // Reads the file of the zone `name`, /usr/share/zoneinfo/NAME, following links. A name is a
    // relative path that stays in the folder; whether case matters is up to the file system. Fails
    // with a sentence for a person, without a full stop: `no time zone is named "X"`, also for the
    // text files beside the zones; `that is not the name of a time zone` for a name that is too
    // long or not printable; or why the file cannot be used.
    static std::expected<TimeZone, std::string> read(const std::string& name);

    // Parses the file `bytes` of the zone `name`, which only error messages use. Checks every
    // number. Also refuses a file with leap seconds, which the clock of the process does not count,
    // and one whose rule cannot be parsed: a wrong hour is worse than none. Fails as read() does.
    static std::expected<TimeZone, std::string> parse(std::string_view bytes,
                                                      const std::string& name);
};

// The name of the machine's zone: what follows the last "zoneinfo/" in the target of the symbolic
// link /etc/localtime (localtime(5); on macOS it is in /var/db/timezone/zoneinfo). When that is not
// a link, the first line of /etc/timezone, Debian's copy of the name. Nothing when neither exists;
// the zone itself need not. Any thread.
std::optional<std::string> timeZoneOfMachine();

}  // namespace halvo
