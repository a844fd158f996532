#include "HalvoShared/RFC3339.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace halvo::RFC3339 {
namespace {

using namespace std::chrono;

constexpr std::string_view form = "0000-00-00T00:00:00";

// From the first second of the year 0 to the last of the year 9999.
constexpr sys_seconds first{sys_days{year{0} / 1 / 1}};
constexpr sys_seconds last{sys_days{year{10000} / 1 / 1} - seconds{1}};

// Whether `text` has a digit wherever `pattern` has one, and is equal to it elsewhere.
bool hasForm(std::string_view text, std::string_view pattern) {
    return std::ranges::equal(text, pattern, [](char found, char expected) {
        return expected == '0' ? found >= '0' && found <= '9' : found == expected;
    });
}

unsigned number(std::string_view digits) {
    unsigned value = 0;
    for (const char digit : digits) {
        value = (value * 10) + static_cast<unsigned>(digit - '0');
    }
    return value;
}

}  // namespace

bool append(WallDate date, std::string& text) {
    // False for not-a-number.
    if (!(date >= first && date < last + seconds{1})) {
        return false;
    }
    const auto day = std::chrono::floor<days>(date);
    const year_month_day ymd{day};
    const hh_mm_ss time{std::chrono::floor<seconds>(date) - day};
    text += form;
    // Each number with the end of its digits.
    for (auto [value, place] :
         {std::pair{static_cast<int>(ymd.year()), text.end() - 15},
          {static_cast<int>(static_cast<unsigned>(ymd.month())), text.end() - 12},
          {static_cast<int>(static_cast<unsigned>(ymd.day())), text.end() - 9},
          {static_cast<int>(time.hours().count()), text.end() - 6},
          {static_cast<int>(time.minutes().count()), text.end() - 3},
          {static_cast<int>(time.seconds().count()), text.end()}}) {
        for (; value > 0; value /= 10) {
            *--place = static_cast<char>('0' + (value % 10));
        }
    }
    text += 'Z';
    return true;
}

std::optional<WallDate> parse(std::string_view text) {
    const std::string_view zone = text.substr(std::min(form.size(), text.size()));
    const bool isUTC = zone == "Z";
    if (!hasForm(text.substr(0, form.size()), form) ||
        !(isUTC || hasForm(zone, "+00:00") || hasForm(zone, "-00:00"))) {
        return std::nullopt;
    }
    const auto at = [text](std::size_t place) { return number(text.substr(place, 2)); };
    const year_month_day day{year{static_cast<int>(number(text.substr(0, 4)))}, month{at(5)},
                             std::chrono::day{at(8)}};
    const unsigned aheadHours = isUTC ? 0 : at(20);
    const unsigned aheadMinutes = isUTC ? 0 : at(23);
    if (!day.ok() || std::max(at(11), aheadHours) > 23 ||
        std::max({at(14), at(17), aheadMinutes}) > 59) {
        return std::nullopt;
    }
    const seconds ahead = hours{aheadHours} + minutes{aheadMinutes};
    const sys_seconds instant = sys_days{day} + hours{at(11)} + minutes{at(14)} + seconds{at(17)} -
                                (zone.starts_with('-') ? -ahead : ahead);
    return instant < first || instant > last ? std::nullopt : std::optional(WallDate{instant});
}

}  // namespace halvo::RFC3339
