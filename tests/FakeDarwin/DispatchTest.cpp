// What HalvoPlatform/macOS/MainQueueTest.cpp and MainActorTest.cpp do not show of the stand-in.
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>

#include "FakeDarwin.hpp"

namespace {

using Work = std::function<void()>;

void call(void* work) { (*static_cast<Work*>(work))(); }

constexpr auto second = static_cast<std::int64_t>(NSEC_PER_SEC);

class DispatchTest : public ::testing::Test {
  protected:
    DispatchTest() { fake::reset(); }

    // Of work of the test's own, which outlives it.
    static dispatch_source_t source(dispatch_source_type_t type, Work& work,
                                    std::uintptr_t handle = 0) {
        dispatch_source_t source =
            dispatch_source_create(type, handle, 0, dispatch_get_main_queue());
        dispatch_set_context(source, &work);
        dispatch_source_set_event_handler_f(source, call);
        return source;
    }

    static dispatch_source_t timer(Work& work, std::int64_t first, std::uint64_t interval) {
        dispatch_source_t timer = source(DISPATCH_SOURCE_TYPE_TIMER, work);
        dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, first), interval, 0);
        dispatch_resume(timer);
        return timer;
    }

    // Adds to `order` what happens, and when in tenths of a second: "a15 ".
    Work note(char what) {
        return [this, what, start = fake::world().sinceBoot] {
            order += what;
            order += std::to_string((fake::world().sinceBoot - start) / 100'000'000) + ' ';
        };
    }

    std::string order;
};

TEST_F(DispatchTest, TurnsNoTimerThatIsSuspendedOrCancelledAlsoWhereItsTurnIsEnqueued) {
    dispatch_source_t victim = nullptr;
    Work never = note('v');
    Work cancel = [&] { dispatch_source_cancel(victim); };
    timer(cancel, second, DISPATCH_TIME_FOREVER);
    victim = timer(never, second, DISPATCH_TIME_FOREVER);
    dispatch_source_t suspended = source(DISPATCH_SOURCE_TYPE_TIMER, never);
    dispatch_source_set_timer(suspended, dispatch_time(DISPATCH_TIME_NOW, 0), NSEC_PER_SEC, 0);
    fake::serve(5);
    EXPECT_EQ(order, "");
    EXPECT_DEATH(dispatch_release(suspended), "a suspended source is released");
}

TEST_F(DispatchTest, ForgetsASourceThatIsReleased) {
    dispatch_source_t source = nullptr;
    Work work = [&] {
        order += 'a';
        dispatch_release(source);
    };
    source = timer(work, second, NSEC_PER_SEC);
    EXPECT_EQ(fake::timers().size(), 1U);
    EXPECT_DEATH(dispatch_resume(source), "is resumed that is not suspended");
    fake::serve(5);
    EXPECT_EQ(order, "a");
    EXPECT_TRUE(fake::timers().empty());
    EXPECT_DEATH(dispatch_source_cancel(source), "was released");
}

TEST_F(DispatchTest, HasTimersThatFollowTheWallClockAndSomeThatStandStillInSleep) {
    for (const double jump : {-5.0, 0.0, 5.0}) {
        order.clear();
        Work wall = note('w');
        Work awake = note('a');
        timer(awake, 2 * second, DISPATCH_TIME_FOREVER);
        dispatch_source_t source = timer(wall, second, DISPATCH_TIME_FOREVER);
        dispatch_source_set_timer(source, dispatch_walltime(nullptr, 20 * second),
                                  DISPATCH_TIME_FOREVER, 0);
        EXPECT_TRUE(fake::timers().back().isWall);
        EXPECT_EQ(fake::timers().back().first, 20 * NSEC_PER_SEC);
        // Asleep for 4 seconds, while the clock is set.
        fake::at(1, [jump] {
            fake::world().sinceBoot += 4 * NSEC_PER_SEC;
            fake::world().bootedAt += jump;
        });
        fake::serve(30);
        EXPECT_EQ(order, "a60 w" + std::to_string(200 - static_cast<int>(jump) * 10) + ' ');
        dispatch_release(source);
    }
}

TEST_F(DispatchTest, TellsASourceOfItsSignalOnceForAllThatCameBeforeItIsServed) {
    Work work = note('s');
    dispatch_source_t watch = source(DISPATCH_SOURCE_TYPE_SIGNAL, work, SIGTERM);
    EXPECT_FALSE(fake::raise(SIGTERM));
    dispatch_resume(watch);
    EXPECT_FALSE(fake::raise(SIGHUP));
    EXPECT_TRUE(fake::raise(SIGTERM));
    EXPECT_TRUE(fake::raise(SIGTERM));
    EXPECT_EQ(order, "");
    fake::serve(0);
    EXPECT_EQ(order, "s0 ");
    EXPECT_TRUE(fake::raise(SIGTERM));
    fake::serve(0);
    EXPECT_EQ(order, "s0 s0 ");
    EXPECT_TRUE(fake::timers().empty());
}

}  // namespace
