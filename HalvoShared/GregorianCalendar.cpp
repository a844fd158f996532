#include "HalvoShared/GregorianCalendar.hpp"

#include <date/tz.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "HalvoShared/TimeZoneRule.hpp"

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

// RFC 8536 (3.2): an offset, whether it is summer, and where the abbreviation begins.
constexpr std::size_t bytesOfType = 6;

// RFC 8536 (3.2): no clock is as much ahead of UTC.
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

// Names of zones are short and plain; anything else would only spoil a message.
std::string noSuchZone(const std::string& name) {
    constexpr std::size_t longest = 100;
    const bool plain = name.size() <= longest &&
                       std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~'; });
    return plain ? "no time zone is named \"" + name + '"' : "that is not the name of a time zone";
}

// A number of RFC 8536 (3.2): its most significant byte comes first, negative ones in two's
// complement.
std::int64_t numberOf(std::string_view bytes) {
    std::uint64_t number = (static_cast<unsigned char>(bytes[0]) & 0x80U) != 0 ? ~0ULL : 0;
    for (const char byte : bytes) {
        number = number << 8U | static_cast<unsigned char>(byte);
    }
    return static_cast<std::int64_t>(number);
}

// The tables of a zone file that are read: those of its first part, or of its second, in which
// times have eight bytes.
struct Tables {
    std::string_view times;
    std::string_view typesOfTimes;
    std::string_view types;
    std::string_view abbreviations;
    std::size_t bytesOfTime = 0;
    // What follows the part.
    std::string_view rest;
};

// RFC 8536 (3.1, 3.2). Nothing when `part` ends before its tables do.
std::optional<Tables> tablesOf(std::string_view part, std::size_t bytesOfTime) {
    constexpr std::size_t header = 44;
    constexpr std::size_t firstCount = 20;
    std::array<std::size_t, 6> counts{};
    if (part.size() < header) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const std::int64_t count = numberOf(part.substr(firstCount + (4 * i), 4));
        if (count < 0) {
            return std::nullopt;
        }
        counts[i] = static_cast<std::size_t>(count);
    }
    const auto [utc, standard, leaps, times, types, characters] = counts;
    part.remove_prefix(header);
    bool isWhole = true;
    const auto take = [&](std::size_t size) {
        isWhole = isWhole && size <= part.size();
        const std::string_view taken = isWhole ? part.substr(0, size) : std::string_view();
        part.remove_prefix(taken.size());
        return taken;
    };
    Tables tables;
    tables.bytesOfTime = bytesOfTime;
    tables.times = take(times * bytesOfTime);
    tables.typesOfTimes = take(times);
    tables.types = take(types * bytesOfType);
    tables.abbreviations = take(characters);
    take((leaps * (bytesOfTime + 4)) + standard + utc);
    tables.rest = part;
    return isWhole ? std::optional(tables) : std::nullopt;
}

// The library follows every number in the tables, wherever it leads.
bool areSound(const Tables& tables) {
    const std::size_t types = tables.types.size() / bytesOfType;
    if (types == 0 || !tables.abbreviations.ends_with('\0')) {
        return false;
    }
    for (std::size_t i = 0; i < types; ++i) {
        const std::string_view type = tables.types.substr(i * bytesOfType, bytesOfType);
        const seconds offset{numberOf(type.substr(0, 4))};
        if (offset > farthestAhead || offset < -farthestAhead ||
            static_cast<unsigned char>(type[5]) >= tables.abbreviations.size()) {
            return false;
        }
    }
    const auto timeAt = [&](std::size_t i) {
        return numberOf(tables.times.substr(i * tables.bytesOfTime, tables.bytesOfTime));
    };
    for (std::size_t i = 0; i < tables.typesOfTimes.size(); ++i) {
        if (static_cast<unsigned char>(tables.typesOfTimes[i]) >= types ||
            (i > 0 && timeAt(i) <= timeAt(i - 1))) {
            return false;
        }
    }
    return true;
}

// Whether the library can read the file; version 1 has the first part only.
bool isSound(std::string_view file, bool hasSecondPart) {
    auto tables = tablesOf(file, 4);
    if (tables && hasSecondPart) {
        tables = tablesOf(tables->rest, 8);
    }
    return tables && areSound(*tables);
}

// The last line of the file of a zone that exists, without its line ends: how it goes on after the
// last change in the file. Empty in files that say nothing about it.
std::expected<std::string, std::string> lastLineOf(const std::string& name) {
    constexpr std::size_t limit = 1 << 20;
    const auto bytes = readFile("/usr/share/zoneinfo/" + name, limit);
    if (!bytes) {
        return std::unexpected("the time zone file cannot be read: " + bytes.error().message);
    }
    const auto damaged = std::unexpected("the file of the time zone \"" + name + "\" is damaged");
    // See tzfile(5): the version is the fifth byte; the first had no such line.
    constexpr std::string_view magic = "TZif";
    if (!bytes->starts_with(magic) || bytes->size() == magic.size()) {
        return damaged;
    }
    const bool hasLine = (*bytes)[magic.size()] >= '2';
    if (!isSound(*bytes, hasLine)) {
        return damaged;
    }
    if (!hasLine) {
        return {};
    }
    const std::string_view text(*bytes);
    const std::size_t newline = text.substr(0, text.size() - 1).rfind('\n');
    if (!text.ends_with('\n') || newline == std::string_view::npos) {
        return damaged;
    }
    return std::string(text.substr(newline + 1, text.size() - newline - 2));
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
};

std::expected<GregorianCalendar::Zone, std::string> GregorianCalendar::Zone::read(
    const std::string& name) {
    const date::time_zone* listed = nullptr;
    try {
        listed = date::locate_zone(name);
    } catch (const std::exception&) {
        return std::unexpected(noSuchZone(name));
    }
    // Before the library reads the file, which it does when it is first asked for an offset.
    const auto line = lastLineOf(name);
    if (!line) {
        return std::unexpected(line.error());
    }
    Zone zone{.name = name, .changes = {}};
    sys_seconds lastBegin = rangeBegin;
    try {
        date::sys_info info = listed->get_info(rangeBegin);
        append(zone.changes, {sys_seconds::min(), info.offset});
        while (info.end < rangeEnd) {
            info = listed->get_info(info.end);
            lastBegin = info.begin;
            append(zone.changes, {info.begin, info.offset});
        }
    } catch (const std::exception&) {
        return std::unexpected("the file of the time zone \"" + name + "\" is damaged");
    }
    if (!line->empty()) {
        const auto rule = TimeZoneRule::parse(*line);
        if (!rule) {
            return std::unexpected("the time zone \"" + name +
                                   "\" has a rule that cannot be read: " + *line);
        }
        if (rule->summer) {
            zone.cycleEnd = appendCycle(zone.changes, *rule, lastBegin);
        }
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
    try {
        if (auto calendar = named(date::current_zone()->name())) {
            return *calendar;
        }
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): what follows is the answer
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
    const sys_seconds whole = wholeSecondsOf(date);
    return zone_->changeAt(whole - zone_->cyclesTo(whole))->offset;
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
    const Seconds fraction = date - WallDate(whole);
    const seconds offset = zone_->changeAt(whole - zone_->cyclesTo(whole))->offset;
    const local_seconds farTarget = localTime(whole, offset) + std::chrono::days{days};
    const sys_seconds farEarliest = instantOf(farTarget, farthestAhead);
    const seconds cycles = zone_->cyclesTo(farEarliest);
    const local_seconds target = farTarget - cycles;

    const OffsetChange* change = zone_->changeAt(farEarliest - cycles);
    while (instantOf(target, change->offset) >= change[1].begin) {
        ++change;
    }
    sys_seconds result = instantOf(target, change->offset);
    if (result < change->begin) {
        // The clock skipped it, so this is not the first change: that begins before everything.
        const seconds before = change[-1].offset;
        const local_days day = floor<std::chrono::days>(target);
        if (localTime(change->begin, before) <= day &&
            localTime(change->begin, change->offset) >= day + std::chrono::days{1}) {
            return std::nullopt;
        }
        result = instantOf(target, before);
    }
    return ifInRange(result + cycles + fraction);
}

}  // namespace halvo
