// Dispatch on simulated time: one main queue, timers and signals. dispatch(3) and the pages that it
// names say what is promised here.
#include "Dispatch.hpp"

#include <dispatch/dispatch.h>
#include <pthread.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "../FakeDarwin.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "Threads.hpp"

struct dispatch_source_type_s {
    bool isTimer;
};

extern "C" {
const dispatch_source_type_s _dispatch_source_type_timer{true};
const dispatch_source_type_s _dispatch_source_type_signal{false};
}

namespace fake {
namespace {

// The clock of timers, which stands still while the machine sleeps (dispatch_time(3)); in
// nanoseconds. Whoever moves World::sinceBoot by hand has let the machine sleep.
using Uptime = std::uint64_t;

constexpr Uptime never = DISPATCH_TIME_FOREVER;

// A time of the wall clock is its nanoseconds since 1970, negated: that one may be told from the
// others by its sign.
bool isWallTime(dispatch_time_t time) {
    return time != never && static_cast<std::int64_t>(time) < 0;
}

std::uint64_t wallNanoseconds() {
    constexpr double nanosecondsPerSecond = 1e9;
    return static_cast<std::uint64_t>(world().bootedAt * nanosecondsPerSecond) + world().sinceBoot;
}

constexpr Uptime uptimeAtStart = 500'000'000'000;

// Who owns one has a count of it.
struct Source : dispatch_source_s {
    bool isTimer{};
    std::uintptr_t handle{};
    Timer timer;
    Uptime due = never;
    dispatch_function_t handler = nullptr;
    void* context = nullptr;
    long references = 1;
    bool isResumed = false;
    bool isCancelled = false;
    // Of a signal: however many came since its handler last ran, it runs once for them all.
    bool isPending = false;

    [[nodiscard]] bool isActive() const {
        return isResumed && !isCancelled && handler != nullptr && references > 0;
    }
};

struct Queue : dispatch_queue_s {
    std::map<const void*, void*> specifics;
};

using SourcePointer = std::shared_ptr<Source>;

// What waits on the main queue: a function, or an event of a source.
struct Item {
    dispatch_function_t function = nullptr;
    void* context = nullptr;
    SourcePointer source;

    void run() const {
        if (source == nullptr) {
            function(context);
            return;
        }
        source->isPending = false;
        if (source->isActive()) {
            source->handler(source->context);
        }
    }
};

struct Event {
    Uptime due{};
    std::function<void()> happen;
};

struct State {
    // Guards `waiting` alone; all else is touched by one thread at a time.
    std::mutex mutex;
    std::deque<Item> waiting;
    std::vector<SourcePointer> sources;
    std::vector<Event> events;
    std::optional<Uptime> end;
    Uptime uptime = uptimeAtStart;
    bool isServed = false;
    Queue mainQueue;
    // What a process leaves behind stays where the leak sanitizer sees it: nobody takes down the
    // contexts of sources that live as long as the process.
    std::vector<Item> leftWork;
    std::vector<SourcePointer> leftSources;
};

State& state() {
    static auto& all = *new State;
    return all;
}

// The queue whose work runs on this thread.
thread_local const Queue* currentQueue = nullptr;

void enqueue(Item item) {
    const std::scoped_lock lock(state().mutex);
    state().waiting.push_back(std::move(item));
}

std::optional<Item> takeWaiting() {
    const std::scoped_lock lock(state().mutex);
    if (state().waiting.empty()) {
        return std::nullopt;
    }
    Item first = std::move(state().waiting.front());
    state().waiting.pop_front();
    return first;
}

void moveClock(Uptime to) {
    if (to > state().uptime) {
        world().sinceBoot += to - state().uptime;
        state().uptime = to;
    }
}

Uptime fromNow(double seconds) {
    constexpr double nanosecondsPerSecond = 1e9;
    return state().uptime + static_cast<Uptime>(seconds * nanosecondsPerSecond);
}

std::vector<Event>::iterator nextEvent() {
    return std::ranges::min_element(state().events, {}, &Event::due);
}

// When a timer is due on the clock of timers, if nobody sets the wall clock until then.
Uptime dueOf(const Source& timer) {
    if (!timer.timer.isWall) {
        return timer.due;
    }
    const std::uint64_t wall = wallNanoseconds();
    const std::uint64_t due = -timer.due;
    return state().uptime + (due > wall ? due - wall : 0);
}

SourcePointer nextTimer() {
    SourcePointer next;
    for (const SourcePointer& source : state().sources) {
        if (source->isActive() && dueOf(*source) < (next ? dueOf(*next) : never)) {
            next = source;
        }
    }
    return next;
}

// Turns that were missed are not made up for.
void fire(const SourcePointer& source) {
    const std::uint64_t interval = source->timer.interval;
    if (interval == 0 || interval == never) {
        source->due = never;
        source->timer.isWall = false;
    } else {
        source->due += interval * ((state().uptime - source->due) / interval + 1);
    }
    enqueue({.source = source});
}

// Brings about what comes next and is due by `last`: an event of the script, and before any timer
// of the same instant. False when there is nothing.
bool passTime(Uptime last) {
    const auto event = nextEvent();
    const Uptime eventDue = event == state().events.end() ? never : event->due;
    const SourcePointer timer = nextTimer();
    const Uptime timerDue = timer ? dueOf(*timer) : never;
    if (std::min(eventDue, timerDue) > last || std::min(eventDue, timerDue) == never) {
        return false;
    }
    moveClock(std::min(eventDue, timerDue));
    if (eventDue <= timerDue) {
        const auto happen = std::move(event->happen);
        state().events.erase(event);
        runElsewhere(happen);
    } else {
        fire(timer);
    }
    return true;
}

// Runs what waits, also what that enqueues; then time passes to the next thing that is due by what
// `last` says, which the script may change.
void serveUntil(const std::function<Uptime()>& last) {
    if (state().isServed) {
        objc::fail("the main queue is served already");
    }
    state().isServed = true;

    struct Guard {
        ~Guard() { state().isServed = false; }
    } const guard;

    runElsewhere([&] {
        currentQueue = &state().mainQueue;
        bool more = true;
        while (more) {
            if (const auto item = takeWaiting()) {
                item->run();
            } else {
                more = passTime(last());
            }
        }
    });
}

// Without an end the script is over with its last event.
Uptime endOfScript() {
    if (state().end) {
        return *state().end;
    }
    return state().events.empty() ? 0 : never;
}

SourcePointer sourceOf(dispatch_object_t object) {
    const auto& sources = state().sources;
    const auto found = std::ranges::find_if(
        sources, [&](const SourcePointer& each) { return each.get() == object; });
    if (found == sources.end()) {
        objc::fail("a Dispatch object is used that is none, or was released");
    }
    return *found;
}

}  // namespace

void resetDispatch() {
    State& all = state();
    const std::scoped_lock lock(all.mutex);
    all.leftWork.insert(all.leftWork.end(), all.waiting.begin(), all.waiting.end());
    all.leftSources.insert(all.leftSources.end(), all.sources.begin(), all.sources.end());
    all.waiting.clear();
    all.sources.clear();
    all.events.clear();
    all.end.reset();
    all.uptime = uptimeAtStart;
    // The main queue itself stays, with its marks: who set one keeps that in a static variable.
}

void at(double seconds, std::function<void()> event) {
    state().events.push_back({fromNow(seconds), std::move(event)});
}

void endAt(double seconds) { state().end = fromNow(seconds); }

void serve(double seconds) {
    const Uptime last = fromNow(seconds);
    serveUntil([=] { return last; });
    moveClock(last);
}

bool raise(int signal) {
    bool isWatched = false;
    for (const SourcePointer& source : state().sources) {
        if (!source->isTimer && source->handle == static_cast<std::uintptr_t>(signal) &&
            source->isActive()) {
            if (!std::exchange(source->isPending, true)) {
                enqueue({.source = source});
            }
            isWatched = true;
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

dispatch_queue_t dispatch_get_main_queue() { return &state().mainQueue; }

void dispatch_async_f(dispatch_queue_t, void* context, dispatch_function_t work) {
    enqueue({work, context, nullptr});
}

void dispatch_queue_set_specific(dispatch_queue_t queue, const void* key, void* context,
                                 dispatch_function_t) {
    static_cast<Queue*>(queue)->specifics[key] = context;
}

// Of the main thread before dispatch_main() nothing is promised: here it is on no queue.
void* dispatch_get_specific(const void* key) {
    const Queue* queue = currentQueue;
    if (queue == nullptr) {
        return nullptr;
    }
    const auto found = queue->specifics.find(key);
    return found == queue->specifics.end() ? nullptr : found->second;
}

void dispatch_main() {
    if (pthread_main_np() == 0) {
        objc::fail("dispatch_main() is called on a thread that is not the main thread");
    }
    serveUntil(endOfScript);
    if (state().end) {
        moveClock(*state().end);
    }
    throw Over{};
}

dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta) {
    if (when == DISPATCH_TIME_FOREVER) {
        return when;
    }
    const Uptime from = when == DISPATCH_TIME_NOW ? state().uptime : when;
    if (delta < 0) {
        const Uptime back = -static_cast<Uptime>(delta);
        return back < from ? from - back : 1;
    }
    const Uptime time = from + static_cast<Uptime>(delta);
    // A time of this clock has 63 bits.
    return time > static_cast<Uptime>(std::numeric_limits<std::int64_t>::max()) ? never : time;
}

// Only from now on, and forward.
dispatch_time_t dispatch_walltime(const timespec* when, std::int64_t delta) {
    if (when != nullptr || delta < 0) {
        objc::fail("dispatch_walltime() stands in for times to come only");
    }
    return -(wallNanoseconds() + static_cast<std::uint64_t>(delta));
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
    const SourcePointer source = sourceOf(timer);
    const Uptime due = start == DISPATCH_TIME_NOW ? state().uptime : start;
    source->due = due;
    source->timer.isWall = isWallTime(due);
    const Uptime first = dueOf(*source);
    source->timer.first = due == never ? never : first - std::min(first, state().uptime);
    source->timer.interval = interval;
    source->timer.leeway = leeway;
}

void dispatch_source_cancel(dispatch_source_t source) { sourceOf(source)->isCancelled = true; }

void dispatch_set_context(dispatch_object_t object, void* context) {
    sourceOf(object)->context = context;
}

// Too many of these end the process, as they do in Dispatch.
void dispatch_resume(dispatch_object_t object) {
    const SourcePointer source = sourceOf(object);
    if (source->isResumed) {
        objc::fail("a source is resumed that is not suspended");
    }
    source->isResumed = true;
}

void dispatch_retain(dispatch_object_t object) { ++sourceOf(object)->references; }

void dispatch_release(dispatch_object_t object) {
    const SourcePointer source = sourceOf(object);
    if (--source->references > 0) {
        return;
    }
    if (!source->isResumed) {
        objc::fail("a suspended source is released");
    }
    std::erase(state().sources, source);
}
}
