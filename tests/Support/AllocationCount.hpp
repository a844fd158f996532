// Whether code allocates. An executable that asks has AllocationCount.cpp among its own sources.
#pragma once

#include <cstddef>

namespace halvo::testing {

// How often memory was allocated so far by C++ code, also by shared libraries and other threads.
std::size_t allocationsMade();

}  // namespace halvo::testing
