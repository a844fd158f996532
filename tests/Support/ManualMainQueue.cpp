#include "tests/Support/ManualMainQueue.hpp"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <utility>

namespace halvo::testing {

void ManualMainQueue::async(Work work) {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(work));
}

void ManualMainQueue::repeat(Seconds first, Seconds interval, Seconds leeway, Work work) {
    requests_.push_back({first, interval, leeway});
    timers_.push_back({now() + first, interval, std::move(work)});
}

void ManualMainQueue::after(Seconds delay, Work work) {
    delays_.push_back(delay);
    const bool isDelay = delay > Seconds{0};  // not-a-number is none
    timers_.push_back({now() + (isDelay ? delay : Seconds{0}), std::nullopt, std::move(work)});
}

void ManualMainQueue::onTermination(Work work) { termination_ = std::move(work); }

void ManualMainQueue::run() {
    served_ = true;
    throw QueueServed{};
}

void ManualMainQueue::exit(int status) { throw ProcessExit{status}; }

void ManualMainQueue::runPending() {
    while (true) {
        std::vector<Work> batch;
        {
            const std::lock_guard lock(mutex_);
            batch.swap(waiting_);
        }
        if (batch.empty()) {
            return;
        }
        for (Work& work : batch) {
            work();
        }
    }
}

// The timer that is due first, of two the one made first; timers_.size() when there is none.
std::size_t ManualMainQueue::nextDue() const {
    const auto first = std::ranges::min_element(timers_, {}, &Timer::due);
    return static_cast<std::size_t>(first - timers_.begin());
}

// The timer keeps to its grid; turns that were missed are not made up for.
void ManualMainQueue::fire(std::size_t index) {
    Timer& timer = timers_[index];
    // A copy: the work may add timers, which moves this one.
    const Work work = timer.work;
    if (timer.interval) {
        const double missed = std::floor((now() - timer.due) / *timer.interval);
        timer.due += *timer.interval * (std::max(missed, 0.0) + 1);
    } else {
        timers_.erase(timers_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    work();
}

void ManualMainQueue::advance(Seconds span) {
    runPending();
    const Seconds end = now() + span;
    for (std::size_t next = nextDue(); next != timers_.size() && timers_[next].due <= end;
         next = nextDue()) {
        clock_.advance(std::max(timers_[next].due - now(), Seconds{0}));
        fire(next);
        runPending();
    }
    clock_.advance(std::max(end - now(), Seconds{0}));
}

void ManualMainQueue::terminate() {
    runPending();
    if (termination_ == nullptr) {
        exit(128 + SIGTERM);
    }
    termination_();
    runPending();
}

}  // namespace halvo::testing
