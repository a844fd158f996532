// The part of Core Foundation that the macOS layer uses, declared from Apple's public
// documentation. These headers are for checking without a Mac only; a Mac has the real ones.
#pragma once

#if __has_include(<Foundation/NSObjCRuntime.h>)
#error "These declarations are for checking without a Mac only, and here are Apple's own"
#endif

#define CF_CONSUMED __attribute__((cf_consumed))
#define CF_RETURNS_RETAINED __attribute__((cf_returns_retained))

typedef const void* CFTypeRef;
typedef const struct __attribute__((objc_bridge(NSString))) __CFString* CFStringRef;
typedef const struct __attribute__((objc_bridge(NSURL))) __CFURL* CFURLRef;

// From <MacTypes.h>, which Core Foundation includes.
typedef int OSStatus;
