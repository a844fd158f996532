// What the widgets and controls draw from, written by the app whenever that may have changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "HalvoShared/UUID.hpp"

namespace halvo {

class Calendar;
struct WidgetMoment;

// The states of a WidgetSnapshot, known by their names there. Not within it, because a class has no
// default values before its end, where a variant of its members would need them.
namespace widget_snapshot {

// How hard a block is to get out of.
enum class Level { gentle, firm, ultraHard };

struct Look {
    std::string color;
    std::string symbol;

    HALVO_RECORD(Look, color, symbol)
};

struct Unlock {
    std::string name;
    WallDate end;

    HALVO_RECORD(Unlock, name, end)
};

// Something that runs.
struct Running {
    std::string name;
    std::vector<std::string> names;
    std::optional<Look> look;
    WallDate start;
    // Absent when it runs until somebody ends it.
    std::optional<WallDate> end;
    Level level{};
    std::vector<std::string> listNames;
    std::optional<Unlock> unlock;

    HALVO_RECORD(Running, name, names, look, start, end, level, listNames, unlock)
};

// Something that runs later.
struct Upcoming {
    std::string name;
    std::optional<Look> look;
    WallDate start;
    WallDate end;
    Level level{};

    HALVO_RECORD(Upcoming, name, look, start, end, level)
};

// A state in which something runs; `number` tells the kinds apart.
template <int number>
struct RunningState {
    Running running;

    HALVO_RECORD_WITH_KEYS(RunningState, "_0", running)
};

using Block = RunningState<0>;
using Focus = RunningState<1>;
using FocusFilter = RunningState<2>;

struct Next {
    Upcoming upcoming;

    HALVO_RECORD_WITH_KEYS(Next, "_0", upcoming)
};

struct NothingScheduled {
    HALVO_RECORD(NothingScheduled)  // NOLINT(readability-redundant-string-init)
};

struct NoBlocks {
    HALVO_RECORD(NoBlocks)  // NOLINT(readability-redundant-string-init)
};

using State = std::variant<Block, Focus, FocusFilter, Next, NothingScheduled, NoBlocks>;

}  // namespace widget_snapshot

template <>
inline constexpr std::string_view JSON::names<widget_snapshot::Level> = "gentle, firm, ultraHard";
template <>
inline constexpr std::string_view JSON::names<widget_snapshot::State> =
    "block, focus, focusFilter, next, nothingScheduled, noBlocks";

// A schedule as phases, what was done on recent days, and the person's lists and blocks. A value.
struct WidgetSnapshot {
    // The identifiers of the widgets and controls.
    struct Kind {
        static constexpr const char* status = "app.halvo.widget.status";
        static constexpr const char* breathe = "app.halvo.widget.breathe";
        static constexpr const char* breatheControl = "app.halvo.control.breathe";
        static constexpr const char* focusControl = "app.halvo.control.focus";
    };

    using Level = widget_snapshot::Level;
    using Look = widget_snapshot::Look;
    using Unlock = widget_snapshot::Unlock;
    using Running = widget_snapshot::Running;
    using Upcoming = widget_snapshot::Upcoming;
    using Block = widget_snapshot::Block;
    using Focus = widget_snapshot::Focus;
    using FocusFilter = widget_snapshot::FocusFilter;
    using Next = widget_snapshot::Next;
    using NothingScheduled = widget_snapshot::NothingScheduled;
    using NoBlocks = widget_snapshot::NoBlocks;
    using State = widget_snapshot::State;

    // From `start` on, until the next phase, the state is this.
    struct Phase {
        WallDate start;
        State state;

        HALVO_RECORD(Phase, start, state)
    };

    // What was done on the day that begins at `start`.
    struct Day {
        WallDate start;
        std::int64_t breaths{};
        std::int64_t minutesBreathed{};
        std::int64_t stayedOff{};

        HALVO_RECORD(Day, start, breaths, minutesBreathed, stayedOff)

        // Whether nothing was.
        [[nodiscard]] bool isEmpty() const {
            return breaths == 0 && minutesBreathed == 0 && stayedOff == 0;
        }
    };

    // The settings of the breathing exercise.
    struct Breath {
        std::string style;
        std::int64_t minutes{};

        HALVO_RECORD(Breath, style, minutes)
    };

    struct ListItem {
        UUID id;
        std::string name;
        Look look;

        HALVO_RECORD(ListItem, id, name, look)
    };

    struct BlockItem {
        UUID id;
        std::string name;
        Look look;
        Level level{};
        bool isEnabled{};
        bool isRunning{};

        HALVO_RECORD(BlockItem, id, name, look, level, isEnabled, isRunning)
    };

    WallDate writtenAt;
    // Whether anything runs, as the app has it.
    bool isRunning{};
    std::int64_t blockCount{};
    // In the order of their starts.
    std::vector<Phase> phases;
    // So far the phases are planned.
    WallDate horizon;
    std::vector<Day> days;
    Breath breathe;
    std::int64_t focusMinutes{};
    std::vector<ListItem> lists;
    std::vector<BlockItem> blocks;

    HALVO_RECORD(WidgetSnapshot, writtenAt, isRunning, blockCount, phases, horizon, days, breathe,
                 focusMinutes, lists, blocks)

    static constexpr const char* fileName = "widgets.json";

    // `fileName` in the app group's container as that was at the first call.
    static const SharedFile<WidgetSnapshot>& file();

    // The state at `date`: that of the last phase which has started. Before the first phase the
    // first phase's, so that there is something to show; without any phase NoBlocks.
    [[nodiscard]] State state(WallDate date) const;

    // The run whose end is counted down to in `state`: a block or a focus, not one that a focus
    // filter began; null for any other state. Borrowed from `state`. It may have no end.
    static const Running* countdown(const State& state);

    // The three questions of a widget's timeline.

    // What there is to show at `date`. The days are those of `calendar`; of several records of one
    // day the last counts.
    [[nodiscard]] WidgetMoment moment(WallDate date, const Calendar& calendar) const;

    // The dates from `from` on at which the picture changes, ascending, each once, at most `limit`
    // of the earliest: `from` itself, the starts of phases and of days up to the horizon, and each
    // minute of a countdown to the end of a block or focus run within `countdownSpan` of `from`.
    // Only `from`, whatever the limit, when nothing runs. Costs one pass over the phases, when
    // they are in order, and what the answer costs, however far the horizon is.
    [[nodiscard]] std::vector<WallDate> timelineDates(WallDate from, const Calendar& calendar,
                                                      Seconds countdownSpan,
                                                      std::size_t limit) const;

    // When to ask for a new timeline after one of `dates`: at its last date or else at the horizon,
    // if that is still to come; else in six hours, so that a stale snapshot is looked at again.
    [[nodiscard]] WallDate reloadDate(const std::vector<WallDate>& dates, WallDate now) const;
};

// What a widget shows from one date of its timeline to the next.
struct WidgetMoment {
    WallDate date;
    // The schedule's state at `date`.
    WidgetSnapshot::State state;
    bool isRunning{};
    std::int64_t blockCount{};
    // The day that holds `date`.
    WidgetSnapshot::Day today;
    // The seven days that end with it, the oldest first; a day without a record has counts of
    // zero. Where a day was skipped they begin a day earlier. Outside the calendar's range there
    // are none.
    std::vector<WidgetSnapshot::Day> week;
    WidgetSnapshot::Breath breathe;
    std::int64_t focusMinutes{};

    bool operator==(const WidgetMoment&) const = default;

    // The focus run that counts down at `date`; absent when nothing runs, and when what does is no
    // focus run, has no end or is over.
    [[nodiscard]] std::optional<WidgetSnapshot::Running> focus() const;
};

}  // namespace halvo
