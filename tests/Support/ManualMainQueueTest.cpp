#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "tests/Support/ManualMainQueue.hpp"

namespace halvo::testing {
namespace {

class ManualMainQueueTest : public ::testing::Test {
  protected:
    // Notes when `name` runs: "a2" for a, two seconds after the start.
    MainQueue::Work note(const char* name) {
        return [this, name] {
            order += name + std::to_string(static_cast<int>((queue.now() - start).count()));
        };
    }

    CallLog calls;
    SimulatedClock clock{calls};
    ManualMainQueue queue{clock};
    Seconds start = queue.now();
    std::string order;
};

TEST_F(ManualMainQueueTest, RunsWorkWhenToldToInOrder) {
    queue.async(note("a"));
    queue.async(note("b"));
    EXPECT_EQ(order, "");
    queue.runPending();
    EXPECT_EQ(order, "a0b0");
}

TEST_F(ManualMainQueueTest, RunsWorkOfWorkAfterWhatWaited) {
    queue.async([this] { queue.async(note("c")); });
    queue.async(note("b"));
    queue.runPending();
    EXPECT_EQ(order, "b0c0");
}

TEST_F(ManualMainQueueTest, TurnsTimersOnTheirGrid) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0.2}, note("a"));
    queue.repeat(Seconds{3}, Seconds{3}, Seconds{0}, note("b"));
    queue.advance(Seconds{7});
    EXPECT_EQ(order, "a2b3a4a6b6");
    EXPECT_EQ(queue.now() - start, Seconds{7});
    EXPECT_EQ(queue.timers(),
              (std::vector<ManualMainQueue::TimerRequest>{{Seconds{2}, Seconds{2}, Seconds{0.2}},
                                                          {Seconds{3}, Seconds{3}, Seconds{0}}}));
}

TEST_F(ManualMainQueueTest, RunsWorkBeforeTimersAndBetweenTheirTurns) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, [this] {
        note("t")();
        queue.async(note("w"));
    });
    queue.async(note("a"));
    queue.advance(Seconds{4});
    EXPECT_EQ(order, "a0t2w2t4w4");
}

TEST_F(ManualMainQueueTest, MakesUpForNoTurnThatWasMissed) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, note("a"));
    clock.advance(Seconds{7});
    queue.advance(Seconds{0});
    EXPECT_EQ(order, "a7");
    queue.advance(Seconds{3});
    EXPECT_EQ(order, "a7a8a10");
}

TEST_F(ManualMainQueueTest, LetsATimerMakeTimers) {
    queue.repeat(Seconds{2}, Seconds{100}, Seconds{0},
                 [this] { queue.repeat(Seconds{1}, Seconds{1}, Seconds{0}, note("b")); });
    queue.advance(Seconds{4});
    EXPECT_EQ(order, "b3b4");
}

TEST_F(ManualMainQueueTest, RunsDelayedWorkOnceWhenItIsDue) {
    queue.after(Seconds{3}, note("b"));
    queue.after(Seconds{1}, note("a"));
    EXPECT_EQ(order, "");
    queue.advance(Seconds{0.5});
    EXPECT_EQ(order, "");
    queue.advance(Seconds{10});
    EXPECT_EQ(order, "a1b3");
    EXPECT_EQ(queue.delays(), (std::vector<Seconds>{Seconds{3}, Seconds{1}}));
}

TEST_F(ManualMainQueueTest, RunsDelayedWorkBetweenTheTurnsOfTimers) {
    queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, note("t"));
    queue.after(Seconds{3}, [this] {
        note("a")();
        queue.async(note("w"));
        queue.after(Seconds{2}, note("b"));
    });
    queue.advance(Seconds{6});
    EXPECT_EQ(order, "t2a3w3t4b5t6");
}

TEST_F(ManualMainQueueTest, RunsWorkWithoutADelayLaterButAtOnce) {
    queue.after(Seconds{0}, note("a"));
    queue.after(Seconds{-5}, note("b"));
    queue.after(Seconds{std::nan("")}, note("c"));
    EXPECT_EQ(order, "");
    queue.advance(Seconds{0});
    EXPECT_EQ(order, "a0b0c0");
}

TEST_F(ManualMainQueueTest, TakesWorkFromThreads) {
    std::thread([this] { queue.async(note("a")); }).join();
    queue.runPending();
    EXPECT_EQ(order, "a0");
}

TEST_F(ManualMainQueueTest, DeliversSIGTERM) {
    EXPECT_FALSE(queue.handlesTermination());
    queue.onTermination([this] { queue.exit(75); });
    EXPECT_TRUE(queue.handlesTermination());
    queue.async(note("a"));
    try {
        queue.terminate();
        FAIL() << "did not exit";
    } catch (const ProcessExit& exit) {
        EXPECT_EQ(exit.status, 75);
    }
    EXPECT_EQ(order, "a0");
}

TEST_F(ManualMainQueueTest, DiesOfSIGTERMWithoutAHandler) {
    try {
        queue.terminate();
        FAIL() << "did not exit";
    } catch (const ProcessExit& exit) {
        EXPECT_EQ(exit.status, 143);
    }
}

TEST_F(ManualMainQueueTest, NeverReturnsFromServing) {
    EXPECT_FALSE(queue.isServed());
    EXPECT_THROW(queue.run(), QueueServed);
    EXPECT_TRUE(queue.isServed());
}

}  // namespace
}  // namespace halvo::testing
