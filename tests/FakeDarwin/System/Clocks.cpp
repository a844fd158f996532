// The clocks of the simulated machine.
#include <time.h>

#include <chrono>

#include "../FakeDarwin.hpp"

extern "C" std::uint64_t clock_gettime_nsec_np(clockid_t) { return fake::world().sinceBoot; }

namespace fake {

using std::chrono::system_clock;

// system_clock::now(), in the place of which the linker puts this (ld(1), --wrap).
system_clock::time_point now() __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

system_clock::time_point now() {
    const std::chrono::duration<double> atBoot(world().bootedAt);
    const std::chrono::nanoseconds sinceBoot(world().sinceBoot);
    return system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(atBoot) +
                                    sinceBoot);
}

}  // namespace fake
