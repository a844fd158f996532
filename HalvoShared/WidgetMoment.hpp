// What a widget shows from one date of its timeline to the next.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo {

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
