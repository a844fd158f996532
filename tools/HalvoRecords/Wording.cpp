#include "tools/HalvoRecords/Wording.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "HalvoPlatform/Paths.hpp"

namespace halvo::records {
namespace {

// More than any date of a record, and few enough seconds to count.
constexpr double farthest = 1e12;

// A character of UTF-8, or a byte that is part of none.
struct Character {
    std::string_view bytes;
    char32_t code;
    bool isWhole;
};

Character firstOf(std::string_view text) {
    std::size_t length = 1;
    while (length < std::min<std::size_t>(text.size(), 4) && !isUTF8(text.substr(0, length))) {
        ++length;
    }
    const std::string_view bytes = text.substr(0, length);
    const auto lead = static_cast<unsigned char>(text.front());
    if (!isUTF8(bytes)) {
        return {text.substr(0, 1), lead, false};
    }
    // Before the bits of the code a lead byte has a bit set for each byte, and one that is not.
    unsigned code = lead & 0xFFU >> length;
    for (const char byte : bytes.substr(1)) {
        code = code << 6U | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return {bytes, code, true};
}

// What a terminal, or an editor, obeys instead of showing it. None is past U+FFFF.
bool isObeyed(char32_t code) {
    const auto isIn = [code](char32_t first, char32_t last) {
        return code >= first && code <= last;
    };
    return code < 0x20 || isIn(0x7F, 0x9F) || code == 0x061C || isIn(0x200E, 0x200F) ||
           isIn(0x2028, 0x202E) || isIn(0x2066, 0x2069) || code == 0xFEFF;
}

std::string escape(const Character& character) {
    if (character.code == '\n' || character.code == '\t') {
        return character.code == '\n' ? "\\n" : "\\t";
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), character.isWhole ? "\\u%04x" : "\\x%02x",
                  static_cast<unsigned>(character.code));
    return text.data();
}

// `text` with what is obeyed escaped, the characters of `kept` as they are, and those of `marked`
// behind a backslash.
std::string escaped(std::string_view text, std::string_view kept, std::string_view marked) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = firstOf(text);
        const char lead = text.front();
        text.remove_prefix(character.bytes.size());
        if (!kept.contains(lead) && (!character.isWhole || isObeyed(character.code))) {
            result += escape(character);
            continue;
        }
        if (marked.contains(lead)) {
            result += '\\';
        }
        result += character.bytes;
    }
    return result;
}

std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80; }));
}

// "+01:00", and with seconds where there are any, as before there were time zones.
std::string offsetText(std::int64_t offset) {
    const std::int64_t size = std::abs(offset);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%c%02jd:%02jd", offset < 0 ? '-' : '+',
                  intmax_t{size / 3600}, intmax_t{size / 60 % 60});
    std::string result = text.data();
    if (size % 60 != 0) {
        std::snprintf(text.data(), text.size(), ":%02jd", intmax_t{size % 60});
        result += text.data();
    }
    return result;
}

}  // namespace

std::string printable(std::string_view text) { return escaped(text, "", ""); }

std::string inQuotes(std::string_view text) { return '"' + escaped(text, "", "\"\\") + '"'; }

std::string indented(const std::string& json) {
    const auto value = nlohmann::ordered_json::parse(json);
    return escaped(value.dump(2), "\n", "") + "\n";
}

std::string counted(std::size_t number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string countdown(Seconds span) {
    const bool isCounted = span.count() > 0 && span.count() < farthest;
    const std::int64_t left =
        isCounted ? wholeSeconds(Seconds{std::ceil(span.count())}) : std::int64_t{0};
    std::array<char, 64> text{};
    if (left < 3600) {
        std::snprintf(text.data(), text.size(), "%jd:%02jd", intmax_t{left / 60},
                      intmax_t{left % 60});
    } else {
        std::snprintf(text.data(), text.size(), "%jd:%02jd:%02jd", intmax_t{left / 3600},
                      intmax_t{left / 60 % 60}, intmax_t{left % 60});
    }
    return text.data();
}

std::string zonedDate(WallDate date, const GregorianCalendar& calendar) {
    using std::chrono::days;
    using std::chrono::seconds;
    if (!(std::abs(secondsSince1970(date)) < farthest)) {
        return "an unknown time";
    }
    const std::int64_t offset = wholeSeconds(calendar.offset(date));
    const auto local = std::chrono::floor<seconds>(date) + seconds{offset};
    const auto day = std::chrono::floor<days>(local);
    const std::chrono::year_month_day ymd{day};
    const std::chrono::hh_mm_ss time{local - day};
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d ",
                  static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                  static_cast<unsigned>(ymd.day()), static_cast<int>(time.hours().count()),
                  static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text.data() + offsetText(offset);
}

std::string table(const std::vector<std::vector<std::string>>& rows, std::string_view indent) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], widthOf(row[column]));
        }
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line(indent);
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            line.append(widths[column] - widthOf(row[column]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace halvo::records
