#include "HalvoShared/TimeZoneRule.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace halvo {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::local_days;
using std::chrono::minutes;
using std::chrono::month;
using std::chrono::seconds;
using std::chrono::sys_seconds;
using std::chrono::weekday;
using std::chrono::year;

constexpr int mostHoursOfOffset = 24;
constexpr int mostHoursOfChange = 167;

// Takes a text apart from the front. Once something was not as it must be, `failed()` stays true
// and what is taken means nothing.
class Reader {
  public:
    explicit Reader(std::string_view text) : rest_(text) {}

    [[nodiscard]] bool failed() const { return failed_; }

    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

    [[nodiscard]] bool nextIs(char c) const { return rest_.starts_with(c); }

    bool skip(char c) {
        const bool found = nextIs(c);
        rest_.remove_prefix(found ? 1 : 0);
        return found;
    }

    void expect(char c) { require(skip(c)); }

    int number(int least, int most) {
        int value = 0;
        // A sign is none of the number's characters here.
        require(!nextIs('-'));
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        require(error == std::errc{} && value >= least && value <= most);
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
        if (skip(':')) {
            span += minutes{number(0, 59)};
            if (skip(':')) {
                span += seconds{number(0, 59)};
            }
        }
        return sign * span;
    }

    // An abbreviation, which nobody needs: letters, or anything in "<>".
    void skipName() {
        constexpr std::size_t shortest = 3;
        std::size_t length = 0;
        if (skip('<')) {
            length = std::min(rest_.find('>'), rest_.size());
            rest_.remove_prefix(length);
            expect('>');
        } else {
            while (length < rest_.size() && isLetter(rest_[length])) {
                ++length;
            }
            rest_.remove_prefix(length);
        }
        require(length >= shortest);
    }

    TimeZoneRule::Change change() {
        TimeZoneRule::Change change{.day = {}, .time = hours{2}};
        if (skip('J')) {
            change.day = TimeZoneRule::DayButLeapDay{number(1, 365)};
        } else if (skip('M')) {
            TimeZoneRule::WeekdayOfMonth day{};
            day.month = number(1, 12);
            expect('.');
            day.week = number(1, 5);
            expect('.');
            day.weekday = number(0, 6);
            change.day = day;
        } else {
            change.day = TimeZoneRule::DayOfYear{number(0, 365)};
        }
        if (skip('/')) {
            change.time = time(mostHoursOfChange);
        }
        return change;
    }

  private:
    // The character classes of <cctype> depend on the locale.
    static bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

    void require(bool isSo) { failed_ = failed_ || !isSo; }

    std::string_view rest_;
    bool failed_ = false;
};

local_days dayIn(year year, const TimeZoneRule::DayButLeapDay& rule) {
    constexpr int lastOfFebruary = 31 + 28;
    const bool afterLeapDay = year.is_leap() && rule.day > lastOfFebruary;
    return local_days{year / 1 / 1} + days{rule.day - 1 + (afterLeapDay ? 1 : 0)};
}

local_days dayIn(year year, const TimeZoneRule::DayOfYear& rule) {
    return local_days{year / 1 / 1} + days{rule.day};
}

local_days dayIn(year year, const TimeZoneRule::WeekdayOfMonth& rule) {
    const auto inMonth = year / month{static_cast<unsigned>(rule.month)};
    const weekday day{static_cast<unsigned>(rule.weekday)};
    constexpr int last = 5;
    return rule.week == last ? local_days{inMonth / day[std::chrono::last]}
                             : local_days{inMonth / day[static_cast<unsigned>(rule.week)]};
}

// `offset` is that before the change.
sys_seconds instantOf(const TimeZoneRule::Change& change, year year, seconds offset) {
    const local_days day =
        std::visit([&](const auto& rule) { return dayIn(year, rule); }, change.day);
    return sys_seconds{day.time_since_epoch() + change.time - offset};
}

}  // namespace

std::optional<TimeZoneRule> TimeZoneRule::parse(std::string_view text) {
    Reader reader(text);
    TimeZoneRule rule{};
    reader.skipName();
    // The text counts westward, as POSIX does.
    rule.standardOffset = -reader.time(mostHoursOfOffset);
    if (!reader.failed() && !reader.atEnd()) {
        SummerTime summer{};
        reader.skipName();
        summer.offset =
            reader.nextIs(',') ? rule.standardOffset + hours{1} : -reader.time(mostHoursOfOffset);
        reader.expect(',');
        summer.begin = reader.change();
        reader.expect(',');
        summer.end = reader.change();
        rule.summer = summer;
    }
    if (reader.failed() || !reader.atEnd()) {
        return std::nullopt;
    }
    return rule;
}

std::optional<std::array<OffsetChange, 2>> TimeZoneRule::changes(year year) const {
    if (!summer) {
        return std::nullopt;
    }
    return {{OffsetChange{instantOf(summer->begin, year, standardOffset), summer->offset},
             OffsetChange{instantOf(summer->end, year, summer->offset), standardOffset}}};
}

}  // namespace halvo
