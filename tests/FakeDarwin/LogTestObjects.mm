// The log as Objective-C++ sees it, for LogTest.cpp.
#include <os/log.h>

// The same function, though it returns an object here.
os_log_t sameLog();
void logFromObjectiveC(const char* text);

os_log_t sameLog() {
    @autoreleasepool {
        return os_log_create("app.halvo", "Test");
    }
}

void logFromObjectiveC(const char* text) {
    @autoreleasepool {
        os_log_with_type(sameLog(), OS_LOG_TYPE_ERROR, "from Objective-C: %{public}s", text);
    }
}
