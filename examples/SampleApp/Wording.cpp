#include "examples/SampleApp/Wording.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace halvo {
namespace {

// Past the year 9999. What a helper answers is shown, not believed.
constexpr double beyondAllDates = 253402300800.0;

struct Advise {
    std::string operator()(const HelperFailures::NotRunning&) const {
        return "Is it installed, and is its service started?";
    }

    std::string operator()(const HelperFailures::Refused& failure) const {
        if (failure.wasReplaced) {
            return "Quit Halvo and start it anew.";
        }
        return "It serves only the app as an administrator installed it: owned by root and "
               "set-group-id. Install this bundle, start Halvo from there, and look into the "
               "helper's log for the reason.";
    }

    std::string operator()(const HelperFailures::TimedOut&) const {
        return "It may be stopped, or the machine may be very busy.";
    }

    std::string operator()(const HelperFailures::Rejected&) const {
        return "If its version is not that of this app, update both.";
    }

    std::string operator()(const HelperFailures::NoResources&) const {
        return "Close some programs and try again.";
    }
};

}  // namespace

std::string timeLeft(Seconds span) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    // Written so that not-a-number means none.
    const double left = span.count() > 0 ? std::ceil(std::min(span.count(), beyondAllDates)) : 0;
    const std::int64_t seconds = wholeSeconds(Seconds{left});
    std::array<char, 64> text{};
    if (seconds < hour) {
        std::snprintf(text.data(), text.size(), "%jd:%02jd", intmax_t{seconds / minute},
                      intmax_t{seconds % minute});
    } else {
        std::snprintf(text.data(), text.size(), "%jd:%02jd:%02jd", intmax_t{seconds / hour},
                      intmax_t{seconds % hour / minute}, intmax_t{seconds % minute});
    }
    return text.data();
}

std::string clockTime(WallDate date) {
    const Seconds since1970 = date.time_since_epoch();
    std::tm local{};
    std::array<char, 64> text{};
    if (!(std::abs(since1970.count()) < beyondAllDates)) {
        return "an unknown time";
    }
    const std::time_t seconds = wholeSeconds(since1970);
    if (localtime_r(&seconds, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%a %H:%M:%S", &local) == 0) {
        return "an unknown time";
    }
    return text.data();
}

std::string holding(const HelperStatus& status) {
    if (!status.holding) {
        return "Nothing holds";
    }
    return "Ultra Hard mode holds until " + (status.until ? clockTime(*status.until) : "?") +
           (status.locked ? ", the app is locked" : ", the app is not locked");
}

std::string advice(const HelperFailure& failure) {
    return description(failure) + " " + std::visit(Advise{}, failure);
}

WallDate steadyEnd(WallDate shown, WallDate reported) {
    constexpr Seconds hair{1.5};
    const Seconds difference = reported - shown;
    return difference > -hair && difference < hair ? shown : reported;
}

}  // namespace halvo
