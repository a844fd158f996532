// fcntl(2) F_FULLFSYNC and fsync(2), which are counted and fail on demand.
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <optional>

#include "../FakeDarwin.hpp"

extern "C" {

int __real_fcntl(int descriptor, int command, ...);
int __real_fsync(int descriptor);

// The linker puts these in the places of the two.
int __wrap_fsync(int descriptor) {
    ++fake::world().syncCalls;
    if (fake::world().syncError) {
        errno = *fake::world().syncError;
        return -1;
    }
    return __real_fsync(descriptor);
}

int __wrap_fcntl(int descriptor, int command, ...) {
    if (command == F_FULLFSYNC) {
        ++fake::world().fullSyncCalls;
        if (fake::world().fullSyncError) {
            errno = *fake::world().fullSyncError;
            return -1;
        }
        return __real_fsync(descriptor);
    }
    // The third argument, where there is one, is an int or a pointer; both arrive whole this way.
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return __real_fcntl(descriptor, command, argument);
}
}
