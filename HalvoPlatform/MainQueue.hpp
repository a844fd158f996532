// The serial queue on which everything runs that touches state.
#pragma once

#include <functional>

#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

class MainQueue {
  public:
    using Work = std::function<void()>;

    MainQueue() = default;
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;
    virtual ~MainQueue() = default;

    // Enqueues `work`: it runs later, after all work enqueued before and before the next turn of a
    // timer that is not yet due. Any thread.
    virtual void async(Work work) = 0;

    // Runs `work` first after `first`, then every `interval`, for as long as the process lives. The
    // system may delay each turn by up to `leeway` to wake up less often; turns that were missed
    // while the process could not run are skipped. Main queue or before run().
    virtual void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) = 0;

    // Runs `work` once, when `delay`, from zero to a century, has passed on the clock of now(),
    // without leeway: later only when the queue is busy or the machine sleeps, which no delay ends.
    // Even without a delay the work runs only after this has returned. Main queue or before run().
    virtual void after(Seconds delay, Work work) = 0;

    // Runs `work` on the queue whenever the process receives SIGTERM, which then no longer ends it.
    // Called once. Main queue or before run().
    virtual void onTermination(Work work) = 0;

    // Time on a clock that cannot be set and that counts while the machine sleeps. Only differences
    // are meaningful. Any thread.
    [[nodiscard]] virtual Seconds now() const = 0;

    // Serves the queue until exit() is called. On Linux it keeps the service manager's watchdog
    // alive, where one is set (sd_event_set_watchdog(3)), so that a process that hangs is
    // restarted. Called once, on the main thread.
    [[noreturn]] virtual void run() = 0;

    // Ends the process with `status`.
    [[noreturn]] virtual void exit(int status) = 0;
};

// The process's own main queue, created by the first call, which must be on the main thread.
// Running out of memory or descriptors for an event loop is a fatal error (Fatal.hpp).
MainQueue& liveMainQueue();

// Whether the caller runs on the main queue: on Linux on the process's initial thread; on macOS on
// that until dispatch_main(3), and from then on on the thread by which Dispatch serves the main
// queue. Makes no system call after a thread's first call. Any thread.
bool onMainActor();

// Checks that the caller runs on the main queue, and otherwise ends the process with the fatal
// error "Incorrect actor executor assumption; Expected same executor as MainActor."
inline void assumeMainActor() {
    if (!onMainActor()) {
        fatal("Incorrect actor executor assumption; Expected same executor as MainActor.");
    }
}

}  // namespace halvo
