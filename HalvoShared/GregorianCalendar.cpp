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

// No clock is as much ahead of UTC; see TimeZone.
constexpr seconds farthestAhead = hours{26};

constexpr sys_seconds rangeBegin = sys_days{year{1} / 1 / 1};
constexpr sys_seconds rangeEnd = sys_days{year{10'000} / 1 / 1};

constexpr local_seconds localTime(sys_seconds instant, seconds offset) {
    return local_seconds{instant.time_since_epoch() + offset};
}

constexpr sys_seconds instantOf(local_seconds local, seconds offset) {
    return sys_seconds{local.time_since_epoch() - offset};
}

// False for what is not finite, too.
bool isInRange(WallDate date) { return date >= rangeBegin && date < rangeEnd; }

std::optional<WallDate> ifInRange(WallDate date) {
    return isInRange(date) ? std::optional(date) : std::nullopt;
}

// The whole seconds of a date in range; the fraction is what it is later.
sys_seconds wholeSecondsOf(WallDate date) {
    return sys_seconds{seconds{static_cast<seconds::rep>(std::floor(secondsSince1970(date)))}};
}

// The first instant in `span` or after it at which clocks show `first` or later, but before `end`.
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
    std::optional<std::string> ofProcess;
    if (const char* value = std::getenv("TZ"); value != nullptr) {
        ofProcess = value + (*value == ':' ? 1 : 0);
    }
    for (const auto& name : {ofProcess, timeZoneOfMachine()}) {
        if (auto calendar = named(name.value_or(""))) {
            return *calendar;
        }
    }
    return GregorianCalendar(
        {.name = "UTC",
         .changes = {{sys_seconds::min(), seconds{0}}, {sys_seconds::max(), seconds{0}}}});
}

const std::string& GregorianCalendar::zoneName() const { return zone_->name; }

Seconds GregorianCalendar::offset(WallDate date) const {
    return isInRange(date) ? zone_->at(wholeSecondsOf(date)).offset : Seconds{0};
}

WallDate GregorianCalendar::startOfDay(WallDate date) const {
    if (!isInRange(date)) {
        return date;
    }
    const sys_seconds instant = wholeSecondsOf(date);
    const local_days day = floor<days>(localTime(instant, zone_->at(instant).offset));
    // The day may have begun before changes of the clock.
    return firstInstant(*zone_, zone_->at(instantOf(day, farthestAhead)), day, day + days{1});
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
    const auto timeOfDay = [this](sys_seconds instant) {
        const local_seconds local = localTime(instant, zone_->at(instant).offset);
        return local - floor<days>(local);
    };
    const sys_seconds whole = wholeSecondsOf(date);
    sys_seconds result = whole + days{count};
    if (timeOfDay(result) != timeOfDay(whole)) {
        const seconds moved = zone_->at(whole).offset - zone_->at(result).offset;
        const bool isSkipped = timeOfDay(result + moved) != timeOfDay(whole);
        // A time that the clock skips is later by as much, from whichever side it is reached.
        result += isSkipped ? std::max(moved, seconds{0}) : moved;
    }
    if (const OffsetSpan span = zone_->at(result); count > 0 && span.begin > sys_seconds::min()) {
        // The clock showed the same time before it went back.
        const seconds back = zone_->at(span.begin - seconds{1}).offset - span.offset;
        result -= result - back < span.begin ? back : seconds{0};
    }
    return ifInRange(result + (date - WallDate(whole)));
}

}  // namespace halvo
