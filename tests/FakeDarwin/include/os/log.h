// The unified log. The compiler checks each format, which must be a literal, as with Apple's
// header. Messages are formatted at once; Apple's log formats them when they are read.
#pragma once

#include <stdint.h>

typedef uint8_t os_log_type_t;

enum : os_log_type_t { OS_LOG_TYPE_DEFAULT = 0x00, OS_LOG_TYPE_ERROR = 0x10 };

// In Objective-C++ an object, in C++ a plain pointer to it.
#ifdef __OBJC__
#include <objc/NSObject.h>
@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log>* os_log_t;
#define FAKE_OS_LOG_RETAINED __attribute__((ns_returns_retained))
#else
typedef struct os_log_s* os_log_t;
#define FAKE_OS_LOG_RETAINED
#endif

extern "C" {
FAKE_OS_LOG_RETAINED os_log_t os_log_create(const char* subsystem, const char* category);
void fakeOSLog(os_log_t log, os_log_type_t type, const char* format, ...)
    __attribute__((format(os_log, 3, 4)));
}

// Only another literal can follow the empty literal.
#define os_log_with_type(log, type, format, ...) fakeOSLog(log, type, "" format, ##__VA_ARGS__)
