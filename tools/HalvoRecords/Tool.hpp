// The commands of halvo-records.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "tools/CommandLine.hpp"

namespace halvo::records {

// Runs the command of `words`, the arguments after the program's name, at the date `now`; `input`
// is standard input. Changes nothing. Throws only std::bad_alloc. Any thread, as long as no other
// changes the environment (getenv(3)).
tools::Outcome run(const std::vector<std::string>& words, std::istream& input, WallDate now);

}  // namespace halvo::records
