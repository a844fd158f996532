// What of SystemConfiguration the macOS layer uses, declared from Apple's public documentation. For
// checking without a Mac only: on a Mac the real headers are used.
#pragma once

#if __has_include(<Foundation/NSObjCRuntime.h>)
#error "These declarations are for checking without a Mac only, and here are Apple's own"
#endif

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

typedef const struct __SCDynamicStore* SCDynamicStoreRef;

#ifdef __cplusplus
extern "C" {
#endif

CFStringRef _Nullable SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef _Nullable store,
                                                    uid_t* _Nullable uid,
                                                    gid_t* _Nullable gid) CF_RETURNS_RETAINED;

#ifdef __cplusplus
}
#endif
