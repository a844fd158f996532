// Dispatch on simulated time: the main queue, timer and signal sources, as in dispatch(3) and the
// pages that it refers to.
#include <dispatch/dispatch.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "../FakeDarwin.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "../Parts.hpp"

struct dispatch_source_type_s {
    bool isTimer;
};

extern "C" {
const dispatch_source_type_s _dispatch_source_type_timer{true};
const dispatch_source_type_s _dispatch_source_type_signal{false};
}

namespace fake {
namespace {

// The clock of timers, which stops during sleep (dispatch_time(3)), in nanoseconds. A test
// simulates sleep by moving World::sinceBoot.
using Uptime = std::uint64_t;

constexpr Uptime never = DISPATCH_TIME_FOREVER;
constexpr double nanosecondsPerSecond = 1e9;

struct Source : dispatch_source_s {
    bool isTimer{};
    std::uintptr_t handle{};
    Timer timer;
    // On the wall clock: the nanoseconds since 1970, negated, as dispatch_walltime(3) encodes them.
    dispatch_time_t due = never;
    dispatch_function_t handler = nullptr;
    void* context = nullptr;
    bool isResumed = false;
    bool isCancelled = false;
    // Signals that arrive before the handler runs are coalesced.
    bool isPending = false;

    [[nodiscard]] bool isActive() const { return isResumed && !isCancelled && handler != nullptr; }
};

using SourcePointer = std::shared_ptr<Source>;
using Work = std::function<void()>;

struct State {
    std::deque<Work> waiting;
    std::vector<SourcePointer> sources;
    // The test's script.
    std::multimap<Uptime, Work> events;
    std::optional<Uptime> end;
    Uptime uptime = 500'000'000'000;
};

State& state() {
    static auto& all = *new State;
    return all;
}

dispatch_queue_s mainQueue;

// Values of dispatch_queue_set_specific(3). Never reset: the product sets them once per process.
std::map<const void*, void*>& marks() {
    static auto& all = *new std::map<const void*, void*>;
    return all;
}

// This thread runs the main queue.
thread_local bool isOnMainQueue = false;

void enqueue(const SourcePointer& source) {
    state().waiting.emplace_back([source] {
        source->isPending = false;
        if (source->isActive()) {
            source->handler(source->context);
        }
    });
}

void moveClock(Uptime to) {
    if (to > state().uptime) {
        world().sinceBoot += to - state().uptime;
        state().uptime = to;
    }
}

Uptime fromNow(double seconds) {
    return state().uptime + static_cast<Uptime>(seconds * nanosecondsPerSecond);
}

std::uint64_t wallNanoseconds() {
    return static_cast<std::uint64_t>(world().bootedAt * nanosecondsPerSecond) + world().sinceBoot;
}

std::uint64_t later(std::uint64_t now, std::int64_t delta) {
    const std::uint64_t time = now + static_cast<std::uint64_t>(delta);
    if (delta < 0 || static_cast<std::int64_t>(time) < 0) {
        objc::fail("a dispatch_time_t in the past, or out of range");
    }
    return time;
}

// When a timer is due on the clock of timers, provided the wall clock is not set before.
Uptime dueOf(const SourcePointer& source) {
    if (!source->isActive() || !source->timer.isWall) {
        return source->isActive() ? source->due : never;
    }
    const std::uint64_t wall = wallNanoseconds();
    return state().uptime + (-source->due > wall ? -source->due - wall : 0);
}

// Missed expirations are skipped.
void fire(const SourcePointer& source) {
    const std::uint64_t interval = source->timer.interval;
    source->due = interval == never
                      ? never
                      : source->due + interval * ((state().uptime - source->due) / interval + 1);
    source->timer.isWall = false;
    enqueue(source);
}

// Advances time to the next event of the script or the next timers that are due by `last`, events
// first. False when there is none.
bool passTime(Uptime last) {
    const auto event = state().events.begin();
    const Uptime eventDue = event == state().events.end() ? never : event->first;
    const auto nextTimer = [] { return std::ranges::min_element(state().sources, {}, dueOf); };
    auto timer = nextTimer();
    const Uptime timerDue = timer == state().sources.end() ? never : dueOf(*timer);
    if (std::min(eventDue, timerDue) > last || std::min(eventDue, timerDue) == never) {
        return false;
    }
    moveClock(std::min(eventDue, timerDue));
    if (eventDue <= timerDue) {
        runElsewhere(state().events.extract(event).mapped());
    } else {
        // All that are due, before any turn of them.
        for (; dueOf(*timer) <= state().uptime; timer = nextTimer()) {
            fire(*timer);
        }
    }
    return true;
}

// Runs the pending work, also what that enqueues, then advances time to the next event, until there
// is none by `last`, which the script may change.
void serveUntil(const std::function<Uptime()>& last) {
    runElsewhere([&] {
        isOnMainQueue = true;
        do {
            while (!state().waiting.empty()) {
                const Work first = std::move(state().waiting.front());
                state().waiting.pop_front();
                first();
            }
        } while (passTime(last()));
    });
}

SourcePointer& sourceOf(dispatch_object_t object) {
    for (SourcePointer& each : state().sources) {
        if (each.get() == object) {
            return each;
        }
    }
    objc::fail("a Dispatch object is used that is invalid or was released");
}

}  // namespace

void runElsewhere(const std::function<void()>& work) {
    std::exception_ptr thrown;
    std::thread([&] {
        // As Dispatch's worker threads do.
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
    }).join();
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

void resetDispatch() {
    // Kept reachable for LeakSanitizer: the contexts of sources that live as long as the process
    // are never freed.
    static auto& left = *new std::vector<State>;
    state().events.clear();
    left.push_back(std::exchange(state(), State()));
}

void at(double seconds, std::function<void()> event) {
    state().events.emplace(fromNow(seconds), std::move(event));
}

void endAt(double seconds) { state().end = fromNow(seconds); }

void serve(double seconds) {
    const Uptime last = fromNow(seconds);
    serveUntil([=] { return last; });
    moveClock(last);
}

void keepBusy(double seconds) { moveClock(fromNow(seconds)); }

bool raise(int signal) {
    bool isWatched = false;
    for (const SourcePointer& source : state().sources) {
        if (!source->isTimer && source->handle == static_cast<std::uintptr_t>(signal) &&
            source->isActive()) {
            isWatched = true;
            if (!std::exchange(source->isPending, true)) {
                enqueue(source);
            }
        }
    }
    return isWatched;
}

std::vector<Timer> timers() {
    std::vector<Timer> all;
    for (const SourcePointer& source : state().sources) {
        if (source->isTimer) {
            all.push_back(source->timer);
        }
    }
    return all;
}

}  // namespace fake

using namespace fake;

extern "C" {

// Whether this is the initial thread; in a child of fork(2), the thread that forked.
int pthread_main_np() { return getpid() == gettid() ? 1 : 0; }

dispatch_queue_t dispatch_get_main_queue() { return &mainQueue; }

void dispatch_async_f(dispatch_queue_t, void* context, dispatch_function_t work) {
    state().waiting.emplace_back([=] { work(context); });
}

void dispatch_queue_set_specific(dispatch_queue_t, const void* key, void* context,
                                 dispatch_function_t) {
    marks()[key] = context;
}

// Before dispatch_main() the main thread is on no queue here; Dispatch specifies nothing.
void* dispatch_get_specific(const void* key) {
    const auto found = marks().find(key);
    return isOnMainQueue && found != marks().end() ? found->second : nullptr;
}

void dispatch_main() {
    // Without endAt() the script ends with its last event.
    serveUntil([] { return state().end.value_or(state().events.empty() ? 0 : never); });
    moveClock(state().end.value_or(0));
    throw Over{};
}

// Only for times in the future, of 63 bits.
dispatch_time_t dispatch_time(dispatch_time_t, std::int64_t delta) {
    return later(state().uptime, delta);
}

dispatch_time_t dispatch_walltime(const timespec*, std::int64_t delta) {
    return -later(wallNanoseconds(), delta);
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, std::uintptr_t handle,
                                         std::uintptr_t mask, dispatch_queue_t) {
    auto source = std::make_shared<Source>();
    source->isTimer = type->isTimer;
    source->handle = handle;
    source->timer.isStrict = type->isTimer && (mask & DISPATCH_TIMER_STRICT) != 0;
    state().sources.push_back(source);
    return source.get();
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
    sourceOf(source)->handler = handler;
}

void dispatch_source_set_timer(dispatch_source_t timer, dispatch_time_t start,
                               std::uint64_t interval, std::uint64_t leeway) {
    const bool isWall = static_cast<std::int64_t>(start) < 0;
    const std::uint64_t first = isWall ? -start - wallNanoseconds() : start - state().uptime;
    const SourcePointer& source = sourceOf(timer);
    source->due = start;
    source->timer = {first, interval, leeway, source->timer.isStrict, isWall};
}

void dispatch_source_cancel(dispatch_source_t source) { sourceOf(source)->isCancelled = true; }

void dispatch_set_context(dispatch_object_t object, void* context) {
    sourceOf(object)->context = context;
}

// Resuming too often aborts, as in Dispatch.
void dispatch_resume(dispatch_object_t object) {
    if (std::exchange(sourceOf(object)->isResumed, true)) {
        objc::fail("a source is resumed that is not suspended");
    }
}

void dispatch_release(dispatch_object_t object) {
    const SourcePointer source = sourceOf(object);
    if (!source->isResumed) {
        objc::fail("a suspended source is released");
    }
    std::erase(state().sources, source);
}
}
