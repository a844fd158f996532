#include "HalvoShared/WidgetSnapshot.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <ranges>
#include <set>
#include <variant>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/Coding.hpp"
#include "HalvoShared/GregorianCalendar.hpp"

namespace halvo {
namespace {

using Day = WidgetSnapshot::Day;
using Phase = WidgetSnapshot::Phase;
using Running = WidgetSnapshot::Running;

constexpr Seconds minute{60};
constexpr Seconds staleAfter{21600};
constexpr int daysInWeek = 7;

constexpr WallDate endOfTime = wallDate(std::numeric_limits<double>::infinity());

// Upper bound of a calendar day: offsets from UTC are at most 26 hours.
constexpr Seconds longestDay{76 * 3600};

// The week that ends with the day that begins at `today`: for each day the last of its records, or
// one of zeros. Without the days outside the calendar's range.
std::vector<Day> weekOf(WallDate today, const std::vector<Day>& days,
                        const GregorianCalendar& calendar) {
    std::vector<Day> week;
    std::vector<WallDate> starts;
    for (int offset = 1 - daysInWeek; offset <= 0; ++offset) {
        if (const auto date = calendar.addingDays(offset, today)) {
            week.push_back({*date, 0, 0, 0});
            starts.push_back(calendar.startOfDay(*date));
        }
    }
    if (starts.empty()) {
        return week;
    }
    const WallDate first = starts.front();
    const WallDate last = starts.back() + longestDay;
    for (const Day& day : days) {
        // Skips nearly all records without a look-up.
        if (day.start < first || day.start > last) {
            continue;
        }
        // Nearly always the start of its day, which needs no look-up.
        const bool isStart = std::ranges::find(starts, day.start) != starts.end();
        const WallDate start = isStart ? day.start : calendar.startOfDay(day.start);
        for (std::size_t i = 0; i < starts.size(); ++i) {
            week[i] = starts[i] == start ? day : week[i];
        }
    }
    return week;
}

// The earliest `limit` dates, at least one, of all that were added, each once.
struct EarliestDates {
    // Whether adding `date` would change anything; if not, neither would any later date.
    [[nodiscard]] bool wants(WallDate date) const {
        return date < (all.size() < limit ? endOfTime : *all.rbegin());
    }

    void add(WallDate date) {
        all.insert(date);
        if (all.size() > limit) {
            all.erase(std::prev(all.end()));
        }
    }

    std::size_t limit;
    std::set<WallDate> all;
};

// Adds the whole minutes before `runEnd` that lie from `begin` to `last`, and after `from`.
void addMinutes(EarliestDates& dates, WallDate runEnd, WallDate begin, WallDate last,
                WallDate from) {
    // Beyond this a double does not resolve seconds.
    constexpr double countable = 9e15;
    const auto isCountable = [](WallDate date) {
        return std::abs(secondsSince1970(date)) < countable;
    };
    if (!(begin < last) || !isCountable(begin) || !isCountable(runEnd)) {
        return;
    }
    WallDate mark = runEnd - minute * std::floor((runEnd - begin) / minute);
    for (; mark <= last && dates.wants(mark); mark += minute) {
        if (mark > from) {
            dates.add(mark);
        }
    }
}

}  // namespace

template std::expected<WidgetSnapshot, JSON::Error> JSON::decode(std::string_view json);
template std::expected<std::string, JSON::Error> JSON::encode(const WidgetSnapshot& value);

const SharedFile<WidgetSnapshot>& WidgetSnapshot::file() {
    static const SharedFile<WidgetSnapshot> file(fileName, AppGroup::container());
    return file;
}

WidgetSnapshot::State WidgetSnapshot::state(WallDate date) const {
    const auto backwards = std::views::reverse(phases);
    const auto started =
        std::ranges::find_if(backwards, [date](const Phase& phase) { return phase.start <= date; });
    if (started != backwards.end()) {
        return started->state;
    }
    return phases.empty() ? NoBlocks{} : phases.front().state;
}

std::optional<Running> WidgetMoment::focus() const {
    const auto* focus = std::get_if<WidgetSnapshot::Focus>(&state);
    const bool countsDown =
        isRunning && focus != nullptr && focus->running.end && *focus->running.end > date;
    return countsDown ? std::optional(focus->running) : std::nullopt;
}

const Running* WidgetSnapshot::countdown(const State& state) {
    if (const auto* block = std::get_if<Block>(&state)) {
        return &block->running;
    }
    const auto* focus = std::get_if<Focus>(&state);
    return focus == nullptr ? nullptr : &focus->running;
}

WidgetMoment WidgetSnapshot::moment(WallDate date, const GregorianCalendar& calendar) const {
    const WallDate dayStart = calendar.startOfDay(date);
    std::vector<Day> week = weekOf(dayStart, days, calendar);
    const Day today = week.empty() ? Day{dayStart, 0, 0, 0} : week.back();
    return {.date = date,
            .state = state(date),
            .isRunning = isRunning,
            .blockCount = blockCount,
            .today = today,
            .week = std::move(week),
            .breathe = breathe,
            .focusMinutes = focusMinutes};
}

std::vector<WallDate> WidgetSnapshot::timelineDates(WallDate from,
                                                    const GregorianCalendar& calendar,
                                                    Seconds countdownSpan,
                                                    std::size_t limit) const {
    if (!isRunning) {
        return {from};
    }
    if (limit == 0) {
        return {};
    }
    EarliestDates dates{limit, {from}};
    const WallDate end = std::max(from, horizon);
    // In this order a not-a-number span gives no minutes.
    const WallDate countdownLimit = std::min(from + countdownSpan, end);
    for (std::size_t index = 0; index < phases.size(); ++index) {
        const Phase& phase = phases[index];
        // No date of this phase is earlier, except that a minute may be rounded down.
        if (!dates.wants(std::max(from, phase.start) - minute)) {
            continue;
        }
        if (phase.start > from && phase.start <= end && dates.wants(phase.start)) {
            dates.add(phase.start);
        }
        const Running* running = countdown(phase.state);
        if (running == nullptr || !running->end) {
            continue;
        }
        const bool isCut = index + 1 < phases.size();
        const WallDate countdownEnd =
            isCut ? std::min(*running->end, phases[index + 1].start) : *running->end;
        addMinutes(dates, *running->end, std::max(from, phase.start),
                   std::min(countdownLimit, countdownEnd), from);
    }
    // Last, because each costs a calendar look-up and most are too late by then.
    for (auto day = calendar.startOfNextDay(from); day && *day <= end && dates.wants(*day);
         day = calendar.startOfNextDay(*day)) {
        dates.add(*day);
    }
    return {dates.all.begin(), dates.all.end()};
}

WallDate WidgetSnapshot::reloadDate(const std::vector<WallDate>& dates, WallDate now) const {
    if (!dates.empty() && dates.back() > now) {
        return dates.back();
    }
    return horizon > now ? horizon : now + staleAfter;
}

}  // namespace halvo
