// halvoctl status.
#pragma once

#include <string>

#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {

// What `seen` is, for a person with the calendar's clocks.
std::string statusText(Machine& machine, const Observation& seen,
                       const GregorianCalendar& calendar);

// The same as one JSON object with sorted keys, as `halvoctl status --help` describes it, on lines
// of its own.
std::string statusJSON(Machine& machine, const Observation& seen);

// "ann (uid 1000)", or "uid 1000" when there is no such user.
std::string person(const Machine& machine, std::uint32_t uid);

}  // namespace halvo::control
