// The clocks of the simulated machine.
#include <time.h>

#include <chrono>

#include "../FakeDarwin.hpp"
#include "../ObjectiveC/Runtime.hpp"

extern "C" std::uint64_t clock_gettime_nsec_np(clockid_t clock) {
    // The other clocks stand still in sleep, or can be set.
    if (clock != CLOCK_MONOTONIC) {
        fake::objc::fail(
            "clock_gettime_nsec_np() is asked for a clock that does not count through sleep");
    }
    const std::uint64_t time = fake::world().sinceBoot;
    fake::world().sinceBoot += fake::world().readingTakes;
    return time;
}

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
