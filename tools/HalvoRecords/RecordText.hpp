// Records as a person reads them.
#pragma once

#include <string>

#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/HalvoRecords/RecordFile.hpp"

namespace halvo::records {

// What all of these give can be printed to a terminal whatever the record holds.

// Its kind and how much it holds, without a line's end: "a widget snapshot of 1 phase, 2 days, ..."
std::string summary(const Record& record);

// Everything in it, over several lines that are indented; the dates on the clocks of `calendar`.
std::string description(const Record& record, const GregorianCalendar& calendar);

// What the state is and whose, without its times: `block "Deep work"`.
std::string shortText(const WidgetSnapshot::State& state);

}  // namespace halvo::records
