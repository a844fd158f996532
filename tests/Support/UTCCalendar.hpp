// The calendar of UTC, whose days are all alike.
#pragma once

#include <chrono>
#include <optional>

#include "HalvoShared/Calendar.hpp"

namespace halvo::testing {

class UTCCalendar final : public Calendar {
  public:
    [[nodiscard]] WallDate startOfDay(WallDate date) const override {
        return WallDate{std::chrono::floor<std::chrono::days>(date)};
    }

    [[nodiscard]] std::optional<WallDate> startOfNextDay(WallDate date) const override {
        return startOfDay(date) + std::chrono::days{1};
    }

    [[nodiscard]] std::optional<WallDate> addingDays(int days, WallDate date) const override {
        return date + std::chrono::days{days};
    }
};

}  // namespace halvo::testing
