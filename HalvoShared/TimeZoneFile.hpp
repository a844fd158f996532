// What the system's file of a time zone says, as tzfile(5) and RFC 8536 lay it out.
#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoShared/TimeZoneRule.hpp"

namespace halvo {

// A value; any thread. Failures are sentences for a person, without a full stop.
struct TimeZoneFile {
    // How far clocks are ahead of UTC before the first change; at most 26 hours, as everywhere.
    std::chrono::seconds firstOffset{};
    // Each later than the one before, whenever that may be. Neighbours may have the same offset:
    // then only the name of the time changed, or whether it is summer.
    std::vector<OffsetChange> changes;
    // How it goes on after the last change; absent when the file does not say, and all stays as it
    // is.
    std::optional<TimeZoneRule> rule;

    // Reads the file of the zone `name`, /usr/share/zoneinfo/NAME, links followed. Fails with `no
    // time zone is named "X"` when no file there is called that, or it is one of the texts that
    // come with the zones; with `that is not the name of a time zone` when the name would only
    // spoil such a message; or with why the file cannot be used. A name is a relative path of plain
    // components, so that none leads out of the folder; whether case counts is up to the file
    // system.
    static std::expected<TimeZoneFile, std::string> read(const std::string& name);

    // What the file `bytes` of the zone `name` says; the name is for messages only. Every number in
    // it is checked, wherever it leads. Refuses also a file that counts leap seconds, since the
    // clock of the process does not, and one with a rule that cannot be read: a wrong hour is worse
    // than none.
    static std::expected<TimeZoneFile, std::string> parse(std::string_view bytes,
                                                          const std::string& name);
};

// The name of the zone to which the machine is set: what follows the last "zoneinfo/" in what
// /etc/localtime links to (see localtime(5)), on macOS a path in /var/db/timezone/zoneinfo. When it
// is no link, the first line of /etc/timezone, where Debian repeats the name. Nothing when neither
// says; whether there is such a zone is for read() to tell. Any thread.
std::optional<std::string> timeZoneOfMachine();

}  // namespace halvo
