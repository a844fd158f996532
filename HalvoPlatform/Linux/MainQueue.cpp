#include "HalvoPlatform/MainQueue.hpp"

#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Fatal.hpp"

namespace halvo {
namespace {

// sd-event calls fail with a negative errno: here memory or descriptors ran out before the helper
// has even started.
void require(int result, const char* call) {
    if (result < 0) {
        fatal(std::string(call) + ": " + errorText(-result));
    }
}

// Enqueued work outranks timers, and timers outrank connections: a connection is counted before the
// next tick, and no flood of requests delays a tick. sd_event_source_set_priority(3).
constexpr std::int64_t workPriority = SD_EVENT_PRIORITY_NORMAL - 20;
constexpr std::int64_t timerPriority = SD_EVENT_PRIORITY_NORMAL - 10;

// In microseconds. An accuracy of 0 would stand for sd-event's own choice, 250 ms.
constexpr std::uint64_t noLeeway = 1;

// The default event loop of the main thread (sd_event_default(3)), which sd-bus connections share.
// Never destroyed.
class EventLoopQueue final : public MainQueue {
  public:
    EventLoopQueue() : wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        require(wakeUp_ < 0 ? -errno : 0, "eventfd");
        assumeMainActor();
        require(sd_event_default(&loop_), "sd_event_default");
        sd_event_source* source = nullptr;
        require(sd_event_add_io(loop_, &source, wakeUp_, EPOLLIN, runWork, this),
                "sd_event_add_io");
        require(sd_event_source_set_priority(source, workPriority), "sd_event_source_set_priority");
    }

    void async(Work work) override {
        const std::lock_guard lock(mutex_);
        // Work that is pending has woken the loop already.
        if (waiting_.empty()) {
            eventfd_write(wakeUp_, 1);
        }
        waiting_.push_back(std::move(work));
    }

    void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) override {
        addTimer(CLOCK_MONOTONIC, first, std::max(microseconds(leeway), noLeeway), fire,
                 new Timer{std::move(work), microseconds(interval)});
    }

    void after(Seconds delay, Work work) override {
        addTimer(CLOCK_BOOTTIME, delay, noLeeway, fireOnce, new Work(std::move(work)));
    }

    void onTermination(Work work) override {
        const auto handler = [](sd_event_source*, const signalfd_siginfo*, void* termination) {
            (*static_cast<Work*>(termination))();
            return 0;
        };
        require(sd_event_add_signal(loop_, nullptr, SIGTERM | SD_EVENT_SIGNAL_PROCMASK, handler,
                                    new Work(std::move(work))),
                "sd_event_add_signal");
    }

    [[nodiscard]] Seconds now() const override { return sinceBoot(); }

    void run() override {
        assumeMainActor();
        // Without effect unless systemd has set a watchdog.
        require(sd_event_set_watchdog(loop_, 1), "sd_event_set_watchdog");
        require(sd_event_loop(loop_), "sd_event_loop");
        std::exit(EXIT_SUCCESS);
    }

    void exit(int status) override { std::exit(status); }

  private:
    struct Timer {
        Work work;
        std::uint64_t interval;
    };

    void addTimer(clockid_t clock, Seconds first, std::uint64_t accuracy,
                  sd_event_time_handler_t handler, void* userdata) {
        sd_event_source* source = nullptr;
        require(sd_event_add_time_relative(loop_, &source, clock, microseconds(first), accuracy,
                                           handler, userdata),
                "sd_event_add_time_relative");
        require(sd_event_source_set_priority(source, timerPriority),
                "sd_event_source_set_priority");
    }

    static int fire(sd_event_source* source, std::uint64_t due, void* userdata) {
        auto* timer = static_cast<Timer*>(userdata);
        std::uint64_t now = 0;
        sd_event_now(sd_event_source_get_event(source), CLOCK_MONOTONIC, &now);
        // Keeps to the grid of the interval, and skips the turns that were missed.
        const std::uint64_t turns = ((now - due) / timer->interval) + 1;
        sd_event_source_set_time(source, due + (turns * timer->interval));
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
        timer->work();
        return 0;
    }

    // The loop keeps a source that its own handler gives up until that handler has returned.
    static int fireOnce(sd_event_source* source, std::uint64_t, void* userdata) {
        const std::unique_ptr<Work> once(static_cast<Work*>(userdata));
        sd_event_source_unref(source);
        (*once)();
        return 0;
    }

    static int runWork(sd_event_source*, int descriptor, std::uint32_t, void* userdata) {
        auto* self = static_cast<EventLoopQueue*>(userdata);
        eventfd_t count = 0;
        eventfd_read(descriptor, &count);
        {
            const std::lock_guard lock(self->mutex_);
            self->running_.swap(self->waiting_);
        }
        for (const Work& work : self->running_) {
            work();
        }
        self->running_.clear();
        return 0;
    }

    sd_event* loop_ = nullptr;
    int wakeUp_;
    std::mutex mutex_;
    std::vector<Work> waiting_;
    std::vector<Work> running_;
};

}  // namespace

bool onMainActor() {
    // The initial thread's id is the process's id: gettid(2).
    static thread_local const bool onInitialThread = gettid() == getpid();
    return onInitialThread;
}

MainQueue& liveMainQueue() {
    // Never destroyed: work may still be on the stack when the process exits.
    static EventLoopQueue& queue = *new EventLoopQueue;
    return queue;
}

}  // namespace halvo
