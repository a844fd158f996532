// Whether anything allocates, and how much it keeps: C++ code, the C library and other shared
// libraries. An executable that asks has MallocCount.cpp among its own sources.
#pragma once

#include <cstddef>

namespace halvo::testing {

// How often memory was allocated so far in this process, by whomever, also what was freed at once.
std::size_t mallocsMade();

// How many bytes are allocated at this moment, by whomever.
std::size_t bytesAllocated();

}  // namespace halvo::testing
