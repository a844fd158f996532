#include "tools/HalvoRecords/Record.hpp"

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

using Json = nlohmann::ordered_json;

std::optional<RecordKind> kindOfName(const std::string& file) {
    const std::string name = file.substr(file.rfind('/') + 1);
    if (name == KeepAliveState::fileName) {
        return RecordKind::keepAlive;
    }
    return name == WidgetSnapshot::fileName ? std::optional(RecordKind::widgets) : std::nullopt;
}

std::expected<std::string, std::string> readAll(std::istream& input) {
    std::string bytes(shared_file::sizeLimit + 1, '\0');
    input.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (input.bad()) {
        return std::unexpected("This cannot be read");
    }
    bytes.resize(static_cast<std::size_t>(input.gcount()));
    if (bytes.size() > shared_file::sizeLimit) {
        return std::unexpected("This is longer than any record");
    }
    return bytes;
}

template <class T>
std::expected<T, std::string> decodeInput(std::istream& input) {
    const auto bytes = readAll(input);
    if (!bytes) {
        return std::unexpected(title(standardInput) + ": " + bytes.error());
    }
    auto record = JSON::decode<T>(*bytes);
    if (!record) {
        return std::unexpected(title(standardInput) + ": " + JSON::description(record.error()));
    }
    return *std::move(record);
}

template <class T>
std::expected<Record, std::string> loadAs(const std::string& file, std::istream& input) {
    auto record = file == standardInput ? decodeInput<T>(input) : SharedFile<T>(file).load();
    if (!record) {
        return std::unexpected(printable(record.error()));
    }
    return *std::move(record);
}

// What was decoded can be encoded: that fails only for what no JSON can have given.
std::string encoded(const Record& record) {
    return std::visit([](const auto& value) { return *JSON::encode(value); }, record);
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as a record is, which was decoded.
void addLocalTimes(Json& value, const GregorianCalendar& calendar) {
    if (value.is_structured()) {
        for (Json& element : value) {
            addLocalTimes(element, calendar);
        }
    } else if (value.is_string()) {
        auto& text = value.get_ref<std::string&>();
        if (const auto date = InternetDate::parse(text)) {
            text += " (" + zonedDate(*date, calendar) + ")";
        }
    }
}

// When what is shown in `state` ends; nothing where nothing does.
std::optional<WallDate> endOf(const WidgetSnapshot::State& state) {
    return std::visit(
        [](const auto& shown) -> std::optional<WallDate> {
            if constexpr (requires { shown.running; }) {
                return shown.running.end;
            } else if constexpr (requires { shown.upcoming; }) {
                return shown.upcoming.end;
            } else {
                return std::nullopt;
            }
        },
        state);
}

std::string at(const char* list, std::size_t index) {
    return std::string(list) + "[" + std::to_string(index) + "]";
}

}  // namespace

std::string title(const std::string& file) {
    return file == standardInput ? "standard input" : printable(file);
}

std::string ownFile(RecordKind kind, const std::optional<std::string>& group) {
    const bool isKeepAlive = kind == RecordKind::keepAlive;
    if (!group) {
        return isKeepAlive ? KeepAliveState::file().url() : WidgetSnapshot::file().url();
    }
    return AppGroup::containerOf(group) + "/" +
           (isKeepAlive ? KeepAliveState::fileName : WidgetSnapshot::fileName);
}

std::expected<Record, std::string> load(const std::string& file, std::optional<RecordKind> kind,
                                        std::istream& input) {
    if (!kind) {
        kind = kindOfName(file);
    }
    if (!kind) {
        return std::unexpected(title(file) +
                               ": The name does not tell which record this is; --kind does");
    }
    return kind == RecordKind::keepAlive ? loadAs<KeepAliveState>(file, input)
                                         : loadAs<WidgetSnapshot>(file, input);
}

std::string summary(const Record& record) {
    if (const auto* state = std::get_if<KeepAliveState>(&record)) {
        return "a keep-alive state of process " + std::to_string(state->pid);
    }
    const auto& snapshot = std::get<WidgetSnapshot>(record);
    return "a widget snapshot of " + counted(snapshot.phases.size(), "phase") + ", " +
           counted(snapshot.days.size(), "day") + ", " + counted(snapshot.lists.size(), "list") +
           " and " + counted(snapshot.blocks.size(), "block");
}

std::string asJSON(const Record& record) { return indented(encoded(record)); }

std::string description(const Record& record, const GregorianCalendar& calendar) {
    Json json = Json::parse(encoded(record));
    addLocalTimes(json, calendar);
    return indented(json.dump());
}

std::vector<std::string> remarks(const Record& record) {
    std::vector<std::string> all;
    const auto* snapshot = std::get_if<WidgetSnapshot>(&record);
    if (snapshot == nullptr) {
        return all;
    }
    const auto& phases = snapshot->phases;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        if (i > 0 && phases[i].start <= phases[i - 1].start) {
            const bool together = phases[i].start == phases[i - 1].start;
            all.push_back(at("phases", i) + " starts " + (together ? "together with " : "before ") +
                          at("phases", i - 1));
        }
        if (const auto end = endOf(phases[i].state); end && *end < phases[i].start) {
            all.push_back(at("phases", i) + " shows what ended before it starts");
        }
    }
    if (snapshot->horizon < snapshot->writtenAt) {
        all.emplace_back("horizon is before writtenAt");
    }
    std::map<WallDate, std::size_t> firstWith;
    for (std::size_t i = 0; i < snapshot->days.size(); ++i) {
        const auto [first, isNew] = firstWith.emplace(snapshot->days[i].start, i);
        if (!isNew) {
            all.push_back(at("days", i) + " has the same start as " + at("days", first->second));
        }
    }
    return all;
}

}  // namespace halvo::records
