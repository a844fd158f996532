#include "HalvoShared/TimeZone.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <system_error>
#include <utility>

#include "HalvoPlatform/Files.hpp"

namespace halvo {
namespace {

using namespace std::chrono;

// A transition of every year.
using YearlyChange = std::function<OffsetChange(year)>;

// Parses a POSIX TZ string (tzset(3)), the footer of a file, with the times from -167 to 167 hours
// that RFC 8536 (3.3.1) adds. After the first error `failed_` stays true and results are
// meaningless.
class RuleReader {
  public:
    explicit RuleReader(std::string_view text) : rest_(text) {}

    // The end and the begin of daylight saving time, whose offset may also be the smaller one;
    // empty when the zone has none. Nothing for an invalid text, also for one that names daylight
    // saving time without its days, since there is no agreed default.
    std::optional<std::vector<YearlyChange>> changes() {
        std::vector<YearlyChange> changes;
        skipName();
        const seconds standard = offset();
        if (!failed_ && !rest_.empty()) {
            skipName();
            const seconds summer = rest_.starts_with(',') ? standard + hours{1} : offset();
            const YearlyChange begin = change(standard, summer);
            changes = {change(summer, standard), begin};
        }
        require(rest_.empty());
        return failed_ ? std::nullopt : std::optional(changes);
    }

  private:
    void require(bool isSo) { failed_ = failed_ || !isSo; }

    bool skip(char c) {
        const bool found = rest_.starts_with(c);
        rest_.remove_prefix(found ? 1 : 0);
        return found;
    }

    unsigned number(unsigned least, unsigned most) {
        unsigned value = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        require(error == std::errc{} && value >= least && value <= most);
        rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
        return value;
    }

    // "[+-]hh[:mm[:ss]]"
    seconds time(unsigned mostHours) {
        const int sign = skip('-') ? -1 : 1;
        if (sign > 0) {
            skip('+');
        }
        seconds span = hours{number(0, mostHours)};
        for (const seconds unit : {seconds{60}, seconds{1}}) {
            span += skip(':') ? unit * number(0, 59) : seconds{0};
        }
        return sign * span;
    }

    // POSIX counts westward.
    seconds offset() { return -time(24); }

    // An abbreviation, which is not used: three letters or more, or at least three characters in
    // "<>".
    void skipName() {
        constexpr std::size_t shortest = 3;
        const bool isQuoted = skip('<');
        // The character classes of <cctype> depend on the locale.
        constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        const std::size_t end = isQuoted ? rest_.find('>') : rest_.find_first_not_of(letters);
        const std::size_t length = std::min(end, rest_.size());
        require(length >= shortest);
        rest_.remove_prefix(length);
        require(!isQuoted || skip('>'));
    }

    // ",Mm.w.d", ",Jn" or ",n", and a time since midnight, local time with the offset `before`.
    YearlyChange change(seconds before, seconds after) {
        std::function<local_days(year)> dayIn;
        require(skip(','));
        if (skip('M')) {
            const month inMonth{number(1, 12)};
            require(skip('.'));
            const unsigned week = number(1, 5);
            require(skip('.'));
            const weekday day{number(0, 6)};
            dayIn = [=](year year) {
                return week == 5 ? local_days{year / inMonth / day[std::chrono::last]}
                                 : local_days{year / inMonth / day[week]};
            };
        } else {
            // Jn counts from 1 and skips 29 February; n counts from 0.
            const bool isJulian = skip('J');
            const days day{number(isJulian ? 1 : 0, 365)};
            dayIn = [=](year year) {
                const bool isAfterLeapDay = year.is_leap() && day > days{31 + 28};
                return local_days{year / 1 / 1} + day - days{isJulian && !isAfterLeapDay ? 1 : 0};
            };
        }
        const seconds timeOfDay = skip('/') ? time(167) : hours{2};
        return [=](year year) {
            const auto midnight = dayIn(year).time_since_epoch();
            return OffsetChange{sys_seconds{midnight + timeOfDay - before}, after};
        };
    }

    std::string_view rest_;
    bool failed_ = false;
};

// Keeps the invariants of TimeZone::changes; `change` begins no earlier than the last.
void append(std::vector<OffsetChange>& changes, const OffsetChange& change) {
    if (!changes.empty() && changes.back().begin == change.begin) {
        changes.pop_back();
    }
    if (changes.empty() || changes.back().offset != change.offset) {
        changes.push_back(change);
    }
}

// Appends the transitions of the rule after `last`, the last one in the file, until they repeat.
void appendYears(TimeZone& zone, const std::vector<YearlyChange>& rule, sys_seconds last) {
    const sys_days known =
        std::clamp(floor<days>(last), sys_days{year{1} / 1 / 1}, sys_days{year{10'000} / 1 / 1});
    const year begin = year_month_day{known}.year();
    std::vector<OffsetChange> ruled;
    // A transition may lie some days outside of its year.
    for (year y = begin - years{1}; y <= begin + years{404}; ++y) {
        for (const YearlyChange& change : rule) {
            ruled.push_back(change(y));
        }
    }
    // Where daylight saving time ends and begins at once, the begin comes last and counts.
    std::ranges::sort(ruled, {}, [summer = rule.back()(begin).offset](const OffsetChange& change) {
        return std::pair(change.begin, change.offset == summer);
    });
    for (const OffsetChange& change : ruled) {
        if (change.begin > last) {
            append(zone.changes, change);
        }
    }
    // The year before is the rule's alone, even if it has no transition.
    const sys_days repeated{(begin + years{2}) / 1 / 1};
    if (last < repeated && repeated < zone.changes.back().begin) {
        zone.repeatsFrom = repeated;
    }
}

bool isPrintable(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

// Whether `name` is a path that stays in its folder.
bool isPlainPath(const std::filesystem::path& name) {
    return name.is_relative() && name.native() == name.lexically_normal().native() &&
           !name.native().starts_with("..");
}

// A big-endian number in two's complement, RFC 8536 (3.2).
std::int64_t numberOf(std::string_view bytes) {
    std::uint64_t number = (static_cast<unsigned char>(bytes[0]) & 0x80U) != 0 ? ~0ULL : 0;
    for (const char byte : bytes) {
        number = number << 8U | static_cast<unsigned char>(byte);
    }
    return static_cast<std::int64_t>(number);
}

// A local time type record, RFC 8536 (3.2): offset, daylight saving, index of the abbreviation.
constexpr std::size_t bytesOfKind = 6;

// The data block of one version in a file, in its order.
struct Tables {
    std::string_view times;
    std::string_view kindsOfTimes;
    std::string_view kinds;
    std::string_view abbreviations;
    std::string_view leapSeconds;
};

// Takes a header and its data block off the front of `rest`, RFC 8536 (3.1, 3.2). Nothing when they
// are invalid or truncated.
std::optional<Tables> takeTables(std::string_view& rest, std::size_t bytesOfTime) {
    constexpr std::size_t header = 44;
    constexpr std::size_t firstCount = 20;
    if (rest.size() < header || !rest.starts_with("TZif")) {
        return std::nullopt;
    }
    std::array<std::uint64_t, 6> counts{};
    for (std::size_t i = 0; i < counts.size(); ++i) {
        // A negative one becomes larger than any file.
        counts[i] = static_cast<std::uint32_t>(numberOf(rest.substr(firstCount + (4 * i), 4)));
    }
    const auto [utc, standard, leaps, times, kinds, characters] = counts;
    rest.remove_prefix(header);
    bool isWhole = true;
    const auto take = [&](std::uint64_t size) {
        isWhole = isWhole && size <= rest.size();
        const std::string_view taken = isWhole ? rest.substr(0, size) : std::string_view();
        rest.remove_prefix(taken.size());
        return taken;
    };
    const Tables tables{.times = take(times * bytesOfTime),
                        .kindsOfTimes = take(times),
                        .kinds = take(kinds * bytesOfKind),
                        .abbreviations = take(characters),
                        .leapSeconds = take(leaps * (bytesOfTime + 4))};
    take(standard + utc);
    return isWhole ? std::optional(tables) : std::nullopt;
}

// The offsets of the local time types, RFC 8536 (3.2). Nothing when there are none, or a number is
// out of range.
std::optional<std::vector<seconds>> offsetsOf(const Tables& tables) {
    std::vector<seconds> offsets;
    for (std::size_t i = 0; i < tables.kinds.size(); i += bytesOfKind) {
        offsets.emplace_back(numberOf(tables.kinds.substr(i, 4)));
        const auto abbreviation = static_cast<unsigned char>(tables.kinds[i + 5]);
        if (std::chrono::abs(offsets.back()) > TimeZone::largestOffset ||
            abbreviation >= tables.abbreviations.size()) {
            return std::nullopt;
        }
    }
    return offsets.empty() || !tables.abbreviations.ends_with('\0') ? std::nullopt
                                                                    : std::optional(offsets);
}

// The TZ string, which may be empty, between two newlines, RFC 8536 (3.3). Nothing when `rest`,
// what follows the data blocks, is anything else.
std::optional<std::string_view> footerOf(std::string_view rest) {
    if (rest.size() < 2 || !rest.starts_with('\n') || !rest.ends_with('\n')) {
        return std::nullopt;
    }
    const std::string_view footer = rest.substr(1, rest.size() - 2);
    return isPrintable(footer) ? std::optional(footer) : std::nullopt;
}

}  // namespace

std::expected<TimeZone, std::string> TimeZone::read(const std::string& name) {
    constexpr std::size_t limit = 1 << 20;
    constexpr std::size_t longestName = 100;
    if (name.size() > longestName || !isPrintable(name)) {
        return std::unexpected("that is not the name of a time zone");
    }
    const auto noSuchZone = std::unexpected("no time zone is named \"" + name + '"');
    if (!isPlainPath(name)) {
        return noSuchZone;
    }
    const auto bytes = readFile("/usr/share/zoneinfo/" + name, limit);
    if (!bytes) {
        // Missing, below a file, a folder, or with a component that is too long.
        constexpr std::array none{ENOENT, ENOTDIR, EINVAL, ENAMETOOLONG};
        if (std::ranges::find(none, bytes.error().code) != none.end()) {
            return noSuchZone;
        }
        return std::unexpected("the time zone file cannot be read: " + bytes.error().message);
    }
    // The text files beside the zones ("zone.tab", "leapseconds") all begin with a comment.
    return bytes->starts_with('#') ? noSuchZone : parse(*bytes, name);
}

std::expected<TimeZone, std::string> TimeZone::parse(std::string_view bytes,
                                                     const std::string& name) {
    const std::string file = "the file of the time zone \"" + name + '"';
    const auto damaged = std::unexpected(file + " is damaged");
    std::string_view rest = bytes;
    std::size_t bytesOfTime = 4;
    auto tables = takeTables(rest, bytesOfTime);
    // The byte after the magic is the version. Since version 2 a second data block, with times of
    // eight bytes, holds all that the first does, and a footer follows.
    const bool hasSecondPart = tables && bytes[4] >= '2';
    if (hasSecondPart) {
        bytesOfTime = 8;
        tables = takeTables(rest, bytesOfTime);
    }
    const auto offsets = tables ? offsetsOf(*tables) : std::nullopt;
    if (!offsets) {
        return damaged;
    }
    if (!tables->leapSeconds.empty()) {
        return std::unexpected(file + " counts leap seconds");
    }
    // RFC 8536 (3.2): the first type applies before the first transition.
    TimeZone zone{.changes = {{sys_seconds::min(), offsets->front()}}};
    sys_seconds last = sys_seconds::min();
    for (std::size_t i = 0; i < tables->kindsOfTimes.size(); ++i) {
        const sys_seconds time{
            seconds{numberOf(tables->times.substr(i * bytesOfTime, bytesOfTime))}};
        const auto kind = static_cast<unsigned char>(tables->kindsOfTimes[i]);
        if (kind >= offsets->size() || (i > 0 && time <= last)) {
            return damaged;
        }
        last = time;
        append(zone.changes, {time, (*offsets)[kind]});
    }
    if (hasSecondPart) {
        const auto footer = footerOf(rest);
        if (!footer) {
            return damaged;
        }
        const auto rule = RuleReader(*footer).changes();
        if (!rule && !footer->empty()) {
            return std::unexpected("the time zone \"" + name +
                                   "\" has a rule that cannot be read: " + std::string(*footer));
        }
        if (rule && !rule->empty()) {
            appendYears(zone, *rule, last);
        }
    }
    append(zone.changes, {sys_seconds::max(), seconds::max()});
    return zone;
}

OffsetSpan TimeZone::at(sys_seconds instant) const {
    constexpr seconds cycle = days{146'097};
    const seconds back =
        instant < repeatsFrom ? seconds{0} : cycle * ((instant - repeatsFrom) / cycle);
    const auto next = std::ranges::upper_bound(changes, instant - back, {}, &OffsetChange::begin);
    return {next[-1].begin + back, next->begin + back, next[-1].offset};
}

std::optional<std::string> timeZoneOfMachine() {
    constexpr std::string_view folder = "zoneinfo/";
    constexpr int mostLinks = 40;  // as many as Linux follows
    constexpr std::size_t limit = 4096;
    std::filesystem::path path = "/etc/localtime";
    for (int i = 0; i < mostLinks; ++i) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(path, error);
        if (error) {
            const auto lines = readFile("/etc/timezone", limit);
            const bool isLink = i > 0;
            return lines && !isLink ? std::optional(lines->substr(0, lines->find('\n')))
                                    : std::nullopt;
        }
        if (const std::size_t found = target.rfind(folder); found != std::string::npos) {
            return target.substr(found + folder.size());
        }
        path = path.parent_path() / target;
    }
    return std::nullopt;
}

}  // namespace halvo
