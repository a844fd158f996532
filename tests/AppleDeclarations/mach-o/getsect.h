// The part of getsect(3) that the macOS layer uses, declared from Apple's documentation.
#pragma once

#include <stdint.h>

struct mach_header_64;

extern "C" uint8_t* getsectiondata(const struct mach_header_64* image, const char* segment,
                                   const char* section, unsigned long* size);
