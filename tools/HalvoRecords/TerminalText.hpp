// Texts, numbers and dates as the tool prints them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/GregorianCalendar.hpp"

namespace halvo::records {

// `text`, which may come from anywhere, as a part of one line that a terminal shows and does not
// obey: control characters, line separators and what turns the direction of writing become "\n",
// "\t" or "\u" and four digits; bytes that are not UTF-8 "\x" and two.
std::string printable(std::string_view text);

// As printable(), in quotation marks, with a backslash before those and backslashes inside: where
// the text begins and ends is seen.
std::string inQuotes(std::string_view text);

// The one line of JSON `json`, which is valid, indented over several lines. Its texts hold what
// printable() escapes escaped, as JSON does it.
std::string indented(const std::string& json);

// "1 phase", "6 phases". A plural is made with an "s".
std::string counted(std::size_t number, const std::string& noun);

// "10:30", or "1:02:03" from an hour on. Counts the second that has begun; a span that is not
// positive, or is not finite, is "0:00".
std::string countdown(Seconds span);

// "2026-11-20 10:30:00 +01:00": the time on the calendar's clocks, cut to the second, and how far
// they are ahead of UTC; in UTC where the calendar does not reach. A date that no calendar has is
// "an unknown time".
std::string zonedDate(WallDate date, const GregorianCalendar& calendar);

// Lines with the cells of `rows` below each other, two blanks between; no blanks at the end of a
// line. A character counts as one column. The texts stand as they are.
std::string table(const std::vector<std::vector<std::string>>& rows, std::string_view indent);

}  // namespace halvo::records
