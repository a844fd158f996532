#include "tools/HalvoRecords/TimelineText.hpp"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <variant>

#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/RecordText.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

// The end that the state counts down to.
std::optional<WallDate> endOf(const WidgetSnapshot::State& state) {
    const auto* running = WidgetSnapshot::countdown(state);
    return running == nullptr ? std::nullopt : running->end;
}

// Why dates are on the timeline of a snapshot.
class Reasons {
  public:
    Reasons(const WidgetSnapshot& snapshot, WallDate from, const GregorianCalendar& calendar,
            Seconds countdownSpan)
        : from_(from), lastMinute_(from + countdownSpan), calendar_(calendar) {
        starts_.reserve(snapshot.phases.size());
        for (const WidgetSnapshot::Phase& phase : snapshot.phases) {
            starts_.push_back(phase.start);
        }
        std::ranges::sort(starts_);
    }

    [[nodiscard]] std::vector<std::string> of(WallDate date,
                                              const WidgetSnapshot::State& state) const {
        std::vector<std::string> reasons;
        if (date == from_) {
            reasons.emplace_back("start");
        }
        if (std::ranges::binary_search(starts_, date)) {
            reasons.emplace_back("phase");
        }
        if (calendar_.startOfDay(date) == date) {
            reasons.emplace_back("midnight");
        }
        // What nothing else explains is a minute of a phase that another one overlaps.
        if (reasons.empty() || isMinute(date, endOf(state))) {
            reasons.emplace_back("minute");
        }
        return reasons;
    }

  private:
    [[nodiscard]] bool isMinute(WallDate date, std::optional<WallDate> end) const {
        return end && date > from_ && date <= std::min(*end, lastMinute_) &&
               std::fmod(Seconds(*end - date).count(), 60) == 0;
    }

    WallDate from_;
    WallDate lastMinute_;
    const GregorianCalendar& calendar_;
    std::vector<WallDate> starts_;
};

nlohmann::ordered_json dateJSON(WallDate date) {
    std::string text;
    return InternetDate::append(date, text) ? nlohmann::ordered_json(text) : nullptr;
}

}  // namespace

Timeline Timeline::of(const WidgetSnapshot& snapshot, WallDate from,
                      const GregorianCalendar& calendar, Seconds countdownSpan, std::size_t limit) {
    const auto dates = snapshot.timelineDates(from, calendar, countdownSpan, limit);
    const Reasons reasons(snapshot, from, calendar, countdownSpan);
    Timeline timeline{.rows = {}, .reload = snapshot.reloadDate(dates, from)};
    timeline.rows.reserve(dates.size());
    for (const WallDate date : dates) {
        auto state = snapshot.state(date);
        auto why = reasons.of(date, state);
        timeline.rows.push_back({date, std::move(why), std::move(state)});
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
