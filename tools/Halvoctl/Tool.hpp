// What the program does, apart from the process that it runs in.
#pragma once

#include <expected>
#include <functional>
#include <span>
#include <string>

#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Outcome.hpp"

namespace halvo::control {

// Why there is no machine to look at: the helper's Info.plist, as a sentence without
// a full stop.
using MachineOr = std::expected<std::reference_wrapper<Machine>, std::string>;

// Does what the words after the program's own name say. `machine` is asked for only when a command
// needs it. `progress` hears what is being waited for. Main thread only. Throws std::bad_alloc
// alone.
Outcome run(std::span<const std::string> words, const std::function<MachineOr()>& machine,
            const GregorianCalendar& calendar, const Progress& progress);

}  // namespace halvo::control
