// An app that is stopped after it was told what holds, and goes on when something else does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <list>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// What the person commits to elsewhere, and what the stopped app decided on.
constexpr Seconds longSpan{1500};
constexpr Seconds shortSpan{60};

// The app, stopped on its way from the status to its begin.
class StoppedApp {
  public:
    enum class At { UnreadStatus, UnsentBegin };

    StoppedApp(const World& world, At at)
        : app_({.words = {Place::appExecutable, "1"}, .person = world.user, .stopped = true}),
          stepper_(app_) {
        const auto isOver = [limit = timeNow() + Seconds{20}] { return timeNow() >= limit; };
        // It sends its authentication, the status request, and the begin.
        const int status = 2;
        for (int sent = 0; sent < status; ++sent) {
            EXPECT_TRUE(stepper_.goTo(1, SYS_sendmsg, isOver)) << app_.output();
        }
        EXPECT_TRUE(at == At::UnreadStatus ? stepper_.goTo(1, {}, isOver)
                                           : stepper_.goTo(1, SYS_sendmsg, isOver))
            << app_.output();
    }

    // Lets it go on until it says what came of it.
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
    // Nobody for whom the app would be opened.
    void SetUp() override { world.leaveConsole(); }

    // Ten, half of them at either place.
    std::list<StoppedApp> stopTen() {
        std::list<StoppedApp> apps;
        for (int i = 0; i < 5; ++i) {
            apps.emplace_back(world, StoppedApp::At::UnreadStatus);
            apps.emplace_back(world, StoppedApp::At::UnsentBegin);
        }
        return apps;
    }

    // Lets them go on one by one, while a long commitment holds. How many of them ended it.
    int endedBy(std::list<StoppedApp>& apps) {
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

TEST_F(StoppedAppTest, EndsNoLaterCommitment) {
    std::list<StoppedApp> apps = stopTen();
    EXPECT_FALSE(exists(Place::stateFile));
    EXPECT_EQ(endedBy(apps), 0);
}

TEST_F(StoppedAppTest, EndsNoLaterCommitmentHoweverLongItWasStopped) {
    const std::size_t before = helper.descriptors();
    std::list<StoppedApp> apps = stopTen();
    EXPECT_EQ(helper.descriptors(), before + apps.size());
    EXPECT_TRUE(eventually(Seconds{40}, [&] { return helper.descriptors() == before; }))
        << "who says nothing keeps its place";
    EXPECT_EQ(endedBy(apps), 0);
}

// Which shows that the others are stopped where they could.
TEST_F(StoppedAppTest, CommitsWhenNothingElseHappened) {
    for (const auto at : {StoppedApp::At::UnreadStatus, StoppedApp::At::UnsentBegin}) {
        StoppedApp app(world, at);
        EXPECT_FALSE(exists(Place::stateFile));
        app.goOn();
        EXPECT_TRUE(world.status().holding) << app.output();
        EXPECT_EQ(world.end(), Reply::yes);
    }
}

// Another process of the app begins: what this one was told is no longer so, and it asks anew.
TEST_F(StoppedAppTest, BegunElsewhereTroublesNoAppThatRuns) {
    ASSERT_EQ(world.begin(shortSpan), Reply::yes);
    TestProcess app = world.startApp();
    ASSERT_TRUE(eventually(Seconds{5}, [&] { return !app.output().empty(); }));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(world.begin(longSpan), Reply::yes);
        sleepFor(Seconds{1.1});
    }
    sleepFor(Seconds{2});
    EXPECT_TRUE(app.isRunning());
    EXPECT_THAT(app.output(), Not(HasSubstr("keeps trying")));
}

TEST_F(StoppedAppTest, BegunElsewhereDisconnectsThePersonsProcessesThatWereToldOtherwise) {
    const auto ask = [this](const char* request, uid_t person) {
        return world.startCaller({"ask", Place::socket, request, "~10", request}, person);
    };
    TestProcess told = ask("status", world.user);
    TestProcess notTold = ask("heartbeat", world.user);
    TestProcess somebodyElse = ask("status", world.other);
    const std::string idle = "idle without end unlocked";
    EXPECT_EQ(told.readLine(), idle);
    EXPECT_EQ(notTold.readLine(), "no");
    EXPECT_EQ(somebodyElse.readLine(), idle);
    EXPECT_EQ(world.begin(shortSpan), Reply::yes);
    EXPECT_EQ(told.readLine(), "disconnected");
    EXPECT_EQ(notTold.readLine(), "yes");
    EXPECT_EQ(somebodyElse.readLine(), idle);
}

}  // namespace
}  // namespace halvo::testing
