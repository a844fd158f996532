#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "examples/SampleApp/SessionEnding.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

TEST(SessionEndingTest, IsNotAssumedWithoutLogind) { EXPECT_FALSE(isSessionEnding({}, true)); }

TEST(SessionEndingTest, FollowsTheOwnSession) {
    EXPECT_TRUE(isSessionEnding({"closing", std::nullopt, std::nullopt}, true));
    EXPECT_FALSE(isSessionEnding({"active", std::nullopt, std::nullopt}, true));
    EXPECT_FALSE(isSessionEnding({"online", std::nullopt, std::nullopt}, true));
}

TEST(SessionEndingTest, PrefersTheOwnSessionToThePerson) {
    EXPECT_TRUE(isSessionEnding({"closing", "active", std::nullopt}, true));
    EXPECT_FALSE(isSessionEnding({"active", "closing", std::nullopt}, true));
}

TEST(SessionEndingTest, FollowsThePersonWithoutASession) {
    EXPECT_TRUE(isSessionEnding({std::nullopt, "closing", std::nullopt}, true));
    for (const char* state : {"offline", "lingering", "online", "active", "opening"}) {
        EXPECT_FALSE(isSessionEnding({std::nullopt, state, std::nullopt}, true)) << state;
    }
}

TEST(SessionEndingTest, IsOverOnceForASessionThatIsKeptClosing) {
    EXPECT_FALSE(isSessionEnding({"closing", "closing", std::nullopt}, false));
    EXPECT_FALSE(isSessionEnding({std::nullopt, "closing", false}, false));
    EXPECT_TRUE(isSessionEnding({"active", "active", true}, false));
}

TEST(SessionEndingTest, FollowsTheMachine) {
    EXPECT_TRUE(isSessionEnding({"active", "active", true}, true));
    EXPECT_TRUE(isSessionEnding({std::nullopt, std::nullopt, true}, true));
    EXPECT_FALSE(isSessionEnding({"active", "active", false}, true));
}

// Puts a bus of its own in the place of the system's.
class SystemBusTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path_).c_str(), 1); }

    void TearDown() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "bus";
};

TEST_F(SystemBusTest, IsAskedWhetherTheMachineIsGoingDown) {
    FakeHelper bus(path_, {Conduct::AnswerForLogind});
    EXPECT_EQ(readSessionFacts(Seconds{5}).preparingForShutdown, true);
    bus.record().yes = false;
    EXPECT_EQ(readSessionFacts(Seconds{5}).preparingForShutdown, false);
}

TEST_F(SystemBusTest, MayBeAbsent) {
    EXPECT_EQ(readSessionFacts(Seconds{5}).preparingForShutdown, std::nullopt);
}

TEST_F(SystemBusTest, IsNotWaitedForLongerThanAllowed) {
    for (const Conduct conduct : {Conduct::NeverAuthenticate, Conduct::NeverAnswer}) {
        const FakeHelper bus(path_, {conduct});
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(readSessionFacts(Seconds{0.2}).preparingForShutdown, std::nullopt);
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds{3});
    }
}

// In the files that logind keeps.
TEST(SessionEndingTest, IsLearnedFromLogind) {
    const PrivateMount run("tmpfs", "run", "/run");
    if (!run.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    std::filesystem::create_directories("/run/systemd/users");
    const std::string file = "/run/systemd/users/" + std::to_string(getuid());
    for (const std::string state : {"active", "closing"}) {
        writeTestFile(file, "STATE=" + state + "\n");
        EXPECT_EQ(readSessionFacts(Seconds{1}).userState, state);
    }
}

}  // namespace
}  // namespace halvo::testing
