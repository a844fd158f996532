#include "HalvoShared/GregorianCalendar.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <utility>

namespace halvo {
namespace {

using namespace std::chrono;

constexpr sys_seconds rangeBegin = sys_days{year{1} / 1 / 1};
constexpr sys_seconds rangeEnd = sys_days{year{10'000} / 1 / 1};

constexpr local_seconds localTime(sys_seconds instant, seconds offset) {
    return local_seconds{instant.time_since_epoch() + offset};
}

constexpr sys_seconds instantOf(local_seconds local, seconds offset) {
    return sys_seconds{local.time_since_epoch() - offset};
}

// False for dates that are not finite.
bool isInRange(WallDate date) { return date >= rangeBegin && date < rangeEnd; }

std::optional<WallDate> ifInRange(WallDate date) {
    return isInRange(date) ? std::optional(date) : std::nullopt;
}

// A date in range, rounded down to the second.
sys_seconds wholeSecondsOf(WallDate date) {
    return sys_seconds{seconds{static_cast<seconds::rep>(std::floor(secondsSince1970(date)))}};
}

// The span of `instant`, looked up only if that is not `near`.
OffsetSpan spanOf(sys_seconds instant, const OffsetSpan& near, const TimeZone& zone) {
    return instant >= near.begin && instant < near.end ? near : zone.at(instant);
}

// The first instant in `span` or later whose local time is in [first, end).
sys_seconds firstInstant(const TimeZone& zone, OffsetSpan span, local_seconds first,
                         local_seconds end) {
    while (true) {
        const sys_seconds start = std::max(span.begin, instantOf(first, span.offset));
        if (start < span.end && localTime(start, span.offset) < end) {
            return start;
        }
        span = zone.at(span.end);
    }
}

}  // namespace

GregorianCalendar::GregorianCalendar(TimeZone zone)
    : zone_(std::make_shared<const TimeZone>(std::move(zone))) {}

std::expected<GregorianCalendar, std::string> GregorianCalendar::named(const std::string& name) {
    auto zone = TimeZone::read(name);
    if (!zone) {
        return std::unexpected(zone.error());
    }
    return GregorianCalendar(*std::move(zone));
}

GregorianCalendar GregorianCalendar::system() {
    const char* value = std::getenv("TZ");
    const std::string ofProcess = value == nullptr ? "" : value + (*value == ':' ? 1 : 0);
    for (const std::string& name : {ofProcess, timeZoneOfMachine().value_or("")}) {
        if (auto calendar = named(name)) {
            return *calendar;
        }
    }
    return GregorianCalendar(TimeZone{});
}

Seconds GregorianCalendar::offset(WallDate date) const {
    return isInRange(date) ? zone_->at(wholeSecondsOf(date)).offset : Seconds{0};
}

WallDate GregorianCalendar::startOfDay(WallDate date) const {
    if (!isInRange(date)) {
        return date;
    }
    const sys_seconds instant = wholeSecondsOf(date);
    const OffsetSpan span = zone_->at(instant);
    const local_days day = floor<days>(localTime(instant, span.offset));
    // The day may have begun before a transition.
    const sys_seconds earliest = instantOf(day, TimeZone::largestOffset);
    return firstInstant(*zone_, spanOf(earliest, span, *zone_), day, day + days{1});
}

std::optional<WallDate> GregorianCalendar::startOfNextDay(WallDate date) const {
    if (!isInRange(date)) {
        return std::nullopt;
    }
    const sys_seconds instant = wholeSecondsOf(date);
    const OffsetSpan span = zone_->at(instant);
    const local_days day = floor<days>(localTime(instant, span.offset));
    return ifInRange(firstInstant(*zone_, span, day + days{1}, local_seconds::max()));
}

std::optional<WallDate> GregorianCalendar::addingDays(int count, WallDate date) const {
    if (!isInRange(date)) {
        return std::nullopt;
    }
    const sys_seconds whole = wholeSecondsOf(date);
    const OffsetSpan before = zone_->at(whole);
    sys_seconds result = whole + days{count};
    OffsetSpan span = spanOf(result, before, *zone_);
    if (const seconds moved = before.offset - span.offset; moved % days{1} != seconds{0}) {
        const seconds change = before.offset - zone_->at(result + moved).offset;
        // A skipped time is moved later by the length of the gap, whichever way it is reached.
        result += (change - moved) % days{1} != seconds{0} ? std::max(moved, seconds{0}) : moved;
        span = zone_->at(result);
    }
    if (count > 0 && span.begin > sys_seconds::min()) {
        // The same local time also came before the clock went back.
        const seconds back = zone_->at(span.begin - seconds{1}).offset - span.offset;
        result -= result - back < span.begin ? back : seconds{0};
    }
    return ifInRange(result + (date - WallDate(whole)));
}

}  // namespace halvo
