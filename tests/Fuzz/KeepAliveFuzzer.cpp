// Whatever the keep-alive file holds, reading it does not crash, and what is read can be written.

#include "HalvoShared/KeepAliveState.hpp"
#include "tests/Fuzz/Records.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto state = halvo::testing::readForFuzzing<halvo::KeepAliveState>(data, size);
    if (state && state->shouldRelaunch(state->updatedAt) && state->clean) {
        std::abort();
    }
    return 0;
}
