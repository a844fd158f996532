// Names for units that are made at run time.
#pragma once

#include <string>

namespace halvo {

// Eight random hexadecimal digits, which keep one unit's name from another's. Where the system has
// no randomness to give (getrandom(2)) they are the same for the life of the process. Any thread.
std::string randomUnitSuffix();

}  // namespace halvo
