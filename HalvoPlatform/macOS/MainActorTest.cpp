#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "HalvoPlatform/MainActor.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

constexpr auto refusal =
    "Fatal error: Incorrect actor executor assumption; Expected same executor as MainActor.\n";

// What a piece of work on the main queue finds.
struct Seen {
    std::thread::id thread;
    bool isOnMainActor{};
};

void look(void* seen) { *static_cast<Seen*>(seen) = {std::this_thread::get_id(), onMainActor()}; }

class DispatchMainActorTest : public ::testing::Test {
  protected:
    DispatchMainActorTest() { fake::reset(); }
};

TEST_F(DispatchMainActorTest, IsTheInitialThreadBeforeTheQueueIsServed) {
    EXPECT_TRUE(onMainActor());
    assumeMainActor();
}

// As it is from dispatch_main() on.
TEST_F(DispatchMainActorTest, IsWorkOnTheMainQueueWhateverItsThread) {
    Seen seen;
    dispatch_async_f(dispatch_get_main_queue(), &seen, look);
    fake::serve(0);
    EXPECT_NE(seen.thread, std::thread::id());
    EXPECT_NE(seen.thread, std::this_thread::get_id());
    EXPECT_TRUE(seen.isOnMainActor);
}

TEST_F(DispatchMainActorTest, IsNoThreadOfAnyOtherKind) {
    bool isOnMainActor = true;
    std::thread([&] { isOnMainActor = onMainActor(); }).join();
    EXPECT_FALSE(isOnMainActor);
}

TEST_F(DispatchMainActorTest, IsNoOtherThreadWhileTheQueueIsServed) {
    Seen seen;
    bool isOnMainActor = true;
    fake::at(1, [&] { isOnMainActor = onMainActor(); });
    fake::at(1, [&] { dispatch_async_f(dispatch_get_main_queue(), &seen, look); });
    EXPECT_THROW(dispatch_main(), fake::Over);
    EXPECT_FALSE(isOnMainActor);
    EXPECT_TRUE(seen.isOnMainActor);
}

TEST_F(DispatchMainActorTest, GoesThroughWithWorkOnTheMainQueue) {
    bool wentOn = false;
    dispatch_async_f(dispatch_get_main_queue(), &wentOn, [](void* flag) {
        assumeMainActor();
        *static_cast<bool*>(flag) = true;
    });
    fake::serve(0);
    EXPECT_TRUE(wentOn);
}

TEST_F(DispatchMainActorTest, EndsTheProcessOnAnyOtherThread) {
    const auto result = testing::runInChild([] { std::thread(assumeMainActor).join(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, refusal);
}

TEST_F(DispatchMainActorTest, EndsTheProcessOnAnotherThreadWhileTheQueueIsServed) {
    const auto result = testing::runInChild([] {
        fake::at(1, assumeMainActor);
        dispatch_main();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, refusal);
}

// In a process that has never asked before.
TEST(DispatchMainActorDeathTest, KnowsItselfWhenFirstAskedInTheMidstOfWork) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto body = [] {
        Seen seen;
        dispatch_async_f(dispatch_get_main_queue(), &seen, look);
        fake::serve(0);
        std::exit(seen.isOnMainActor ? EXIT_SUCCESS : EXIT_FAILURE);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace halvo
