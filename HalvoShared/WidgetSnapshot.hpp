// The record that the widgets and controls draw from. The app writes it after each change.
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

class GregorianCalendar;
struct WidgetMoment;

// The types that a state of a WidgetSnapshot consists of, which has aliases for them. Not nested in
// it: a variant needs the default member initializers of its alternatives, and those of nested
// classes are available only once the enclosing class is complete.
namespace widget_snapshot {

// How hard it is to end a block early.
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
    // Absent when it is open-ended.
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

// A state in which something runs; `number` makes distinct types.
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

// The schedule as phases, the activity of recent days, and the person's lists and blocks. A value.
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

    // The state from `start` until the next phase.
    struct Phase {
        WallDate start;
        State state;

        HALVO_RECORD(Phase, start, state)
    };

    // The activity of the day that begins at `start`.
    struct Day {
        WallDate start;
        std::int64_t breaths{};
        std::int64_t minutesBreathed{};
        std::int64_t stayedOff{};

        HALVO_RECORD(Day, start, breaths, minutesBreathed, stayedOff)

        // Whether all counts are zero.
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
    // Whether anything runs, as the app reports it.
    bool isRunning{};
    std::int64_t blockCount{};
    // Ascending by start.
    std::vector<Phase> phases;
    // The phases are planned up to here.
    WallDate horizon;
    std::vector<Day> days;
    Breath breathe;
    std::int64_t focusMinutes{};
    std::vector<ListItem> lists;
    std::vector<BlockItem> blocks;

    HALVO_RECORD(WidgetSnapshot, writtenAt, isRunning, blockCount, phases, horizon, days, breathe,
                 focusMinutes, lists, blocks)

    static constexpr const char* fileName = "widgets.json";

    // `fileName` in the app group's container, whose path is cached at the first call.
    static const SharedFile<WidgetSnapshot>& file();

    // The state at `date`: that of the last phase which has started, or of the first phase when
    // none has, so that there is something to show; NoBlocks when there are no phases.
    [[nodiscard]] State state(WallDate date) const;

    // The run of a block or focus, which is counted down; null for any other state. It may be
    // open-ended. Points into `state`.
    static const Running* countdown(const State& state);

    // What a widget shows at `date`. Days are those of `calendar`; of several records of one day
    // the last counts.
    [[nodiscard]] WidgetMoment moment(WallDate date, const GregorianCalendar& calendar) const;

    // The dates of the timeline's entries: `from` itself, the starts of phases and of days up to
    // the horizon, and each minute of a countdown to the end of a block or focus run within
    // `countdownSpan` of `from`. Ascending and distinct; the earliest `limit` of them. Only `from`,
    // whatever the limit, when nothing runs. The cost is one pass over the phases, when they are
    // sorted, and proportional to the result; it does not depend on the horizon.
    [[nodiscard]] std::vector<WallDate> timelineDates(WallDate from,
                                                      const GregorianCalendar& calendar,
                                                      Seconds countdownSpan,
                                                      std::size_t limit) const;

    // When to request a new timeline after one of `dates`: at its last date or else at the horizon,
    // whichever is in the future; else in six hours, so that a stale snapshot is read again.
    [[nodiscard]] WallDate reloadDate(const std::vector<WallDate>& dates, WallDate now) const;
};

// An entry of a widget's timeline.
struct WidgetMoment {
    WallDate date;
    // The schedule's state at `date`.
    WidgetSnapshot::State state;
    bool isRunning{};
    std::int64_t blockCount{};
    // The day of `date`.
    WidgetSnapshot::Day today;
    // The seven days up to `today`, the oldest first; a day without a record has counts of zero. A
    // day that the zone skipped is not among them. Days outside the calendar's range are left out.
    std::vector<WidgetSnapshot::Day> week;
    WidgetSnapshot::Breath breathe;
    std::int64_t focusMinutes{};

    HALVO_RECORD(WidgetMoment, date, state, isRunning, blockCount, today, week, breathe,
                 focusMinutes)

    // The focus run that counts down at `date`; absent when nothing runs, and when the state is not
    // a focus, is open-ended or over.
    [[nodiscard]] std::optional<WidgetSnapshot::Running> focus() const;
};

}  // namespace halvo
