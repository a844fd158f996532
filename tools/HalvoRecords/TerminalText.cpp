#include "tools/HalvoRecords/TerminalText.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/RFC3339.hpp"

namespace halvo::records {
namespace {

// Whether a terminal or an editor would interpret the character. None is past U+FFFF.
bool isControl(char32_t code) {
    const auto isIn = [code](char32_t first, char32_t last) {
        return code >= first && code <= last;
    };
    return code < 0x20 || isIn(0x7F, 0x9F) || code == 0x061C || isIn(0x200E, 0x200F) ||
           isIn(0x2028, 0x202E) || isIn(0x2066, 0x2069) || code == 0xFEFF;
}

// The first character of a text and its code point; its first byte, and nothing, where that is not
// UTF-8.
std::pair<std::string_view, std::optional<unsigned>> firstOf(std::string_view text) {
    std::size_t length = 1;
    while (length < 4 && !isUTF8(text.substr(0, length))) {
        ++length;
    }
    const std::string_view character = text.substr(0, length);
    if (!isUTF8(character)) {
        return {text.substr(0, 1), std::nullopt};
    }
    // A lead byte begins with a set bit for each byte, and a clear one.
    unsigned code = static_cast<unsigned char>(text.front()) & (0xFFU >> length);
    for (const char byte : character.substr(1)) {
        code = code << 6U | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return {character, code};
}

// `text` with controls and invalid bytes escaped, except the characters of `kept`, and a backslash
// before those of `marked`.
std::string escaped(std::string_view text, std::string_view kept, std::string_view marked) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto [character, code] = firstOf(text);
        if (kept.contains(character) || (code && !isControl(*code))) {
            result.append(marked.contains(character) ? "\\" : "").append(character);
        } else if (character == "\n" || character == "\t") {
            result += character == "\n" ? "\\n" : "\\t";
        } else {
            std::array<char, 16> escape{};
            std::snprintf(escape.data(), escape.size(), code ? "\\u%04x" : "\\x%02x",
                          code.value_or(static_cast<unsigned char>(text.front())));
            result += escape.data();
        }
        text.remove_prefix(character.size());
    }
    return result;
}

std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80; }));
}

// "+01:00"; with seconds where there are any, as in local mean times.
std::string offsetText(std::int64_t offset) {
    const intmax_t span = std::abs(offset);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%c%02jd:%02jd:%02jd", offset < 0 ? '-' : '+',
                  span / 3600, span / 60 % 60, span % 60);
    return {text.data(), span % 60 == 0 ? std::size_t{6} : std::size_t{9}};
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
    // Longer than the dates of records allow; fits an integer.
    constexpr double longest = 1e12;
    const bool isCounted = span.count() > 0 && span.count() < longest;
    const intmax_t left = isCounted ? wholeSeconds(Seconds{std::ceil(span.count())}) : 0;
    std::array<char, 64> text{};
    if (left < 3600) {
        std::snprintf(text.data(), text.size(), "%jd:%02jd", left / 60, left % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%jd:%02jd:%02jd", left / 3600, left / 60 % 60,
                      left % 60);
    }
    return text.data();
}

std::string zonedDate(WallDate date, const GregorianCalendar& calendar) {
    const Seconds offset = calendar.offset(date);
    std::string text;
    if (!RFC3339::append(date + offset, text)) {
        return "an unknown time";
    }
    text[text.find('T')] = ' ';
    text.back() = ' ';
    return text + offsetText(wholeSeconds(offset));
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
