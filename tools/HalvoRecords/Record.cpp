#include "tools/HalvoRecords/Record.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "HalvoShared/InternetDate.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

using Json = nlohmann::ordered_json;

std::expected<std::string, std::string> readAll(std::istream& input) {
    std::string bytes(shared_file::sizeLimit + 1, '\0');
    input.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(input.gcount()));
    if (input.bad() || bytes.size() > shared_file::sizeLimit) {
        return std::unexpected(title(standardInput) + (input.bad()
                                                           ? ": This cannot be read"
                                                           : ": This is longer than any record"));
    }
    return bytes;
}

template <class T>
std::expected<Record, std::string> decodeAs(const std::string& bytes, const std::string& file) {
    auto record = JSON::decode<T>(bytes);
    if (!record) {
        return std::unexpected(title(file) + ": " + printable(JSON::description(record.error())));
    }
    return *std::move(record);
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as a record is, which was decoded.
void addLocalTimes(Json& value, const GregorianCalendar& clocks) {
    if (value.is_structured()) {
        for (Json& element : value) {
            addLocalTimes(element, clocks);
        }
    } else if (value.is_string()) {
        auto& text = value.get_ref<std::string&>();
        if (const auto date = InternetDate::parse(text)) {
            text += " (" + zonedDate(*date, clocks) + ")";
        }
    }
}

// What is shown in `state`, a run or what comes next, as `action` has it; else nothing.
template <class Action>
auto shownIn(const WidgetSnapshot::State& state, Action action) {
    return std::visit(
        [&](const auto& chosen) -> decltype(action(WidgetSnapshot::Running())) {
            if constexpr (requires { chosen.running; }) {
                return action(chosen.running);
            } else if constexpr (requires { chosen.upcoming; }) {
                return action(chosen.upcoming);
            } else {
                return std::nullopt;
            }
        },
        state);
}

std::string at(const char* list, std::size_t index) {
    return std::string(list) + "[" + std::to_string(index) + "]";
}

// The end that the state counts down to.
std::optional<WallDate> countdownEnd(const WidgetSnapshot::State& state) {
    const auto* running = WidgetSnapshot::countdown(state);
    return running == nullptr ? std::nullopt : running->end;
}

// What the state is and of what, without its times: `block "Deep work"`.
std::string shortText(const WidgetSnapshot::State& state) {
    constexpr std::array<const char*, std::variant_size_v<WidgetSnapshot::State>> kinds{
        "block", "focus", "focus filter", "next", "nothing scheduled", "no blocks"};
    const auto name =
        shownIn(state, [](const auto& shown) { return std::optional(" " + inQuotes(shown.name)); });
    return kinds.at(state.index()) + name.value_or("");
}

// Why `date` is in the timeline: "start, phase".
std::string reasons(const WidgetSnapshot& snapshot, const TimelineRequest& request, WallDate date,
                    const GregorianCalendar& calendar) {
    std::string all;
    const auto add = [&all](bool isSo, const char* reason) {
        all += isSo ? (all.empty() ? "" : ", ") + std::string(reason) : "";
    };
    add(date == request.from, "start");
    const auto isAt = [date](const WidgetSnapshot::Phase& phase) { return phase.start == date; };
    add(std::ranges::any_of(snapshot.phases, isAt), "phase");
    add(calendar.startOfDay(date) == date, "midnight");
    const auto end = countdownEnd(snapshot.state(date));
    const bool isMinute = end && date > request.from &&
                          date <= std::min(*end, request.from + request.countdownSpan) &&
                          std::fmod(Seconds(*end - date).count(), 60) == 0;
    // What nothing else explains is a minute of a phase that another one overlaps.
    add(isMinute || all.empty(), "minute");
    return all;
}

std::vector<WallDate> datesOf(const WidgetSnapshot& snapshot, const TimelineRequest& request,
                              const GregorianCalendar& calendar) {
    return snapshot.timelineDates(request.from, calendar, request.countdownSpan, request.limit);
}

}  // namespace

std::string title(const std::string& file) {
    return file == standardInput ? "standard input" : printable(file);
}

std::expected<Record, std::string> load(const std::string& file, const std::string& kind,
                                        std::istream& input) {
    const std::string name = kind.empty() ? file.substr(file.rfind('/') + 1) : kind + ".json";
    const bool isKeepAlive = name == KeepAliveState::fileName;
    if (!isKeepAlive && name != WidgetSnapshot::fileName) {
        return std::unexpected(title(file) +
                               ": The name does not tell which record this is; --kind does");
    }
    const auto bytes = file == standardInput ? readAll(input) : shared_file::load(file);
    if (!bytes) {
        return std::unexpected(printable(bytes.error()));
    }
    return isKeepAlive ? decodeAs<KeepAliveState>(*bytes, file)
                       : decodeAs<WidgetSnapshot>(*bytes, file);
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

std::string asJSON(const Record& record, const GregorianCalendar* clocks) {
    // What was decoded can be encoded: that fails only for what no JSON can have given.
    const std::string text =
        std::visit([](const auto& value) { return *JSON::encode(value); }, record);
    Json json = Json::parse(text);
    if (clocks != nullptr) {
        addLocalTimes(json, *clocks);
    }
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
        const auto end = shownIn(
            phases[i].state, [](const auto& shown) { return std::optional<WallDate>(shown.end); });
        if (end && *end < phases[i].start) {
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

std::string timelineText(const WidgetSnapshot& snapshot, const TimelineRequest& request,
                         const GregorianCalendar& calendar) {
    const auto dates = datesOf(snapshot, request, calendar);
    std::vector<std::vector<std::string>> rows{{"DATE", "WHY", "LEFT", "STATE"}};
    for (const WallDate date : dates) {
        const auto state = snapshot.state(date);
        const auto end = countdownEnd(state);
        rows.push_back({zonedDate(date, calendar), reasons(snapshot, request, date, calendar),
                        end ? countdown(*end - date) : "-", shortText(state)});
    }
    rows.push_back({zonedDate(snapshot.reloadDate(dates, request.from), calendar), "reload"});
    return table(rows, "");
}

std::string timelineJSON(const WidgetSnapshot& snapshot, const TimelineRequest& request,
                         const GregorianCalendar& calendar) {
    const auto inJSON = [](WallDate date) {
        std::string text;
        return InternetDate::append(date, text) ? Json(text) : Json();
    };
    const auto dates = datesOf(snapshot, request, calendar);
    Json object{{"dates", Json::array()},
                {"reload", inJSON(snapshot.reloadDate(dates, request.from))}};
    std::ranges::transform(dates, std::back_inserter(object["dates"]), inJSON);
    return object.dump(2) + "\n";
}

}  // namespace halvo::records
