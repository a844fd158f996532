#include "Threads.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <thread>

extern "C" {
void* objc_autoreleasePoolPush();
void objc_autoreleasePoolPop(void* token);
}

namespace fake {

void runElsewhere(const std::function<void()>& work) {
    std::exception_ptr thrown;
    std::thread thread([&] {
        // As Dispatch's threads do.
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        void* pool = objc_autoreleasePoolPush();
        try {
            work();
        } catch (...) {
            thrown = std::current_exception();
        }
        objc_autoreleasePoolPop(pool);
    });
    thread.join();
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

}  // namespace fake

// pthread_main_np(3): whether this is the process's initial thread; in a child of fork(2) that is
// the one that forked.
extern "C" int pthread_main_np() { return getpid() == gettid() ? 1 : 0; }
