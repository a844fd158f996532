// Dates as text: ISO 8601 in the profile of RFC 3339, to the second.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "HalvoPlatform/Time.hpp"

namespace halvo::RFC3339 {

// Appends `date` in UTC, "2026-11-20T09:30:00Z", rounded down to the second. False, with `text`
// unchanged, for a date that is not finite or outside the years 0 to 9999.
bool append(WallDate date, std::string& text);

// Parses the whole of `text`, in UTC ("Z") or with an offset ("+05:30"). Nothing for anything else:
// fractions of a second, no offset, lower case, an invalid day or time of day (leap seconds too),
// and instants that append() refuses.
std::optional<WallDate> parse(std::string_view text);

}  // namespace halvo::RFC3339
