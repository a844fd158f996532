#include "HalvoPlatform/Fatal.hpp"

#include <cstdio>
#include <cstdlib>

#include "HalvoPlatform/SIGPIPEGuard.hpp"

namespace halvo {

void fatal(std::string_view message) noexcept {
    // What ends the process is SIGABRT, whether or not anybody reads this.
    const SIGPIPEGuard guard;
    std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
    std::abort();
}

}  // namespace halvo
