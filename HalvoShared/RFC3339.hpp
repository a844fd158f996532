// Dates as the text that the records hold: ISO 8601 in the profile of RFC 3339, to the second.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "HalvoPlatform/Time.hpp"

namespace halvo::RFC3339 {

// Appends `date` in UTC, "2026-11-20T09:30:00Z", cut to the second that it lies in. Says whether it
// could: not for a date that is not finite or lies outside the years 0 to 9999, and `text` then
// stays as it was.
bool append(WallDate date, std::string& text);

// The date that the whole of `text` gives, in UTC ("Z") or at an offset ("+05:30"). Nothing for
// anything else: fractions of a second, no offset, small letters, a day or an hour that no calendar
// or clock has (leap seconds too), and instants that append() refuses.
std::optional<WallDate> parse(std::string_view text);

}  // namespace halvo::RFC3339
