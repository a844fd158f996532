#include "HalvoShared/GregorianCalendar.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoShared/TimeZoneFile.hpp"

namespace halvo {
namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::hours;
using std::chrono::local_days;
using std::chrono::local_seconds;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;
using std::chrono::years;

// The Gregorian calendar repeats itself, weekdays included, and with it every TimeZoneRule.
constexpr years cycleYears{400};
constexpr seconds cycle = days{146'097};

// No clock is as much ahead of UTC; see TimeZoneFile.
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

// Changes of which each begins later than the one before and has another offset.
void append(std::vector<OffsetChange>& changes, const OffsetChange& change) {
    if (!changes.empty() && changes.back().begin == change.begin) {
        changes.pop_back();
    }
    if (changes.empty() || changes.back().offset != change.offset) {
        changes.push_back(change);
    }
}

// Appends what `rule`, which has a summer, says of the years after `begin`, a cycle and a bit more,
// and gives the instant from which on it has repeated itself.
sys_seconds appendCycle(std::vector<OffsetChange>& changes, const TimeZoneRule& rule,
                        sys_seconds begin) {
    const year first = std::chrono::year_month_day{floor<days>(begin)}.year();
    // The cycle begins a year late, so that whatever precedes one of its instants by some hours
    // also follows the rule; and there is more of it, so that the same is so of what follows.
    const year firstOfCycle = first + years{2};
    std::vector<OffsetChange> ruled;
    for (year y = first - years{1}; y <= firstOfCycle + cycleYears + years{1}; ++y) {
        if (const auto both = rule.changes(y)) {
            ruled.insert(ruled.end(), both->begin(), both->end());
        }
    }
    // When a summer begins as the one before ends, the beginning is what counts.
    std::ranges::sort(ruled, {}, [&](const OffsetChange& change) {
        return std::pair(change.begin, change.offset == rule.summer->offset);
    });
    for (const OffsetChange& change : ruled) {
        if (change.begin > begin) {
            append(changes, change);
        }
    }
    return sys_seconds{sys_days{firstOfCycle / 1 / 1}} + cycle;
}

}  // namespace

struct GregorianCalendar::Zone {
    std::string name;
    // Sorted. The first begins at sys_seconds::min(), the last, at sys_seconds::max(), is the end
    // of the last but one and holds no instant.
    std::vector<OffsetChange> changes;
    // From here on everything repeats what was one cycle before.
    sys_seconds cycleEnd = sys_seconds::max();

    static std::expected<Zone, std::string> read(const std::string& name);

    // The change since which clocks go as they do at `instant`, which is before cycleEnd.
    [[nodiscard]] const OffsetChange* changeAt(sys_seconds instant) const;

    // A whole number of cycles that, taken from `instant`, moves it before cycleEnd.
    [[nodiscard]] seconds cyclesTo(sys_seconds instant) const;

    [[nodiscard]] seconds offsetAt(sys_seconds instant) const {
        return changeAt(instant - cyclesTo(instant))->offset;
    }

    // How much earlier clocks showed the time that they show again at `instant`; 0 when they did
    // not.
    [[nodiscard]] seconds repetitionAt(sys_seconds instant) const;
};

std::expected<GregorianCalendar::Zone, std::string> GregorianCalendar::Zone::read(
    const std::string& name) {
    const auto file = TimeZoneFile::read(name);
    if (!file) {
        return std::unexpected(file.error());
    }
    Zone zone{.name = name, .changes = {}};
    append(zone.changes, {sys_seconds::min(), file->firstOffset});
    sys_seconds lastBegin = rangeBegin;
    for (const auto& [begin, offset] : file->changes) {
        if (begin >= rangeEnd) {
            break;
        }
        lastBegin = std::max(lastBegin, begin);
        append(zone.changes, {begin > rangeBegin ? begin : sys_seconds::min(), offset});
    }
    if (const auto& rule = file->rule; rule && rule->summer) {
        zone.cycleEnd = appendCycle(zone.changes, *rule, lastBegin);
    }
    zone.changes.push_back({sys_seconds::max(), {}});
    return zone;
}

const OffsetChange* GregorianCalendar::Zone::changeAt(sys_seconds instant) const {
    // Halves without a branch that the processor could guess wrongly.
    const OffsetChange* change = changes.data();
    for (std::size_t count = changes.size(); count > 1;) {
        const std::size_t half = count / 2;
        change += change[half].begin <= instant ? half : 0;
        count -= half;
    }
    return change;
}

seconds GregorianCalendar::Zone::cyclesTo(sys_seconds instant) const {
    return instant < cycleEnd ? seconds{0} : cycle * ((instant - cycleEnd) / cycle + 1);
}

seconds GregorianCalendar::Zone::repetitionAt(sys_seconds instant) const {
    const sys_seconds within = instant - cyclesTo(instant);
    const OffsetChange* change = changeAt(within);
    if (change == changes.data()) {
        return seconds{0};
    }
    const seconds back = change[-1].offset - change->offset;
    return within - change->begin < back ? back : seconds{0};
}

GregorianCalendar::GregorianCalendar(std::shared_ptr<const Zone> zone) : zone_(std::move(zone)) {}

std::expected<GregorianCalendar, std::string> GregorianCalendar::named(const std::string& name) {
    auto zone = Zone::read(name);
    if (!zone) {
        return std::unexpected(zone.error());
    }
    return GregorianCalendar(std::make_shared<const Zone>(*std::move(zone)));
}

GregorianCalendar GregorianCalendar::system() {
    if (const char* value = std::getenv("TZ"); value != nullptr) {
        const std::string_view text(value);
        if (auto calendar = named(std::string(text.substr(text.starts_with(':') ? 1 : 0)))) {
            return *calendar;
        }
    }
    if (const auto name = timeZoneOfMachine()) {
        if (auto calendar = named(*name)) {
            return *calendar;
        }
    }
    return GregorianCalendar(std::make_shared<const Zone>(
        Zone{.name = "UTC",
             .changes = {{sys_seconds::min(), seconds{0}}, {sys_seconds::max(), seconds{0}}}}));
}

const std::string& GregorianCalendar::zoneName() const { return zone_->name; }

Seconds GregorianCalendar::offset(WallDate date) const {
    if (!isInRange(date)) {
        return Seconds{0};
    }
    return zone_->offsetAt(wholeSecondsOf(date));
}

WallDate GregorianCalendar::startOfDay(WallDate date) const {
    if (!isInRange(date)) {
        return date;
    }
    const seconds cycles = zone_->cyclesTo(wholeSecondsOf(date));
    const sys_seconds instant = wholeSecondsOf(date) - cycles;
    const OffsetChange* change = zone_->changeAt(instant);
    const local_days day = floor<days>(localTime(instant, change->offset));
    // The day may have begun before changes of the clock.
    const sys_seconds earliest = instantOf(day, farthestAhead);
    while (change->begin > earliest) {
        --change;
    }
    while (true) {
        const sys_seconds start = std::max(change->begin, instantOf(day, change->offset));
        if (start < change[1].begin && localTime(start, change->offset) < day + days{1}) {
            return start + cycles;
        }
        ++change;
    }
}

std::optional<WallDate> GregorianCalendar::startOfNextDay(WallDate date) const {
    if (!isInRange(date)) {
        return std::nullopt;
    }
    const seconds cycles = zone_->cyclesTo(wholeSecondsOf(date));
    const sys_seconds instant = wholeSecondsOf(date) - cycles;
    const OffsetChange* change = zone_->changeAt(instant);
    const local_days next = floor<days>(localTime(instant, change->offset)) + days{1};
    while (true) {
        const sys_seconds start = std::max(change->begin, instantOf(next, change->offset));
        if (start < change[1].begin) {
            return ifInRange(start + cycles);
        }
        ++change;
    }
}

std::optional<WallDate> GregorianCalendar::addingDays(int days, WallDate date) const {
    if (!isInRange(date)) {
        return std::nullopt;
    }
    const sys_seconds whole = wholeSecondsOf(date);
    const auto timeOfDay = [this](sys_seconds instant) {
        const local_seconds local = localTime(instant, zone_->offsetAt(instant));
        return local - floor<std::chrono::days>(local);
    };
    sys_seconds result = whole + std::chrono::days{days};
    if (timeOfDay(result) != timeOfDay(whole)) {
        const seconds moved = zone_->offsetAt(whole) - zone_->offsetAt(result);
        const bool isSkipped = timeOfDay(result + moved) != timeOfDay(whole);
        // A time that the clock skips is later by as much, from whichever side it is reached.
        result += isSkipped ? std::max(moved, seconds{0}) : moved;
    }
    if (days > 0) {
        result -= zone_->repetitionAt(result);
    }
    return ifInRange(result + (date - WallDate(whole)));
}

}  // namespace halvo
