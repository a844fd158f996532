// What of the sections of Mach-O images the macOS layer uses, declared from Apple's public
// documentation. For checking without a Mac only: on a Mac the real header is used.
#pragma once

#if __has_include(<Foundation/NSObjCRuntime.h>)
#error "These declarations are for checking without a Mac only, and here are Apple's own"
#endif

#include <stdint.h>

struct mach_header_64;

extern "C" uint8_t* getsectiondata(const struct mach_header_64* image, const char* segment,
                                   const char* section, unsigned long* size);
