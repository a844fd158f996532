// The part of SystemConfiguration that the macOS layer uses, declared from Apple's public
// documentation.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

typedef const struct __SCDynamicStore* SCDynamicStoreRef;

extern "C" CFStringRef _Nullable SCDynamicStoreCopyConsoleUser(
    SCDynamicStoreRef _Nullable store, uid_t* _Nullable uid,
    gid_t* _Nullable gid) CF_RETURNS_RETAINED;
