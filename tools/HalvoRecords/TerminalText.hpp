// Texts, numbers and dates as the tools print them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/GregorianCalendar.hpp"

namespace halvo::records {

// `text`, which is not trusted, as a part of one line on a terminal: control characters, line
// separators and bidirectional controls become "\n", "\t" or "\u" with four hexadecimal digits,
// bytes that are not UTF-8 "\x" with two.
std::string printable(std::string_view text);

// As printable(), in quotation marks, with a backslash before quotation marks and backslashes.
std::string inQuotes(std::string_view text);

// `json`, which must be valid, indented over several lines, with what printable() escapes escaped
// as in JSON.
std::string indented(const std::string& json);

// "1 phase", "6 phases": the plural of `noun` has an "s".
std::string counted(std::size_t number, const std::string& noun);

// "10:30", or "1:02:03" from an hour on, rounded up to the second. A span that is not positive or
// not finite is "0:00".
std::string countdown(Seconds span);

// "2026-11-20 10:30:00 +01:00": local time, rounded down to the second, and its offset from UTC;
// UTC outside the calendar's range. A date outside the years 0 to 9999 is "an unknown time".
std::string zonedDate(WallDate date, const GregorianCalendar& calendar);

// The cells of `rows` in aligned columns, two blanks apart, without blanks at the ends of lines.
// Each code point counts as one column. Does not escape.
std::string table(const std::vector<std::vector<std::string>>& rows, std::string_view indent);

}  // namespace halvo::records
