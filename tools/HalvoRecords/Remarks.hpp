// What reads fine in a record and is suspicious all the same.
#pragma once

#include <string>
#include <vector>

#include "tools/HalvoRecords/RecordFile.hpp"

namespace halvo::records {

// A part of a sentence for each, in the order of the record's members, with the way to the member
// as the messages of the JSON reader give it: "phases[3] starts before phases[2]".
//
// Of a snapshot: phases that are not in the order of their starts, a run or what comes next that
// ends before its phase starts, a horizon before the snapshot was written, and days with one start.
// There is nothing to suspect in a keep-alive state.
std::vector<std::string> remarks(const Record& record);

}  // namespace halvo::records
