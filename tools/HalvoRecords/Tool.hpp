// The commands of the program, apart from the process that it runs in.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "tools/CommandLine.hpp"

namespace halvo::records {

// Does what `words`, those after the program's own name, ask for at the date `now`; reads `input`
// where they name standard input. Changes nothing. Any thread, as long as no other changes the
// environment (getenv(3)). Throws std::bad_alloc alone.
tools::Outcome run(const std::vector<std::string>& words, std::istream& input, WallDate now);

}  // namespace halvo::records
