// The part of Dispatch that the macOS layer uses: the main queue, timer and signal sources, with
// functions instead of blocks. For C++, where its objects are plain pointers (dispatch_object(3)).
#pragma once

#include <stdint.h>
#include <time.h>

// Empty bases, as in Apple's header: a queue or a source converts to dispatch_object_t.
struct dispatch_object_s {};

struct dispatch_queue_s : dispatch_object_s {};

struct dispatch_source_s : dispatch_object_s {};

typedef dispatch_object_s* dispatch_object_t;
typedef dispatch_queue_s* dispatch_queue_t;
typedef dispatch_source_s* dispatch_source_t;
typedef const struct dispatch_source_type_s* dispatch_source_type_t;
typedef void (*dispatch_function_t)(void*);
typedef uint64_t dispatch_time_t;

#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)
#define DISPATCH_TIMER_STRICT 0x1
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)
#define DISPATCH_SOURCE_TYPE_SIGNAL (&_dispatch_source_type_signal)

extern "C" {
extern const struct dispatch_source_type_s _dispatch_source_type_timer;
extern const struct dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_t dispatch_get_main_queue(void);
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_queue_set_specific(dispatch_queue_t queue, const void* key, void* context,
                                 dispatch_function_t destructor);
void* dispatch_get_specific(const void* key);
[[noreturn]] void dispatch_main(void);

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
dispatch_time_t dispatch_walltime(const struct timespec* when, int64_t delta);

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue);
void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler);
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t leeway);
void dispatch_source_cancel(dispatch_source_t source);
void dispatch_set_context(dispatch_object_t object, void* context);
void dispatch_resume(dispatch_object_t object);
void dispatch_release(dispatch_object_t object);
}
