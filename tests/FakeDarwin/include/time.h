// clock_gettime_nsec_np(3).
#pragma once

#include <stdint.h>
#include_next <time.h>

extern "C" uint64_t clock_gettime_nsec_np(clockid_t clock);
