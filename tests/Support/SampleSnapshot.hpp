// Widget snapshots for tests and benchmarks, and a reference implementation of their timeline.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/Durations.hpp"

namespace halvo::testing {

// 2026-11-20T09:00:00Z.
inline constexpr WallDate nineOClock = wallDate(1795165200);

// A run of a block or focus that begins at nine.
inline WidgetSnapshot::Running sampleRun(std::optional<WallDate> end) {
    return {.name = "Deep work",
            .names = {"Mail", "News"},
            .look = WidgetSnapshot::Look{"indigo", "brain"},
            .start = nineOClock,
            .end = end,
            .level = WidgetSnapshot::Level::firm,
            .listNames = {"Distractions"},
            .unlock = WidgetSnapshot::Unlock{"Five minutes", nineOClock + Seconds{600}}};
}

// Every kind of state, every optional member both present and absent, and texts that JSON escapes.
inline WidgetSnapshot sampleSnapshot() {
    using S = WidgetSnapshot;
    const UUID first = UUID::fromText("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").value();
    const UUID second = UUID::fromText("00000000-0000-4000-8000-0000000000FF").value();
    S::Running open = sampleRun(std::nullopt);
    open.look.reset();
    open.unlock.reset();
    open.names.clear();
    open.level = S::Level::gentle;
    const S::Upcoming upcoming{.name = "Evening \"off\"\n\\ \xE2\x98\xBE",
                               .look = std::nullopt,
                               .start = nineOClock + Seconds{36000},
                               .end = nineOClock + Seconds{43200},
                               .level = S::Level::ultraHard};
    return {.writtenAt = nineOClock - Seconds{5},
            .isRunning = true,
            .blockCount = 2,
            .phases = {{nineOClock, S::Block{sampleRun(nineOClock + Seconds{630})}},
                       {nineOClock + Seconds{630}, S::Focus{sampleRun(nineOClock + Seconds{3600})}},
                       {nineOClock + Seconds{3600}, S::FocusFilter{open}},
                       {nineOClock + Seconds{7200}, S::Next{upcoming}},
                       {nineOClock + Seconds{43200}, S::NothingScheduled{}},
                       {nineOClock + Seconds{50000}, S::NoBlocks{}}},
            .horizon = nineOClock + day,
            .days = {{nineOClock - Seconds{32400} - day, 3, 15, 2},
                     {nineOClock - Seconds{32400}, 1, 5, 0}},
            .breathe = {"box", 5},
            .focusMinutes = 25,
            .lists = {{first, "Distractions", {"red", "bell"}}},
            .blocks = {{second, "Deep work", {"indigo", "brain"}, S::Level::firm, true, false}}};
}

// `phases` consecutive runs of an hour each, from nine on.
inline WidgetSnapshot longSnapshot(std::size_t phases) {
    using S = WidgetSnapshot;
    S snapshot = sampleSnapshot();
    snapshot.phases.clear();
    for (std::size_t i = 0; i < phases; ++i) {
        const WallDate start = nineOClock + hour * i;
        S::Running run = sampleRun(start + hour);
        run.start = start;
        snapshot.phases.push_back({start, i % 2 == 0 ? S::State(S::Block{run}) : S::Focus{run}});
    }
    snapshot.horizon = nineOClock + hour * phases;
    return snapshot;
}

// Reference implementation of WidgetSnapshot::timelineDates(), without regard to cost.
inline std::vector<WallDate> plainDates(const WidgetSnapshot& snapshot, WallDate from,
                                        const GregorianCalendar& calendar, Seconds countdownSpan,
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
    for (auto midnight = calendar.startOfNextDay(calendar.startOfDay(from));
         midnight && *midnight <= end; midnight = calendar.startOfNextDay(*midnight)) {
        dates.insert(*midnight);
    }
    const WallDate countdownLimit = std::min(from + countdownSpan, end);
    for (std::size_t i = 0; i < snapshot.phases.size(); ++i) {
        const WidgetSnapshot::Phase& phase = snapshot.phases[i];
        const auto* block = std::get_if<WidgetSnapshot::Block>(&phase.state);
        const auto* focus = std::get_if<WidgetSnapshot::Focus>(&phase.state);
        const auto* running = block != nullptr   ? &block->running
                              : focus != nullptr ? &focus->running
                                                 : nullptr;
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
