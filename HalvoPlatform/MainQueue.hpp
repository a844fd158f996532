// The queue on which everything that touches state runs, one piece of work at a time.
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

    // Runs `work` on the queue later, after everything enqueued before it and before the next turn
    // of a timer that is not yet due. Any thread.
    virtual void async(Work work) = 0;

    // Runs `work` first after `first`, then every `interval`, for as long as the process lives. The
    // system may delay each turn by up to `leeway` to wake up less often; turns missed while the
    // process could not run are not made up for. Main queue or before run().
    virtual void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) = 0;

    // Runs `work` once, when `delay`, from zero to a century, has passed on the clock of now(),
    // without leeway: later only when the queue is busy or the machine sleeps, which no delay ends.
    // Even without a delay the work runs only after this has returned. Main queue or before run().
    virtual void after(Seconds delay, Work work) = 0;

    // Runs `work` on the queue whenever the process receives SIGTERM, which no longer ends it by
    // itself. Called once. Main queue or before run().
    virtual void onTermination(Work work) = 0;

    // Time on a clock that nobody can set and that counts while the machine sleeps. Only
    // differences mean anything. Any thread.
    [[nodiscard]] virtual Seconds now() const = 0;

    // Serves the queue until somebody calls exit(). Called once, on the main thread. On Linux the
    // service manager is told regularly that the queue is served, where it wants to know
    // (sd_event_set_watchdog(3)), so that a process that hangs is ended and started anew.
    [[noreturn]] virtual void run() = 0;

    // Ends the process with `status`.
    [[noreturn]] virtual void exit(int status) = 0;
};

// The process's own main queue, made at the first call, which must come from the main thread. A
// system that cannot give an event loop (no memory, no descriptors left) is a fatal error.
MainQueue& liveMainQueue();

// Whether the caller runs on the main queue. Costs no system call after a thread's first question.
// On Linux the main queue is the process's initial thread; on macOS it is that until
// dispatch_main(3), and whichever thread Dispatch has serve it from then on.
bool onMainActor();

// Checks that the caller runs on the main queue, and otherwise ends the process with the fatal
// error "Incorrect actor executor assumption; Expected same executor as MainActor."
inline void assumeMainActor() {
    if (!onMainActor()) {
        fatal("Incorrect actor executor assumption; Expected same executor as MainActor.");
    }
}

}  // namespace halvo
