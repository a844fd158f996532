#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::uint64_t second = 1'000 * millisecond;

// What Dispatch was asked for, with the first turn counted from now on.
struct TimerAsked {
    std::uint64_t wait{};
    std::uint64_t interval{};
    std::uint64_t leeway{};
    bool isStrict{};
    bool isWall{};

    bool operator==(const TimerAsked&) const = default;

    friend void PrintTo(const TimerAsked& timer, std::ostream* stream) {
        *stream << "{wait " << timer.wait << ", interval " << timer.interval << ", leeway "
                << timer.leeway << (timer.isStrict ? ", strict" : "")
                << (timer.isWall ? ", wall clock}" : "}");
    }
};

std::vector<TimerAsked> timersAsked() {
    std::vector<TimerAsked> asked;
    for (const fake::Timer& timer : fake::timers()) {
        asked.push_back({timer.first, timer.interval, timer.leeway, timer.isStrict, timer.isWall});
    }
    return asked;
}

// The timers of delayed work.
std::vector<TimerAsked> delayAsked(std::uint64_t wait) {
    return {{wait, DISPATCH_TIME_FOREVER, 0, true, false},
            {wait, DISPATCH_TIME_FOREVER, 0, true, true}};
}

// When turns ran, in nanoseconds since the test's beginning.
using Times = std::vector<std::uint64_t>;

class MainQueueTest : public ::testing::Test {
  protected:
    MainQueueTest() {
        fake::reset();
        // sinceBoot() never goes back within a process: each test begins where the last one ended.
        start = static_cast<std::uint64_t>(std::ceil(sinceBoot().count())) * second;
        fake::world().sinceBoot = start;
    }

    ~MainQueueTest() override { std::signal(SIGTERM, SIG_DFL); }

    // Work that notes its turns.
    MainQueue::Work noted() {
        return [this] {
            EXPECT_TRUE(onMainActor());
            EXPECT_NE(std::this_thread::get_id(), initialThread);
            turns.push_back(fake::world().sinceBoot - start);
        };
    }

    const std::thread::id initialThread = std::this_thread::get_id();
    std::uint64_t start{};
    Times turns;
    MainQueue& queue = liveMainQueue();
};

// In what order work, timers and signals have their turns: tests/Swift/Dispatch/DispatchTest.cpp.
TEST_F(MainQueueTest, RunsWorkOnTheMainQueueWhichIsNotTheInitialThread) {
    queue.async(noted());
    std::thread([this] { queue.async(noted()); }).join();
    fake::serve(0);
    EXPECT_EQ(turns, (Times{0, 0}));
}

TEST_F(MainQueueTest, LetsGoOfWorkThatHasRunWhichMayAskForMore) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> seen = held;
    queue.async([held] { EXPECT_EQ(*held, 1); });
    queue.after(Seconds{1}, [this, held = std::move(held)] {
        EXPECT_EQ(*held, 1);
        queue.after(Seconds{1}, noted());
        EXPECT_EQ(fake::timers().size(), 2U) << "its own are given up";
    });
    fake::serve(0);
    EXPECT_FALSE(seen.expired());
    fake::serve(1);
    EXPECT_TRUE(seen.expired());
    fake::serve(1);
    EXPECT_EQ(turns, Times{2 * second});
    EXPECT_TRUE(fake::timers().empty());
}

TEST_F(MainQueueTest, AsksForTheTimersThatAreWantedAndTurnsThemForAsLongAsTheProcessLives) {
    queue.repeat(Seconds{1}, Seconds{2}, Seconds{0.2}, noted());
    queue.repeat(Seconds{0}, Seconds{0.5}, Seconds{0}, [] {});
    const std::vector<TimerAsked> both{{1 * second, 2 * second, 200 * millisecond, false},
                                       {0, 500 * millisecond, 0, false}};
    EXPECT_EQ(timersAsked(), both);
    fake::serve(0.999);
    EXPECT_EQ(turns, Times{});
    fake::serve(4.5);
    EXPECT_EQ(turns, (Times{1 * second, 3 * second, 5 * second}));
    EXPECT_EQ(timersAsked(), both);
}

TEST_F(MainQueueTest, RunsDelayedWorkOnceAfterItsCallerAndWhenItIsDueToTheNanosecond) {
    for (const std::uint64_t wait : {0UL, 1'523'456'789UL}) {
        turns.clear();
        start = fake::world().sinceBoot;
        queue.after(std::chrono::nanoseconds(wait), noted());
        EXPECT_EQ(turns, Times{});
        EXPECT_EQ(timersAsked(), delayAsked(wait));
        fake::serve(100);
        EXPECT_EQ(turns, Times{wait});
        EXPECT_EQ(timersAsked(), std::vector<TimerAsked>{}) << "a timer that has rung is given up";
    }
}

// By the clock that counts sleep, however the wall clock is set.
TEST_F(MainQueueTest, KeepsADelayThroughSleepWhateverIsDoneToTheWallClock) {
    struct Row {
        // Of the wall clock after a second.
        double jump;
        // From the next second on.
        std::uint64_t sleep;
        // At once after a long sleep.
        std::uint64_t turn;
    };

    for (const auto& [jump, sleep, turn] :
         {Row{0, 8, 10}, Row{0, 3600, 3602}, Row{-3600, 0, 10}, Row{-5, 0, 10}, Row{5, 0, 10},
          Row{3600, 0, 10}, Row{3600, 3600, 3602}}) {
        turns.clear();
        start = fake::world().sinceBoot;
        queue.after(Seconds{10}, noted());
        fake::at(1, [&] { fake::world().bootedAt += jump; });
        fake::at(2, [&] { fake::world().sinceBoot += sleep * second; });
        fake::serve(20);
        EXPECT_EQ(turns, Times{turn * second}) << jump << ' ' << sleep;
        EXPECT_TRUE(fake::timers().empty());
    }
}

// How SIGTERM is disposed of.
bool isIgnored(int signal) {
    struct sigaction action{};
    EXPECT_EQ(sigaction(signal, nullptr, &action), 0);
    return action.sa_handler == SIG_IGN;
}

TEST_F(MainQueueTest, RunsTheTerminationForEverySIGTERM) {
    queue.onTermination(noted());
    fake::at(1, [] { EXPECT_TRUE(fake::raise(SIGTERM)); });
    fake::at(2, [] { EXPECT_TRUE(fake::raise(SIGTERM)); });
    fake::serve(3);
    EXPECT_EQ(turns, (Times{1 * second, 2 * second}));
}

// Or the signal would end the process before the callback runs.
TEST_F(MainQueueTest, HasSIGTERMIgnoredOnceAskedForAndNoOtherSignal) {
    EXPECT_FALSE(isIgnored(SIGTERM));
    EXPECT_FALSE(fake::raise(SIGTERM));
    for (const auto leave : {SIG_DFL, SIG_IGN}) {
        for (const int signal : {SIGINT, SIGHUP, SIGQUIT}) {
            const auto inherited = std::signal(signal, leave);
            queue.onTermination(noted());
            EXPECT_EQ(isIgnored(signal), leave == SIG_IGN) << signal;
            EXPECT_FALSE(fake::raise(signal)) << signal;
            std::signal(signal, inherited);
        }
    }
    ASSERT_TRUE(isIgnored(SIGTERM));
    ASSERT_EQ(std::raise(SIGTERM), 0);
    fake::serve(0);
    EXPECT_EQ(turns, Times{});
}

TEST_F(MainQueueTest, TellsTheTimeSinceBoot) { EXPECT_EQ(queue.now(), sinceBoot()); }

TEST_F(MainQueueTest, ExitsWithTheStatusThatTheTerminationChooses) {
    for (const int status : {75, 0}) {
        const auto result = testing::runInChild([&] {
            queue.onTermination([&] { queue.exit(status); });
            fake::at(1, [] { fake::raise(SIGTERM); });
            fake::endAt(2);
            queue.run();
        });
        EXPECT_EQ(result.status, status) << result.output;
    }
    const auto result = testing::runInChild([this] { queue.exit(78); });
    EXPECT_EQ(result.status, 78) << "before it is served: " << result.output;
}

// --- The main actor: the initial thread, and from dispatch_main(3) on any that serves the queue.

TEST_F(MainQueueTest, IsTheMainActorOnNoOtherThread) {
    EXPECT_TRUE(onMainActor());
    assumeMainActor();
    bool isOther = true;
    std::thread([&] { isOther = onMainActor(); }).join();
    EXPECT_FALSE(isOther);
    isOther = true;
    fake::at(1, [&] { isOther = onMainActor(); });
    fake::at(1, [&] {
        queue.async([this] {
            assumeMainActor();
            noted()();
        });
    });
    fake::endAt(2);
    EXPECT_THROW(queue.run(), fake::Over);
    EXPECT_FALSE(isOther);
    EXPECT_EQ(turns, Times{second});
}

TEST_F(MainQueueTest, EndsTheProcessOnAnyOtherThread) {
    const std::function<void()> uses[] = {
        [] { std::thread(assumeMainActor).join(); },
        [this] { std::thread([this] { queue.run(); }).join(); },
        [] {
            fake::at(1, assumeMainActor);
            dispatch_main();
        },
    };
    for (const auto& use : uses) {
        const auto result = testing::runInChild(use);
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.output,
                  "Fatal error: Incorrect actor executor assumption; Expected same executor as "
                  "MainActor.\n");
    }
}

// In a process that has no queue yet, and has never asked.
TEST(MainQueueDeathTest, IsMadeOnTheMainThreadOnlyAndKnowsItselfInTheMidstOfWork) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(std::thread(liveMainQueue).join(), "Incorrect actor executor assumption");
    const auto body = [] {
        bool isOnMainActor = false;
        dispatch_async_f(dispatch_get_main_queue(), &isOnMainActor,
                         [](void* answer) { *static_cast<bool*>(answer) = onMainActor(); });
        fake::serve(0);
        std::exit(isOnMainActor ? EXIT_SUCCESS : EXIT_FAILURE);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace halvo
