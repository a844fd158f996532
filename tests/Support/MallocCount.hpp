// Counts the allocations of the process: those of C++ code, of the C library and of other shared
// libraries. MallocCount.cpp must be among the executable's own sources.
#pragma once

#include <cstddef>

namespace halvo::testing {

// The number of allocations since the process started, including those already freed.
std::size_t mallocsMade();

// The allocation after so many others fails, the next one for 1; those after it do not. Has no
// effect with a sanitizer's allocator.
void failMalloc(std::size_t number);

// The number of bytes that are allocated now.
std::size_t bytesAllocated();

}  // namespace halvo::testing
