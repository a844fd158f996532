// Whether code allocates.
#pragma once

#include <cstddef>

namespace halvo::testing {

// How many times memory was allocated so far in this process, by whomever: also by shared
// libraries, and also what was freed at once.
std::size_t allocationsMade();

}  // namespace halvo::testing
