// Deep links as a person, or a script, reads them.
#pragma once

#include <string>

#include "HalvoShared/HalvoLink.hpp"

namespace halvo::records {

// Where the link leads, without a line's end: "breathe, style box, 5 minutes". A style that is more
// than one plain word stands in quotation marks. Can be printed to a terminal.
std::string description(const HalvoLink& link);

// The same as an object on one line, without its end: {"screen":"breathe","style":"box"}. What the
// link does not give is left out. Can be printed to a terminal.
std::string asJSON(const HalvoLink& link);

}  // namespace halvo::records
