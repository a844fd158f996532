// The rule of a widget's timeline, to test and measure against.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <set>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo::testing {

// WidgetSnapshot::timelineDates() as its rule is told, with no regard to what it costs.
inline std::vector<WallDate> plainDates(const WidgetSnapshot& snapshot, WallDate from,
                                        const Calendar& calendar, Seconds countdownSpan,
                                        std::size_t limit) {
    std::set<WallDate> dates{from};
    if (!snapshot.isRunning) {
        return {from};
    }
    const WallDate end = std::max(from, snapshot.horizon);
    for (const WidgetSnapshot::Phase& phase : snapshot.phases) {
        if (phase.start > from && phase.start <= end) {
            dates.insert(phase.start);
        }
    }
    for (auto day = calendar.startOfNextDay(calendar.startOfDay(from)); day && *day <= end;
         day = calendar.startOfNextDay(*day)) {
        dates.insert(*day);
    }
    const WallDate countdownLimit = std::min(from + countdownSpan, end);
    for (std::size_t i = 0; i < snapshot.phases.size(); ++i) {
        const WidgetSnapshot::Phase& phase = snapshot.phases[i];
        const WidgetSnapshot::Running* running = nullptr;
        if (const auto* block = std::get_if<WidgetSnapshot::Block>(&phase.state)) {
            running = &block->running;
        } else if (const auto* focus = std::get_if<WidgetSnapshot::Focus>(&phase.state)) {
            running = &focus->running;
        }
        if (running == nullptr || !running->end) {
            continue;
        }
        WallDate countdownEnd = *running->end;
        if (i + 1 < snapshot.phases.size()) {
            countdownEnd = std::min(countdownEnd, snapshot.phases[i + 1].start);
        }
        const WallDate begin = std::max(from, phase.start);
        const WallDate last = std::min(countdownLimit, countdownEnd);
        if (begin >= last) {
            continue;
        }
        WallDate mark =
            *running->end - Seconds{60} * std::floor((*running->end - begin) / Seconds{60});
        for (; mark <= last; mark += Seconds{60}) {
            if (mark > from) {
                dates.insert(mark);
            }
        }
    }
    std::vector<WallDate> all(dates.begin(), dates.end());
    all.resize(std::min(all.size(), limit));
    return all;
}

}  // namespace halvo::testing
