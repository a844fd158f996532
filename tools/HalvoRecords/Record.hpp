// The app's records: read from files, printed, and looked over.
#pragma once

#include <expected>
#include <istream>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

// Every text that is returned here can be printed to a terminal, whatever files and records hold.
namespace halvo::records {

enum class RecordKind { keepAlive, widgets };

using Record = std::variant<KeepAliveState, WidgetSnapshot>;

// Stands for standard input among the names of files.
inline constexpr const char* standardInput = "-";

// What messages call `file`.
std::string title(const std::string& file);

// The path of the app's own file of that kind, not escaped: in the container of the app group
// `group`, else of the program's own group (AppGroup.hpp).
std::string ownFile(RecordKind kind, const std::optional<std::string>& group);

// Reads the record in `file` as SharedFile does; "-" is the rest of `input`. Without a `kind` the
// file must be named as the record's own ("keepalive.json", "widgets.json"). Fails with a line that
// begins with the file's title and ends without a full stop: "widgets.json: phases[3].start: ...".
std::expected<Record, std::string> load(const std::string& file, std::optional<RecordKind> kind,
                                        std::istream& input);

// The kind of the record and how much it holds, without a line's end: "a widget snapshot of 1
// phase, 2 days, ...".
std::string summary(const Record& record);

// The record's JSON over several lines; members that the app does not know are left out.
std::string asJSON(const Record& record);

// asJSON(), with the time on the clocks of `calendar` behind each text that reads as a date:
// "2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)".
std::string description(const Record& record, const GregorianCalendar& calendar);

// What can be read and is suspicious all the same: a part of a sentence each, in the order of the
// record's members, which are named as in the messages of load(): "phases[3] starts before
// phases[2]".
//
// Of a snapshot: phases that are not in the order of their starts, a run or what comes next that
// ends before its phase starts, a horizon before the snapshot was written, days with the same
// start. Nothing of a keep-alive state.
std::vector<std::string> remarks(const Record& record);

}  // namespace halvo::records
