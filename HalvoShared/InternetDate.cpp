#include "HalvoShared/InternetDate.hpp"

#include <array>
#include <cstddef>

namespace halvo::InternetDate {
namespace {

using namespace std::chrono;

constexpr std::string_view form = "0000-00-00T00:00:00";
constexpr std::string_view offsetForm = "+00:00";

// From the first second of the year 0 to the last of the year 9999.
constexpr sys_seconds first{sys_days{year{0} / 1 / 1}};
constexpr sys_seconds last{sys_days{year{10000} / 1 / 1} - seconds{1}};

// Whether `text` has a digit wherever `pattern` has one, and is equal to it elsewhere.
bool hasForm(std::string_view text, std::string_view pattern) {
    if (text.size() != pattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (pattern[i] == '0' ? !isDigit : text[i] != pattern[i]) {
            return false;
        }
    }
    return true;
}

unsigned number(std::string_view digits) {
    unsigned value = 0;
    for (const char digit : digits) {
        value = (value * 10) + static_cast<unsigned>(digit - '0');
    }
    return value;
}

void put(unsigned value, char* place, std::size_t digits) {
    for (std::size_t i = digits; i > 0; --i) {
        place[i - 1] = static_cast<char>('0' + (value % 10));
        value /= 10;
    }
}

bool isTimeOfDay(unsigned hour, unsigned minute, unsigned second) {
    return hour < 24 && minute < 60 && second < 60;
}

// How far a clock at the offset is ahead of UTC.
std::optional<seconds> offsetFrom(std::string_view text) {
    if (text == "Z") {
        return seconds{0};
    }
    const bool isBehind = text.starts_with('-');
    if (!(isBehind || text.starts_with('+')) || !hasForm(text.substr(1), offsetForm.substr(1))) {
        return std::nullopt;
    }
    const unsigned hour = number(text.substr(1, 2));
    const unsigned minute = number(text.substr(4, 2));
    if (!isTimeOfDay(hour, minute, 0)) {
        return std::nullopt;
    }
    const seconds offset = hours{hour} + minutes{minute};
    return isBehind ? -offset : offset;
}

}  // namespace

bool append(WallDate date, std::string& text) {
    // Written so that not-a-number is refused too.
    if (!(date >= first && date < last + seconds{1})) {
        return false;
    }
    const auto whole = std::chrono::floor<seconds>(date);
    const auto day = std::chrono::floor<days>(whole);
    const year_month_day ymd{day};
    const hh_mm_ss time{whole - day};
    std::array<char, form.size() + 1> place{};
    form.copy(place.data(), form.size());
    place.back() = 'Z';
    put(static_cast<unsigned>(static_cast<int>(ymd.year())), place.data(), 4);
    put(static_cast<unsigned>(ymd.month()), &place[5], 2);
    put(static_cast<unsigned>(ymd.day()), &place[8], 2);
    put(static_cast<unsigned>(time.hours().count()), &place[11], 2);
    put(static_cast<unsigned>(time.minutes().count()), &place[14], 2);
    put(static_cast<unsigned>(time.seconds().count()), &place[17], 2);
    text.append(place.data(), place.size());
    return true;
}

std::optional<WallDate> parse(std::string_view text) {
    if (text.size() <= form.size() || !hasForm(text.substr(0, form.size()), form)) {
        return std::nullopt;
    }
    const auto offset = offsetFrom(text.substr(form.size()));
    const year_month_day ymd{year{static_cast<int>(number(text.substr(0, 4)))},
                             std::chrono::month{number(text.substr(5, 2))},
                             std::chrono::day{number(text.substr(8, 2))}};
    const unsigned hour = number(text.substr(11, 2));
    const unsigned minute = number(text.substr(14, 2));
    const unsigned second = number(text.substr(17, 2));
    if (!offset || !ymd.ok() || !isTimeOfDay(hour, minute, second)) {
        return std::nullopt;
    }
    const sys_seconds instant =
        sys_days{ymd} + hours{hour} + minutes{minute} + seconds{second} - *offset;
    if (instant < first || instant > last) {
        return std::nullopt;
    }
    return WallDate{instant};
}

}  // namespace halvo::InternetDate
