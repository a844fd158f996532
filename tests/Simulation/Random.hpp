// Chance that can be replayed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace halvo::testing {

// The same seed gives the same numbers on every machine and with every library (SplitMix64).
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15U;
        std::uint64_t number = state_;
        number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
        number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
        return number ^ (number >> 31U);
    }

    // One of 0 ..< limit.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next() % limit); }

    bool chance(unsigned percent) { return below(100) < percent; }

    template <class Value>
    const Value& oneOf(std::span<const Value> values) {
        return values[below(values.size())];
    }

  private:
    std::uint64_t state_;
};

}  // namespace halvo::testing
