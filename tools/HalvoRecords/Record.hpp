// The app's records: read from files, printed, looked over, and the timeline that one gives.
#pragma once

#include <cstddef>
#include <expected>
#include <istream>
#include <string>
#include <variant>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

// Every text that is returned here can be printed to a terminal, whatever files and records hold.
namespace halvo::records {

using Record = std::variant<KeepAliveState, WidgetSnapshot>;

// Stands for standard input among the names of files.
inline constexpr const char* standardInput = "-";

// What messages call `file`.
std::string title(const std::string& file);

// Reads the record in `file` as SharedFile does; "-" is the rest of `input`. `kind` is "keepalive"
// or "widgets"; when it is empty the file must be named as the record's own ("keepalive.json",
// "widgets.json"). Fails with a line that begins with the file's title and ends without a full
// stop: "widgets.json: phases[3].start: ...".
std::expected<Record, std::string> load(const std::string& file, const std::string& kind,
                                        std::istream& input);

// The kind of the record and how much it holds, without a line's end: "a widget snapshot of 1
// phase, 2 days, ...".
std::string summary(const Record& record);

// The record's JSON over several lines; members that the app does not know are left out. With
// `clocks`, the time on these follows each text that reads as a date: "2026-11-20T09:00:00Z
// (2026-11-20 10:00:00 +01:00)".
std::string asJSON(const Record& record, const GregorianCalendar* clocks = nullptr);

// What can be read and is suspicious all the same: a part of a sentence each, in the order of the
// record's members, which are named as in the messages of load(): "phases[3] starts before
// phases[2]".
//
// Of a snapshot: phases that are not in the order of their starts, a run or what comes next that
// ends before its phase starts, a horizon before the snapshot was written, days with the same
// start. Nothing of a keep-alive state.
std::vector<std::string> remarks(const Record& record);

// The timeline that a widget asks for.
struct TimelineRequest {
    WallDate from;
    Seconds countdownSpan{3600};
    std::size_t limit = 60;
};

// The timeline as a table: a line for each date on the clocks of `calendar`, why it is there (start
// of the timeline, phase, midnight, minute of a countdown), what is left and the state, and a line
// for the reload.
std::string timelineText(const WidgetSnapshot& snapshot, const TimelineRequest& request,
                         const GregorianCalendar& calendar);

// The timeline as an object with the list "dates" and with "reload", each date as in the records,
// or null where the records have no text for it. Over several lines.
std::string timelineJSON(const WidgetSnapshot& snapshot, const TimelineRequest& request,
                         const GregorianCalendar& calendar);

}  // namespace halvo::records
