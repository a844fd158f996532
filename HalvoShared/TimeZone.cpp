#include "HalvoShared/TimeZone.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "HalvoPlatform/Files.hpp"

namespace halvo {
namespace {

using namespace std::chrono;

constexpr seconds defaultTimeOfChange = hours{2};

// "Mm.w.d", "Jn" or "n" and a time: when the clock changes, every year.
struct YearlyChange {
    // "M" if not 0.
    int month = 0;
    // From Sunday as 0, and the how many-th of them in the month: 5 is the last.
    int weekday = 0;
    int week = 0;
    // "J": from 1, 29 February is not counted. "n": days after 1 January.
    bool isJulian = false;
    int day = 0;
    // After the midnight at which the day begins, on the clock as it is before the change.
    seconds time = defaultTimeOfChange;

    [[nodiscard]] local_days dayIn(year year) const {
        constexpr int lastOfFebruary = 31 + 28;
        if (month != 0) {
            const auto inMonth = year / month;
            const std::chrono::weekday ofWeek{static_cast<unsigned>(weekday)};
            return week == 5 ? local_days{inMonth / ofWeek[std::chrono::last]}
                             : local_days{inMonth / ofWeek[static_cast<unsigned>(week)]};
        }
        const bool countsFromOne = isJulian && (!year.is_leap() || day <= lastOfFebruary);
        return local_days{year / 1 / 1} + days{day - (countsFromOne ? 1 : 0)};
    }

    // `before` is the offset before the change.
    [[nodiscard]] sys_seconds instantIn(year year, seconds before) const {
        return sys_seconds{dayIn(year).time_since_epoch() + time - before};
    }
};

// What the TZ variable of tzset(3) says, and the last line of a file of tzfile(5), with the times
// of day from -167 to 167 hours that RFC 8536 (3.3.1) adds.
struct Rule {
    seconds standard{};
    bool hasSummer = false;
    // The part of the year with another offset; it may be winter, with a smaller one.
    seconds summer{};
    YearlyChange begin;
    YearlyChange end;
};

// Reads a rule from the front. Once something was not as it must be, `failed_` stays true and what
// is read means nothing.
class RuleReader {
  public:
    explicit RuleReader(std::string_view text) : rest_(text) {}

    // Nothing when the text is no rule: also when it names a summer time and not its days, for
    // which there is no agreed rule.
    std::optional<Rule> rule() {
        Rule rule;
        skipName();
        // The text counts westward, as POSIX does.
        rule.standard = -time(mostHoursOfOffset);
        rule.hasSummer = !failed_ && !rest_.empty();
        if (rule.hasSummer) {
            skipName();
            rule.summer =
                rest_.starts_with(',') ? rule.standard + hours{1} : -time(mostHoursOfOffset);
            rule.begin = change();
            rule.end = change();
        }
        require(rest_.empty());
        return failed_ ? std::nullopt : std::optional(rule);
    }

  private:
    static constexpr int mostHoursOfOffset = 24;
    static constexpr int mostHoursOfChange = 167;

    void require(bool isSo) { failed_ = failed_ || !isSo; }

    bool skip(char c) {
        const bool found = rest_.starts_with(c);
        rest_.remove_prefix(found ? 1 : 0);
        return found;
    }

    int number(int least, int most) {
        int value = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        // A sign is none of the number's characters here.
        require(error == std::errc{} && rest_.front() != '-' && value >= least && value <= most);
        rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
        return value;
    }

    // "[+-]hh[:mm[:ss]]"
    seconds time(int mostHours) {
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

    // An abbreviation, which is not needed: three letters or more, or as many of anything in "<>".
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

    YearlyChange change() {
        YearlyChange change;
        require(skip(','));
        if (skip('M')) {
            change.month = number(1, 12);
            require(skip('.'));
            change.week = number(1, 5);
            require(skip('.'));
            change.weekday = number(0, 6);
        } else {
            change.isJulian = skip('J');
            change.day = number(change.isJulian ? 1 : 0, 365);
        }
        if (skip('/')) {
            change.time = time(mostHoursOfChange);
        }
        return change;
    }

    std::string_view rest_;
    bool failed_ = false;
};

// Keeps the promises of TimeZone::changes; `change` begins no earlier than the last.
void append(std::vector<OffsetChange>& changes, const OffsetChange& change) {
    if (!changes.empty() && changes.back().begin == change.begin) {
        changes.pop_back();
    }
    if (changes.empty() || changes.back().offset != change.offset) {
        changes.push_back(change);
    }
}

// Appends what `rule`, which has a summer, makes of the years after `last`, the last change listed,
// until they come again.
void appendYears(TimeZone& zone, const Rule& rule, sys_seconds last) {
    const sys_days known =
        std::clamp(floor<days>(last), sys_days{year{1} / 1 / 1}, sys_days{year{10'000} / 1 / 1});
    const year begin = year_month_day{known}.year();
    std::vector<OffsetChange> begins;
    std::vector<OffsetChange> ends;
    // Changes may fall some days outside of the year to which they belong.
    for (year y = begin - years{1}; y <= begin + years{404}; ++y) {
        begins.push_back({rule.begin.instantIn(y, rule.standard), rule.summer});
        ends.push_back({rule.end.instantIn(y, rule.summer), rule.standard});
    }
    std::vector<OffsetChange> ruled;
    // When a summer begins as the one before ends, the beginning comes last and counts.
    std::ranges::merge(ends, begins, std::back_inserter(ruled), {}, &OffsetChange::begin,
                       &OffsetChange::begin);
    for (const OffsetChange& change : ruled) {
        if (change.begin > last) {
            append(zone.changes, change);
        }
    }
    // The year before this is the rule's alone; it may have made no change.
    const sys_days repeated{(begin + years{2}) / 1 / 1};
    if (last < repeated && repeated < zone.changes.back().begin) {
        zone.repeatsFrom = repeated;
    }
}

bool isPrintable(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

// Whether `name` is a path that stays in the folder of zones.
bool isPlainPath(const std::filesystem::path& name) {
    return name.is_relative() && name.native() == name.lexically_normal().native() &&
           !name.native().starts_with("..");
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

// RFC 8536 (3.2): an offset, whether it is summer, and where the abbreviation begins.
constexpr std::size_t bytesOfKind = 6;

// The tables of one part of a file, in their order.
struct Tables {
    std::string_view times;
    std::string_view kindsOfTimes;
    std::string_view kinds;
    std::string_view abbreviations;
    std::string_view leapSeconds;
};

// Takes the tables off the front of `rest`, RFC 8536 (3.1, 3.2). Nothing when it does not begin as
// it must, or ends before they do.
std::optional<Tables> takeTables(std::string_view& rest, std::size_t bytesOfTime) {
    constexpr std::size_t header = 44;
    constexpr std::size_t firstCount = 20;
    if (rest.size() < header || !rest.starts_with("TZif")) {
        return std::nullopt;
    }
    std::array<std::uint64_t, 6> counts{};
    for (std::size_t i = 0; i < counts.size(); ++i) {
        // One below zero becomes more than any file holds.
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

// RFC 8536 (3.2). Nothing when the table is empty, or a number in it leads to nothing.
std::optional<std::vector<seconds>> offsetsOf(const Tables& tables) {
    constexpr seconds farthestAhead = hours{26};
    std::vector<seconds> offsets;
    for (std::size_t i = 0; i < tables.kinds.size(); i += bytesOfKind) {
        offsets.emplace_back(numberOf(tables.kinds.substr(i, 4)));
        const auto abbreviation = static_cast<unsigned char>(tables.kinds[i + 5]);
        if (std::chrono::abs(offsets.back()) > farthestAhead ||
            abbreviation >= tables.abbreviations.size()) {
            return std::nullopt;
        }
    }
    return offsets.empty() || !tables.abbreviations.ends_with('\0') ? std::nullopt
                                                                    : std::optional(offsets);
}

// RFC 8536 (3.3): the text of the rule, which may be empty, stands between two line ends. Nothing
// when `rest`, what follows the tables, is anything else.
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
        // Nothing there, below a file, a folder, or longer than a file's name can be.
        constexpr std::array none{ENOENT, ENOTDIR, EINVAL, ENAMETOOLONG};
        if (std::ranges::find(none, bytes.error().code) != none.end()) {
            return noSuchZone;
        }
        return std::unexpected("the time zone file cannot be read: " + bytes.error().message);
    }
    // The lists beside the zones ("zone.tab", "leapseconds") all begin with a comment.
    return bytes->starts_with('#') ? noSuchZone : parse(*bytes, name);
}

std::expected<TimeZone, std::string> TimeZone::parse(std::string_view bytes,
                                                     const std::string& name) {
    const std::string file = "the file of the time zone \"" + name + '"';
    const auto damaged = std::unexpected(file + " is damaged");
    std::string_view rest = bytes;
    std::size_t bytesOfTime = 4;
    auto tables = takeTables(rest, bytesOfTime);
    // The version is the byte after the first four. The first had one part and no rule; since the
    // second, a part in which times have eight bytes says all that the first does, and more.
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
    // RFC 8536 (3.2): the first kind is that before the first change.
    TimeZone zone{.name = name, .changes = {{sys_seconds::min(), offsets->front()}}};
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
        const auto rule = RuleReader(*footer).rule();
        if (!rule && !footer->empty()) {
            return std::unexpected("the time zone \"" + name +
                                   "\" has a rule that cannot be read: " + std::string(*footer));
        }
        if (rule && rule->hasSummer) {
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
    std::error_code error;
    if (!std::filesystem::is_symlink(path, error)) {
        const auto lines = readFile("/etc/timezone", limit);
        return lines ? std::optional(lines->substr(0, lines->find('\n'))) : std::nullopt;
    }
    for (int i = 0; i < mostLinks; ++i) {
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error) {
            break;
        }
        const std::string& text = target.native();
        if (const std::size_t found = text.rfind(folder); found != std::string::npos) {
            return text.substr(found + folder.size());
        }
        path = path.parent_path() / target;
    }
    return std::nullopt;
}

}  // namespace halvo
