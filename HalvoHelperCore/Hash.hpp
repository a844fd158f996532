// Hashing of records by all their members.
#pragma once

#include <cstddef>
#include <functional>

namespace halvo {

// One hash out of the hashes of `members`, in order.
template <class... Members>
std::size_t hashOf(const Members&... members) {
    std::size_t seed = 0;
    // The usual mixing step: a constant without pattern and shifts, so that order matters.
    ((seed ^= std::hash<Members>{}(members) + 0x9e3779b97f4a7c15U + (seed << 6U) + (seed >> 2U)),
     ...);
    return seed;
}

}  // namespace halvo
