// The part of the unified log that the macOS layer uses, declared from Apple's public documentation
// and the compiler's built-in support (__builtin_os_log_format).
#pragma once

#include <os/object.h>
#include <stdbool.h>
#include <stdint.h>

__BEGIN_DECLS

#if OS_OBJECT_USE_OBJC
OS_OBJECT_DECL(os_log);
#else
typedef struct os_log_s* os_log_t;
#endif

typedef uint8_t os_log_type_t;

enum { OS_LOG_TYPE_DEFAULT = 0x00, OS_LOG_TYPE_ERROR = 0x10 };

extern void* __dso_handle;

OS_OBJECT_RETURNS_RETAINED os_log_t os_log_create(const char* subsystem, const char* category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);
void _os_log_impl(void* dso, os_log_t log, os_log_type_t type, const char* format,
                  uint8_t* arguments, uint32_t size);

__END_DECLS

// The compiler checks `format`, which must be a literal, against the arguments, and encodes these
// for the log.
#define os_log_with_type(log, type, format, ...)                                              \
    __extension__({                                                                           \
        os_log_t os_log_target = (log);                                                       \
        const os_log_type_t os_log_level = (type);                                            \
        if (os_log_type_enabled(os_log_target, os_log_level)) {                               \
            static const char os_log_text[]                                                   \
                __attribute__((section("__TEXT,__oslogstring,cstring_literals"))) = format;   \
            __attribute__((aligned(16))) uint8_t                                              \
                os_log_arguments[__builtin_os_log_format_buffer_size(format, ##__VA_ARGS__)]; \
            __builtin_os_log_format(os_log_arguments, format, ##__VA_ARGS__);                 \
            _os_log_impl(&__dso_handle, os_log_target, os_log_level, os_log_text,             \
                         os_log_arguments, (uint32_t)sizeof os_log_arguments);                \
        }                                                                                     \
    })
