#include "HalvoPlatform/MainQueue.hpp"

#include <dispatch/dispatch.h>
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace halvo {
namespace {

using Nanoseconds = std::chrono::duration<std::uint64_t, std::nano>;

std::uint64_t nanoseconds(Seconds span) {
    return std::chrono::duration_cast<Nanoseconds>(span).count();
}

// A source that calls `turn` with `context` on the main queue for each event, once it is resumed;
// dispatch_source_create(3).
dispatch_source_t makeSource(dispatch_source_type_t type, std::uintptr_t handle,
                             std::uintptr_t mask, void* context, dispatch_function_t turn) {
    dispatch_source_t source =
        dispatch_source_create(type, handle, mask, dispatch_get_main_queue());
    dispatch_set_context(source, context);
    dispatch_source_set_event_handler_f(source, turn);
    return source;
}

void runOnce(void* work) {
    (*std::unique_ptr<MainQueue::Work>(static_cast<MainQueue::Work*>(work)))();
}

void runAgain(void* work) { (*static_cast<MainQueue::Work*>(work))(); }

// Rounded, so that the sum of a time and a span is reached when that much has passed.
Nanoseconds nanosecondsSinceBoot() { return std::chrono::round<Nanoseconds>(sinceBoot()); }

// A call of after(). Dispatch has no timer on the clock that counts sleep. One on the wall clock
// fires right after a sleep, but too early or too late when that clock is set; one on the clock
// that stops in sleep is never early, and late only after a sleep. So the first of the two counts,
// unless it is too early.
class Alarm {
  public:
    // Owns itself until it has fired.
    // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): it deletes itself.
    static void set(Seconds delay, MainQueue::Work work) {
        const Nanoseconds left{nanoseconds(delay)};
        auto* alarm = new Alarm(nanosecondsSinceBoot() + left, std::move(work));
        alarm->setTimers(left);
        dispatch_resume(alarm->awake_);
        dispatch_resume(alarm->wall_);
    }

    // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

  private:
    Alarm(Nanoseconds due, MainQueue::Work work) : due_(due), work_(std::move(work)) {}

    // Strict, or the system would add a leeway of its own.
    dispatch_source_t makeTimer() {
        return makeSource(DISPATCH_SOURCE_TYPE_TIMER, 0, DISPATCH_TIMER_STRICT, this, ring);
    }

    void setTimers(Nanoseconds left) {
        const auto span = static_cast<std::int64_t>(left.count());
        dispatch_source_set_timer(awake_, dispatch_time(DISPATCH_TIME_NOW, span),
                                  DISPATCH_TIME_FOREVER, 0);
        dispatch_source_set_timer(wall_, dispatch_walltime(nullptr, span), DISPATCH_TIME_FOREVER,
                                  0);
    }

    static void ring(void* context) {
        auto* alarm = static_cast<Alarm*>(context);
        if (const Nanoseconds now = nanosecondsSinceBoot(); now < alarm->due_) {
            alarm->setTimers(alarm->due_ - now);
            return;
        }
        const std::unique_ptr<Alarm> rung(alarm);
        for (dispatch_source_t timer : {rung->awake_, rung->wall_}) {
            dispatch_source_cancel(timer);
            dispatch_release(timer);
        }
        rung->work_();
    }

    Nanoseconds due_;
    MainQueue::Work work_;
    dispatch_source_t awake_ = makeTimer();
    dispatch_source_t wall_ = makeTimer();
};

// The main queue of Dispatch. Sources live as long as the process.
class DispatchQueue final : public MainQueue {
  public:
    DispatchQueue() { assumeMainActor(); }

    void async(Work work) override {
        dispatch_async_f(dispatch_get_main_queue(), new Work(std::move(work)), runOnce);
    }

    void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) override {
        dispatch_source_t timer =
            makeSource(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, new Work(std::move(work)), runAgain);
        // On the clock that stands still while the machine sleeps: dispatch_time(3).
        const auto wait = static_cast<std::int64_t>(nanoseconds(first));
        dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, wait),
                                  nanoseconds(interval), nanoseconds(leeway));
        dispatch_resume(timer);
    }

    void after(Seconds delay, Work work) override { Alarm::set(delay, std::move(work)); }

    void onTermination(Work work) override {
        // A source only observes the signal; its disposition would end the process.
        std::signal(SIGTERM, SIG_IGN);
        dispatch_resume(makeSource(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0,
                                   new Work(std::move(work)), runAgain));
    }

    [[nodiscard]] Seconds now() const override { return sinceBoot(); }

    void run() override {
        assumeMainActor();
        dispatch_main();
    }

    void exit(int status) override { std::exit(status); }
};

}  // namespace

bool onMainActor() {
    // From dispatch_main(3) on any thread may serve the main queue. So the queue has a mark, which
    // only its own work sees; dispatch_get_specific(3).
    static char mark = 0;
    [[maybe_unused]] static const bool marked = [] {
        dispatch_queue_set_specific(dispatch_get_main_queue(), &mark, &mark, nullptr);
        return true;
    }();
    // Until dispatch_main(3) the main queue is the main thread, which runs nothing after it;
    // pthread_main_np(3).
    return dispatch_get_specific(&mark) != nullptr || pthread_main_np() != 0;
}

MainQueue& liveMainQueue() {
    // Never destroyed: work may still be on the stack when the process exits.
    static DispatchQueue& queue = *new DispatchQueue;
    return queue;
}

}  // namespace halvo
