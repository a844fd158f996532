#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "HalvoPlatform/MainActor.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

TEST(MainActorTest, TheInitialThreadIsTheMainQueue) {
    EXPECT_TRUE(onMainActor());
    assumeMainActor();
}

TEST(MainActorTest, AnotherThreadIsNotTheMainQueue) {
    bool answer = true;
    std::thread([&] { answer = onMainActor(); }).join();
    EXPECT_FALSE(answer);
}

TEST(MainActorTest, AChildsInitialThreadIsItsMainQueue) {
    const auto result = testing::runInChild([] { EXPECT_TRUE(onMainActor()); });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(MainActorTest, AnotherThreadThatClaimsToBeTheMainQueueEndsTheProcess) {
    const auto result = testing::runInChild([] { std::thread(assumeMainActor).join(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output,
              "Fatal error: Incorrect actor executor assumption; Expected same executor as "
              "MainActor.\n");
}

}  // namespace
}  // namespace halvo
