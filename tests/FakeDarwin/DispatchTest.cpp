#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "FakeDarwin.hpp"

namespace {

using Work = std::function<void()>;

void call(void* work) { (*static_cast<Work*>(work))(); }

constexpr auto later = static_cast<std::int64_t>(NSEC_PER_SEC);

class DispatchTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    void TearDown() override { fake::reset(); }

    // Work of the test's own, which it outlives.
    void async(Work& work) { dispatch_async_f(dispatch_get_main_queue(), &work, call); }

    dispatch_source_t timer(Work& work, std::int64_t first, std::uint64_t interval) {
        dispatch_source_t source =
            dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, dispatch_get_main_queue());
        dispatch_set_context(source, &work);
        dispatch_source_set_event_handler_f(source, call);
        dispatch_source_set_timer(source, dispatch_time(DISPATCH_TIME_NOW, first), interval, 0);
        dispatch_resume(source);
        return source;
    }

    // Adds to `order` what happens, and when: "a1.5 ".
    Work note(char what) {
        return [this, what, start = fake::world().sinceBoot] {
            order += what;
            order += std::to_string((fake::world().sinceBoot - start) / 100'000'000) + ' ';
        };
    }

    std::string order;
};

TEST_F(DispatchTest, RunsWorkInItsOrderOnAnotherThread) {
    const auto caller = std::this_thread::get_id();
    Work last = note('c');
    Work first = [&] {
        order += 'a';
        EXPECT_NE(std::this_thread::get_id(), caller);
        EXPECT_EQ(pthread_main_np(), 0);
        async(last);
    };
    Work second = note('b');
    async(first);
    async(second);
    EXPECT_EQ(order, "");
    fake::serve(0);
    EXPECT_EQ(order, "ab0 c0 ");
    EXPECT_EQ(pthread_main_np(), 1);
}

TEST_F(DispatchTest, TurnsTimersWhenTheyAreDue) {
    Work slow = note('s');
    Work quick = note('q');
    timer(slow, 2 * later, 2 * NSEC_PER_SEC);
    timer(quick, later / 2, NSEC_PER_SEC);
    fake::serve(4);
    EXPECT_EQ(order, "q5 q15 s20 q25 q35 s40 ");
    fake::serve(0.5);
    EXPECT_EQ(order, "q5 q15 s20 q25 q35 s40 q45 ");
}

TEST_F(DispatchTest, TurnsNoTimerThatIsSuspendedOrCancelled) {
    Work work = note('a');
    dispatch_source_t cancelled = timer(work, later, NSEC_PER_SEC);
    fake::serve(1.5);
    dispatch_source_cancel(cancelled);
    dispatch_source_t suspended =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, dispatch_get_main_queue());
    dispatch_set_context(suspended, &work);
    dispatch_source_set_event_handler_f(suspended, call);
    dispatch_source_set_timer(suspended, dispatch_time(DISPATCH_TIME_NOW, later), NSEC_PER_SEC, 0);
    fake::serve(5);
    EXPECT_EQ(order, "a10 ");
}

TEST_F(DispatchTest, LosesWhatATimerCancelledHasAlreadyEnqueued) {
    dispatch_source_t victim = nullptr;
    Work never = note('v');
    Work cancel = [&] { dispatch_source_cancel(victim); };
    timer(cancel, later, DISPATCH_TIME_FOREVER);
    victim = timer(never, later, DISPATCH_TIME_FOREVER);
    fake::serve(2);
    EXPECT_EQ(order, "");
}

TEST_F(DispatchTest, ForgetsASourceThatIsReleased) {
    dispatch_source_t source = nullptr;
    Work work = [&] {
        order += 'a';
        dispatch_source_cancel(source);
        dispatch_release(source);
    };
    source = timer(work, later, NSEC_PER_SEC);
    EXPECT_EQ(fake::timers().size(), 1U);
    fake::serve(5);
    EXPECT_EQ(order, "a");
    EXPECT_TRUE(fake::timers().empty());
    EXPECT_DEATH(dispatch_source_cancel(source), "was released");
}

TEST_F(DispatchTest, RefusesToReleaseASuspendedSourceAndToResumeTwice) {
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, dispatch_get_main_queue());
    EXPECT_DEATH(dispatch_release(source), "a suspended source is released");
    dispatch_resume(source);
    EXPECT_DEATH(dispatch_resume(source), "is resumed that is not suspended");
}

TEST_F(DispatchTest, HoldsTimesWithinItsRange) {
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, 1), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, INT64_MAX), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(10, 5), 15U);
    EXPECT_EQ(dispatch_time(10, -5), 5U);
    EXPECT_EQ(dispatch_time(10, INT64_MIN), 1U);
}

TEST_F(DispatchTest, HasTimersThatFollowTheWallClock) {
    for (const double jump : {-5.0, 0.0, 5.0}) {
        order.clear();
        Work work = note('a');
        dispatch_source_t source = timer(work, later, DISPATCH_TIME_FOREVER);
        dispatch_source_set_timer(source, dispatch_walltime(nullptr, 20 * later),
                                  DISPATCH_TIME_FOREVER, 0);
        EXPECT_TRUE(fake::timers().front().isWall);
        EXPECT_EQ(fake::timers().front().first, 20 * NSEC_PER_SEC);
        // Asleep for 4 seconds, while somebody sets the clock.
        fake::at(1, [jump] {
            fake::world().sinceBoot += 4 * NSEC_PER_SEC;
            fake::world().bootedAt += jump;
        });
        fake::serve(30);
        EXPECT_EQ(order, "a" + std::to_string(200 - static_cast<int>(jump) * 10) + ' ');
        dispatch_release(source);
    }
}

TEST_F(DispatchTest, StandsStillWhileTheMachineSleeps) {
    Work work = note('a');
    timer(work, 2 * later, NSEC_PER_SEC);
    fake::at(1, [] { fake::world().sinceBoot += 100 * NSEC_PER_SEC; });
    fake::serve(2);
    EXPECT_EQ(order, "a1020 ");
}

TEST_F(DispatchTest, WatchesSignals) {
    EXPECT_FALSE(fake::raise(SIGTERM));
    Work work = note('s');
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, dispatch_get_main_queue());
    dispatch_set_context(source, &work);
    dispatch_source_set_event_handler_f(source, call);
    EXPECT_FALSE(fake::raise(SIGTERM));
    dispatch_resume(source);
    EXPECT_FALSE(fake::raise(SIGHUP));
    EXPECT_TRUE(fake::raise(SIGTERM));
    EXPECT_TRUE(fake::raise(SIGTERM));
    EXPECT_EQ(order, "");
    fake::serve(0);
    EXPECT_EQ(order, "s0 ") << "signals that come before it is served are one";
    EXPECT_TRUE(fake::raise(SIGTERM));
    fake::serve(0);
    EXPECT_EQ(order, "s0 s0 ");
    EXPECT_TRUE(fake::timers().empty());
}

TEST_F(DispatchTest, ShowsTheMarksOfTheQueueToItsOwnWork) {
    static char mark = 0;
    dispatch_queue_set_specific(dispatch_get_main_queue(), &mark, &mark, nullptr);
    EXPECT_EQ(dispatch_get_specific(&mark), nullptr) << "nothing is promised of the main thread";
    std::thread([] { EXPECT_EQ(dispatch_get_specific(&mark), nullptr); }).join();
    Work work = [&] {
        order += 'w';
        EXPECT_EQ(dispatch_get_specific(&mark), &mark);
        EXPECT_EQ(dispatch_get_specific(&order), nullptr);
    };
    async(work);
    fake::at(1, [&] {
        order += 'e';
        EXPECT_EQ(dispatch_get_specific(&mark), nullptr);
    });
    fake::serve(1);
    EXPECT_EQ(order, "we");
}

TEST_F(DispatchTest, IsOverAtTheEndOfTheScript) {
    const auto start = fake::world().sinceBoot;
    Work work = note('t');
    timer(work, later, NSEC_PER_SEC);
    fake::at(1, note('e'));
    fake::at(9, note('f'));
    fake::endAt(3.5);
    EXPECT_THROW(dispatch_main(), fake::Over);
    EXPECT_EQ(order, "e10 t10 t20 t30 ");
    EXPECT_EQ(fake::world().sinceBoot - start, 3'500'000'000U);
}

TEST_F(DispatchTest, ServesTheMainThreadOnly) {
    EXPECT_DEATH(std::thread([] { dispatch_main(); }).join(), "not the main thread");
    Work work = [] { fake::serve(0); };
    async(work);
    EXPECT_DEATH(fake::serve(0), "served already");
}

}  // namespace
