#include "tools/HalvoRecords/Timeline.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>
#include <variant>

#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

// The end that the state counts down to.
std::optional<WallDate> endOf(const WidgetSnapshot::State& state) {
    const auto* running = WidgetSnapshot::countdown(state);
    return running == nullptr ? std::nullopt : running->end;
}

// What the state is and of what, without its times: `block "Deep work"`.
std::string shortText(const WidgetSnapshot::State& state) {
    constexpr std::array<const char*, std::variant_size_v<WidgetSnapshot::State>> kinds{
        "block", "focus", "focus filter", "next", "nothing scheduled", "no blocks"};
    std::string kind = kinds.at(state.index());
    return std::visit(
        [&kind](const auto& shown) {
            if constexpr (requires { shown.running; }) {
                return kind + " " + inQuotes(shown.running.name);
            } else if constexpr (requires { shown.upcoming; }) {
                return kind + " " + inQuotes(shown.upcoming.name);
            } else {
                return kind;
            }
        },
        state);
}

nlohmann::ordered_json dateJSON(WallDate date) {
    std::string text;
    return InternetDate::append(date, text) ? nlohmann::ordered_json(text) : nullptr;
}

}  // namespace

Timeline Timeline::of(const WidgetSnapshot& snapshot, WallDate from,
                      const GregorianCalendar& calendar, Seconds countdownSpan, std::size_t limit) {
    std::set<WallDate> starts;
    for (const WidgetSnapshot::Phase& phase : snapshot.phases) {
        starts.insert(phase.start);
    }
    const auto dates = snapshot.timelineDates(from, calendar, countdownSpan, limit);
    Timeline timeline{.rows = {}, .reload = snapshot.reloadDate(dates, from)};
    timeline.rows.reserve(dates.size());
    for (const WallDate date : dates) {
        Row row{.date = date, .reasons = {}, .state = snapshot.state(date)};
        if (date == from) {
            row.reasons.emplace_back("start");
        }
        if (starts.contains(date)) {
            row.reasons.emplace_back("phase");
        }
        if (calendar.startOfDay(date) == date) {
            row.reasons.emplace_back("midnight");
        }
        const auto end = endOf(row.state);
        const bool isMinute = end && date > from && date <= std::min(*end, from + countdownSpan) &&
                              std::fmod(Seconds(*end - date).count(), 60) == 0;
        // What nothing else explains is a minute of a phase that another one overlaps.
        if (isMinute || row.reasons.empty()) {
            row.reasons.emplace_back("minute");
        }
        timeline.rows.push_back(std::move(row));
    }
    return timeline;
}

std::string description(const Timeline& timeline, const GregorianCalendar& calendar) {
    std::vector<std::vector<std::string>> rows{{"DATE", "WHY", "LEFT", "STATE"}};
    for (const Timeline::Row& row : timeline.rows) {
        std::string why;
        for (const std::string& reason : row.reasons) {
            why += (why.empty() ? "" : ", ") + reason;
        }
        const auto end = endOf(row.state);
        rows.push_back({zonedDate(row.date, calendar), why, end ? countdown(*end - row.date) : "-",
                        shortText(row.state)});
    }
    rows.push_back({zonedDate(timeline.reload, calendar), "reload"});
    return table(rows, "");
}

std::string asJSON(const Timeline& timeline) {
    nlohmann::ordered_json object;
    object["dates"] = nlohmann::ordered_json::array();
    for (const Timeline::Row& row : timeline.rows) {
        object["dates"].push_back(dateJSON(row.date));
    }
    object["reload"] = dateJSON(timeline.reload);
    return object.dump(2) + "\n";
}

}  // namespace halvo::records
