// halvoctl release: the way out for who has root.
#pragma once

#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/Halvoctl/Arguments.hpp"
#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Outcome.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {

// Stops the helper, takes off the lock that the stored record owes, forgets the record, and lets
// the app call the helper again. The record goes only after the flag was cleared, so that it may be
// interrupted anywhere and be run again. What cannot be done leaves the record, and is told. One at
// a time: it waits for another that runs.
Outcome release(Machine& machine, const Release& command, const GregorianCalendar& calendar,
                const Progress& progress);

}  // namespace halvo::control
