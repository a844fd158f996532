// The part of dyld(3) that the macOS layer uses.
#pragma once

#include <stdint.h>

struct mach_header;

extern "C" const struct mach_header* _dyld_get_image_header(uint32_t index);
