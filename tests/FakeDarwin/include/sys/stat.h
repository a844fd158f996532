// stat(2) with the flags of BSD, chflags(2).
#pragma once

#include <stdint.h>
#include_next <sys/stat.h>

// A spare member of glibc's struct, which the fake lstat(2) sets (System/Files.cpp).
#define st_flags __glibc_reserved[0]

#define UF_IMMUTABLE 0x00000002
#define SF_IMMUTABLE 0x00020000

extern "C" int lchflags(const char* path, uint32_t flags);
