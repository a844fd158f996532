#include "HalvoShared/WidgetMoment.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <ranges>
#include <set>
#include <utility>
#include <variant>

#include "HalvoShared/Calendar.hpp"

namespace halvo {
namespace {

using Day = WidgetSnapshot::Day;
using Phase = WidgetSnapshot::Phase;
using Running = WidgetSnapshot::Running;

constexpr Seconds minute{60};
constexpr Seconds staleAfter{21600};
constexpr int daysInWeek = 7;

constexpr WallDate endOfTime = wallDate(std::numeric_limits<double>::infinity());

// No two instants of one calendar day are farther apart: clocks are less than 26 hours from UTC.
constexpr Seconds longestDay{76 * 3600};

// Finds, for each of some dates that ascend, the last record of its day.
class RecordSearch {
  public:
    RecordSearch(std::vector<WallDate> dates, const Calendar& calendar)
        : dates_(std::move(dates)), calendar_(calendar) {
        records_.reserve(dates_.size());
        for (const WallDate date : dates_) {
            records_.push_back({date, 0, 0, 0});
        }
    }

    // A record for each date, one of nothing done where there is none. Walks `days` once.
    std::vector<Day> in(const std::vector<Day>& days) && {
        // Nearly all records are passed over by this alone.
        const WallDate first = dates_.front() - longestDay;
        const WallDate last = dates_.back() + longestDay;
        for (const Day& day : std::views::reverse(days)) {
            if (day.start >= first && day.start <= last && take(day) == 0) {
                break;
            }
        }
        return std::move(records_);
    }

  private:
    // Gives how many dates are still without a record.
    std::size_t take(const Day& day) {
        if (starts_.empty()) {
            for (const WallDate date : dates_) {
                starts_.push_back(calendar_.startOfDay(date));
            }
            isFound_.resize(dates_.size());
            missing_ = dates_.size();
        }
        if (day.start < starts_.front()) {
            return missing_;
        }
        // Nearly all begin with their day.
        const bool isStart = std::ranges::find(starts_, day.start) != starts_.end();
        const WallDate start = isStart ? day.start : calendar_.startOfDay(day.start);
        for (std::size_t i = 0; i < dates_.size(); ++i) {
            if (!isFound_[i] && starts_[i] == start) {
                records_[i] = day;
                isFound_[i] = true;
                --missing_;
            }
        }
        return missing_;
    }

    std::vector<WallDate> dates_;
    const Calendar& calendar_;
    std::vector<Day> records_;
    // Of each date the start of its day. Asked for only once there is a record of any.
    std::vector<WallDate> starts_;
    std::vector<bool> isFound_;
    std::size_t missing_ = 0;
};

// The earliest dates of all that were added, each once.
class EarliestDates {
  public:
    // `limit` is at least 1.
    explicit EarliestDates(std::size_t limit) : limit_(limit) {}

    // Whether adding `date`, or any later one, could still change anything.
    [[nodiscard]] bool wants(WallDate date) const { return date < bound_; }

    void add(WallDate date) {
        dates_.insert(date);
        if (dates_.size() > limit_) {
            dates_.erase(std::prev(dates_.end()));
        }
        if (dates_.size() == limit_) {
            bound_ = *dates_.rbegin();
        }
    }

    [[nodiscard]] std::vector<WallDate> ascending() const { return {dates_.begin(), dates_.end()}; }

  private:
    std::size_t limit_;
    std::set<WallDate> dates_;
    // All dates before it are wanted.
    WallDate bound_ = endOfTime;
};

// Adds what lies from `begin` to `last` of the whole minutes before `runEnd`, and after `from`.
void addMinutes(EarliestDates& dates, WallDate runEnd, WallDate begin, WallDate last,
                WallDate from) {
    // Where a double tells seconds apart no longer, there are no minutes to count.
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

WidgetMoment WidgetSnapshot::moment(WallDate date, const Calendar& calendar) const {
    const WallDate dayStart = calendar.startOfDay(date);
    std::vector<WallDate> dates;
    dates.reserve(daysInWeek);
    for (int offset = 1 - daysInWeek; offset <= 0; ++offset) {
        if (const auto start = calendar.addingDays(offset, dayStart)) {
            dates.push_back(*start);
        }
    }
    // Outside the calendar's range, where no day can be told from another.
    const bool hasDays = !dates.empty();
    std::vector<Day> week =
        hasDays ? RecordSearch(std::move(dates), calendar).in(days) : std::vector<Day>();
    const Day today = hasDays ? week.back() : Day{dayStart, 0, 0, 0};
    return {.date = date,
            .state = state(date),
            .isRunning = isRunning,
            .blockCount = blockCount,
            .today = today,
            .week = std::move(week),
            .breathe = breathe,
            .focusMinutes = focusMinutes};
}

std::vector<WallDate> WidgetSnapshot::timelineDates(WallDate from, const Calendar& calendar,
                                                    Seconds countdownSpan,
                                                    std::size_t limit) const {
    if (!isRunning) {
        return {from};
    }
    if (limit == 0) {
        return {};
    }
    EarliestDates dates(limit);
    dates.add(from);
    const WallDate end = std::max(from, horizon);
    // In this order a span that is no number gives no minutes.
    const WallDate countdownLimit = std::min(from + countdownSpan, end);
    for (std::size_t index = 0; index < phases.size(); ++index) {
        const Phase& phase = phases[index];
        // Nothing of this phase is earlier, but for what rounding takes off a minute.
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
    // Last, because each costs a question to the calendar: most are later than what is there.
    for (auto day = calendar.startOfNextDay(from); day && *day <= end && dates.wants(*day);
         day = calendar.startOfNextDay(*day)) {
        dates.add(*day);
    }
    return dates.ascending();
}

WallDate WidgetSnapshot::reloadDate(const std::vector<WallDate>& dates, WallDate now) const {
    if (!dates.empty() && dates.back() > now) {
        return dates.back();
    }
    return horizon > now ? horizon : now + staleAfter;
}

}  // namespace halvo
