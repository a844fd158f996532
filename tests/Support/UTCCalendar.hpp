// The calendar of UTC, whose days are all alike.
#pragma once

#include <cmath>
#include <optional>

#include "HalvoShared/GregorianCalendar.hpp"

namespace halvo::testing {

class UTCCalendar final : public Calendar {
  public:
    [[nodiscard]] WallDate startOfDay(WallDate date) const override {
        return WallDate{day * std::floor(date.time_since_epoch() / day)};
    }

    [[nodiscard]] std::optional<WallDate> startOfNextDay(WallDate date) const override {
        return addingDays(1, startOfDay(date));
    }

    [[nodiscard]] std::optional<WallDate> addingDays(int days, WallDate date) const override {
        // As far as a double tells one second from the next.
        constexpr double range = 1e15;
        return std::abs(secondsSince1970(date)) < range ? std::optional(date + day * days)
                                                        : std::nullopt;
    }

  private:
    static constexpr Seconds day{86400};
};

}  // namespace halvo::testing
