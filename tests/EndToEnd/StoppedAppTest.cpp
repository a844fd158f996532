// An app that is stopped with SIGSTOP after it has read the status, and continues with a stale one.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <list>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

// The commitment of another process meanwhile, and the one that the stopped app is about to begin.
constexpr Seconds longSpan{1500};
constexpr Seconds shortSpan{60};

// The app, stopped between the status reply and its begin.
class StoppedApp {
  public:
    enum class At { UnreadStatus, UnsentBegin };

    StoppedApp(const World& world, At at)
        : app_({.words = {Place::appExecutable, "1"}, .person = world.user, .stopped = true}),
          stepper_(app_) {
        const auto isOver = [limit = timeNow() + Seconds{20}] { return timeNow() >= limit; };
        // The messages it sends: authentication, status request, begin.
        const int status = 2;
        for (int sent = 0; sent < status; ++sent) {
            EXPECT_TRUE(stepper_.goTo(1, SYS_sendmsg, isOver)) << app_.output();
        }
        EXPECT_TRUE(stepper_.goTo(1, at == At::UnreadStatus ? SYS_recvmsg : SYS_sendmsg, isOver))
            << app_.output();
    }

    // Continues it until it prints the result.
    void goOn() {
        stepper_.leave();
        EXPECT_TRUE(eventually(Seconds{20},
                               [this] { return !app_.output().empty() || !app_.isRunning(); }));
    }

    [[nodiscard]] std::string output() const { return app_.output(); }

  private:
    TestProcess app_;
    Stepper stepper_;
};

class StoppedAppTest : public ::testing::Test {
  protected:
    // No console user, or the helper would open the app.
    void SetUp() override { world.leaveConsole(); }

    // Five stopped at each point.
    std::list<StoppedApp> stopTen() {
        std::list<StoppedApp> apps;
        for (int i = 0; i < 5; ++i) {
            apps.emplace_back(world, StoppedApp::At::UnreadStatus);
            apps.emplace_back(world, StoppedApp::At::UnsentBegin);
        }
        return apps;
    }

    // Continues them one by one while a long commitment holds; how many of them shortened it.
    int shortenedBy(std::list<StoppedApp>& apps) {
        int count = 0;
        for (StoppedApp& app : apps) {
            EXPECT_EQ(world.begin(longSpan), Reply::yes);
            app.goOn();
            const auto state = world.state();
            count += state && state->remaining > longSpan.count() - shortSpan.count() ? 0 : 1;
        }
        return count;
    }

    World world;
    RunningHelper helper;
};

TEST_F(StoppedAppTest, DoesNotShortenALaterCommitment) {
    std::list<StoppedApp> apps = stopTen();
    EXPECT_FALSE(exists(Place::stateFile));
    EXPECT_EQ(shortenedBy(apps), 0);
}

TEST_F(StoppedAppTest, DoesNotShortenALaterCommitmentAfterTheSilenceLimit) {
    const std::size_t before = helper.descriptors();
    std::list<StoppedApp> apps = stopTen();
    EXPECT_EQ(helper.descriptors(), before + apps.size());
    EXPECT_TRUE(eventually(Seconds{40}, [&] { return helper.descriptors() == before; }))
        << "silent connections are not closed";
    EXPECT_EQ(shortenedBy(apps), 0);
}

// Shows that the apps above are stopped where they still could begin.
TEST_F(StoppedAppTest, BeginsWhenNothingElseHappened) {
    for (const auto at : {StoppedApp::At::UnreadStatus, StoppedApp::At::UnsentBegin}) {
        StoppedApp app(world, at);
        EXPECT_FALSE(exists(Place::stateFile));
        app.goOn();
        EXPECT_TRUE(world.status().holding) << app.output();
        EXPECT_EQ(world.end(), Reply::yes);
    }
}

TEST_F(StoppedAppTest, ABeginDisconnectsTheUsersConnectionsWithAStaleStatus) {
    const auto ask = [this](const char* request, uid_t person) {
        return world.startCaller({"ask", Place::socket, request, "?", request}, person);
    };
    TestProcess stale = ask("status", world.user);
    TestProcess withoutStatus = ask("heartbeat", world.user);
    TestProcess ofOtherUser = ask("status", world.other);
    const std::string idle = "idle without end unlocked";
    EXPECT_EQ(stale.readLine(), idle);
    EXPECT_EQ(withoutStatus.readLine(), "no");
    EXPECT_EQ(ofOtherUser.readLine(), idle);
    EXPECT_EQ(world.begin(shortSpan), Reply::yes);
    for (const TestProcess* caller : {&stale, &withoutStatus, &ofOtherUser}) {
        caller->tell("");
    }
    EXPECT_EQ(stale.readLine(), "disconnected");
    EXPECT_EQ(withoutStatus.readLine(), "yes");
    EXPECT_EQ(ofOtherUser.readLine(), idle);
}

}  // namespace
}  // namespace halvo::testing
