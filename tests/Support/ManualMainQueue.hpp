// A main queue that runs when told to, on simulated time.
#pragma once

#include <mutex>
#include <optional>
#include <vector>

#include "HalvoPlatform/MainQueue.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {

// Thrown in the place of the end of the process.
struct ProcessExit {
    int status;
};

// Thrown by run(), which must not return: from here on the test serves the queue.
struct QueueServed {};

// Everything happens on the thread that calls advance(), runPending() or terminate(), in the order
// that the live queue promises; only async() may be called from any thread. Time is that of a
// simulated clock, which advance() moves; it may be moved otherwise too (the machine slept).
class ManualMainQueue final : public MainQueue {
  public:
    // A timer as it was asked for.
    struct TimerRequest {
        Seconds first{};
        Seconds interval{};
        Seconds leeway{};

        bool operator==(const TimerRequest&) const = default;
    };

    explicit ManualMainQueue(SimulatedClock& clock) : clock_(clock) {}

    void async(Work work) override;
    void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) override;
    void after(Seconds delay, Work work) override;
    void onTermination(Work work) override;

    [[nodiscard]] Seconds now() const override { return clock_.now().sinceBoot; }

    [[noreturn]] void run() override;
    [[noreturn]] void exit(int status) override;

    // Lets `span` pass: work that waits runs first, then each timer whenever it is due, and after
    // each turn what that turn enqueued. Every turn is on the dot.
    void advance(Seconds span);

    // Runs the work that waits, also what it enqueues, without letting time pass.
    void runPending();

    // Sends the process SIGTERM. Without a handler that ends it (with the status a shell would
    // give, 143).
    void terminate();

    [[nodiscard]] const std::vector<TimerRequest>& timers() const { return requests_; }

    // Every delay that after() was asked for.
    [[nodiscard]] const std::vector<Seconds>& delays() const { return delays_; }

    [[nodiscard]] bool handlesTermination() const { return termination_ != nullptr; }

    [[nodiscard]] bool isServed() const { return served_; }

  private:
    struct Timer {
        Seconds due;
        // Absent for one that turns once.
        std::optional<Seconds> interval;
        Work work;
    };

    std::size_t nextDue() const;
    void fire(std::size_t index);

    SimulatedClock& clock_;
    std::mutex mutex_;
    std::vector<Work> waiting_;
    std::vector<TimerRequest> requests_;
    std::vector<Seconds> delays_;
    std::vector<Timer> timers_;
    Work termination_;
    bool served_ = false;
};

}  // namespace halvo::testing
