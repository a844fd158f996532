// The app's records, read from files of which it may not be known what they hold.
#pragma once

#include <expected>
#include <istream>
#include <optional>
#include <string>
#include <variant>

#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo::records {

enum class RecordKind { keepAlive, widgets };

using Record = std::variant<KeepAliveState, WidgetSnapshot>;

// Stands for standard input among the names of files.
inline constexpr const char* standardInput = "-";

// What `file` is called in messages, escaped for a terminal.
std::string title(const std::string& file);

// The path of the app's own file of that kind: in the container of the app group `group`, else in
// that of the program's own group. The container is made when it is missing.
std::string ownFile(RecordKind kind, const std::optional<std::string>& group);

// The record that `file` holds, as SharedFile reads it; "-" is what `input` still has. Without a
// `kind` the file's name tells it ("keepalive.json", "widgets.json"), else the members do. Fails
// with a line that begins with the file's title and ends without a full stop, escaped for a
// terminal: "widgets.json: phases[3].start: Expected ...".
std::expected<Record, std::string> load(const std::string& file, std::optional<RecordKind> kind,
                                        std::istream& input);

}  // namespace halvo::records
