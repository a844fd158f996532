#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Where callers come in: by hand.
class FakeListener final : public HelperListener {
  public:
    explicit FakeListener(CallLog& calls) : calls_(calls) {}

    void serve(HelperService& service) override {
        calls_.enter("serve");
        served = &service;
    }

    HelperService* served = nullptr;

  private:
    CallLog& calls_;
};

class HelperServiceTest : public ::testing::Test {
  protected:
    // The status that the process exits with during `work`, if it does.
    static std::optional<int> exitDuring(const std::function<void()>& work) {
        try {
            work();
        } catch (const ProcessExit& end) {
            return end.status;
        }
        return std::nullopt;
    }

    std::optional<int> pass(double seconds) {
        return exitDuring([&] { queue.advance(Seconds{seconds}); });
    }

    std::optional<int> terminate() {
        return exitDuring([this] { queue.terminate(); });
    }

    // Serves until the process exits; the age of the service then. Gives up after a day.
    double ageAtIdleExit() {
        EXPECT_EQ(pass(86400), 0) << "no idle exit";
        return (queue.now() - madeAt).count();
    }

    HelperConnection connect(std::uint32_t uid = ann) {
        listener.served->connectionOpened();
        return {{uid, app}, listener.served->engine()};
    }

    void disconnect() { listener.served->connectionClosed(); }

    // Ann begins a commitment of `length`. Whether it is held.
    bool begin(Seconds length) {
        const WallDate now = world.clock.now().wall;
        return connect().begin(app, now + length, now).value_or(false);
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    ManualMainQueue queue{world.clock, &world.calls};
    FakeListener listener{world.calls};
    const Seconds madeAt = queue.now();
    HelperService service{
        {world.clock, world.flags, world.store, world.session, world.opener}, listener, queue};
};

// The stored commitment is taken up before a caller can reach it.
TEST_F(HelperServiceTest, StartsUpThenListensThenHandlesTerminationThenTicks) {
    EXPECT_THAT(world.calls.calls(), ElementsAre("reading", "console")) << "the engine's making";
    EXPECT_EQ(listener.served, nullptr);
    const ClockReading now = world.clock.now();
    world.store.stored =
        HelperCommitment{app, ann, now.wall, Seconds{600}, HelperCommitment::maximum, now, true};
    world.calls.clear();
    service.start();
    EXPECT_THAT(world.calls.calls(),
                ElementsAre("reading", "load", "save locked", "state Halvo.app", "lock Halvo.app",
                            "serve", "handle SIGTERM", "repeat"));
    EXPECT_EQ(listener.served, &service);
    EXPECT_THAT(queue.timers(),
                ElementsAre(ManualMainQueue::TimerRequest{Seconds{2}, Seconds{2}, Seconds{0.2}}));
}

TEST_F(HelperServiceTest, EachTickIsATickOfTheEngine) {
    service.start();
    ASSERT_TRUE(begin(Seconds{600}));
    world.calls.clear();
    EXPECT_EQ(pass(1.9), std::nullopt);
    EXPECT_EQ(world.calls.count("state Halvo.app"), 0U);
    EXPECT_EQ(pass(4.1), std::nullopt);
    EXPECT_EQ(world.calls.count("state Halvo.app"), 3U);
}

TEST_F(HelperServiceTest, ExitsAfterThirtySecondsWithNothingToDo) {
    service.start();
    EXPECT_EQ(pass(29.9), std::nullopt);
    EXPECT_EQ(ageAtIdleExit(), 30);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperServiceTest, CountsFromItsConstruction) {
    world.clock.advance(Seconds{7});
    service.start();
    EXPECT_EQ(ageAtIdleExit(), 31) << "ticks at 9, 11 and so on";
}

TEST_F(HelperServiceTest, CountsWhileTheMachineSleeps) {
    service.start();
    EXPECT_EQ(pass(4), std::nullopt);
    world.clock.advance(Seconds{3600});
    EXPECT_EQ(pass(0), 0);
}

// A connection at `opened`, closed again at `closed`, lets the helper exit at `exits`.
struct OneConnection {
    double opened;
    double closed;
    double exits;
};

class HelperServiceConnectionTest : public HelperServiceTest,
                                    public ::testing::WithParamInterface<OneConnection> {};

TEST_P(HelperServiceConnectionTest, ItsEndRestartsTheCount) {
    const auto [opened, closed, exits] = GetParam();
    service.start();
    EXPECT_EQ(pass(opened), std::nullopt);
    connect();
    EXPECT_EQ(pass(closed - opened), std::nullopt);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), exits);
}

// Between two ticks; on a tick's dot, which had still seen it open; at the last moment; for long.
INSTANTIATE_TEST_SUITE_P(Times, HelperServiceConnectionTest,
                         ::testing::Values(OneConnection{1, 1.5, 32}, OneConnection{1, 2, 32},
                                           OneConnection{1, 2.1, 34}, OneConnection{11, 11, 42},
                                           OneConnection{29.9, 29.95, 60},
                                           OneConnection{5, 86000.5, 86032}));

TEST_F(HelperServiceTest, StaysUntilTheLastOfSeveralConnectionsIsGone) {
    service.start();
    connect(ann);
    connect(ben);
    EXPECT_EQ(pass(86400), std::nullopt);
    EXPECT_EQ(service.connections(), 2);
    disconnect();
    EXPECT_EQ(pass(100), std::nullopt);
    EXPECT_EQ(service.connections(), 1);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), 86530);
}

TEST_F(HelperServiceTest, NeverCountsBelowNothingAndRestartsTheCountThen) {
    service.start();
    EXPECT_EQ(pass(11), std::nullopt);
    disconnect();
    disconnect();
    EXPECT_EQ(service.connections(), 0);
    connect();
    EXPECT_EQ(pass(100), std::nullopt);
    EXPECT_EQ(service.connections(), 1);
    disconnect();
    EXPECT_EQ(pass(11), std::nullopt);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), 152);
}

TEST_F(HelperServiceTest, StaysAsLongAsACommitmentIsHeld) {
    service.start();
    ASSERT_TRUE(begin(HelperCommitment::maximum));
    disconnect();
    EXPECT_EQ(pass(86399), std::nullopt);
    EXPECT_EQ(service.connections(), 0);
}

TEST_F(HelperServiceTest, CountsFromTheLastTickThatFoundACommitment) {
    service.start();
    ASSERT_TRUE(begin(Seconds{9}));
    disconnect();
    // Ticks at 2 to 8 find it held; the one at 10 lets it go.
    EXPECT_EQ(ageAtIdleExit(), 38);
    EXPECT_TRUE(world.store.isEmpty());
}

TEST_F(HelperServiceTest, TerminationEndsWithTheEnginesWordOnALiveCommitment) {
    service.start();
    ASSERT_TRUE(begin(Seconds{600}));
    world.calls.clear();
    EXPECT_EQ(terminate(), 75);
    EXPECT_THAT(world.calls.changes(), ElementsAre("save locked", "unlock Halvo.app"));
}

TEST_F(HelperServiceTest, TerminationEndsWithZeroWhenTheTimeIsUpWhateverIsConnected) {
    service.start();
    ASSERT_TRUE(begin(Seconds{600}));
    world.clock.advance(Seconds{600});
    EXPECT_EQ(terminate(), 0);
}

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

class HelperConnectionTest : public ::testing::Test {
  protected:
    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // The reply in words.
    std::string begin(const std::string& path, WallDate until, WallDate started) {
        const auto ok = mine.begin(path, until, started);
        return !ok ? ok.error() : *ok ? "yes" : "no";
    }

    std::string begin() { return begin(app, now() + hour, now()); }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    const HelperConnection mine{{ann, app}, engine};
    const HelperConnection theirs{{ben, app}, engine};
};

TEST_F(HelperConnectionTest, PassesEachRequestWithItsPeerAndItsArgumentsToTheEngine) {
    EXPECT_EQ(begin(app, now() + hour, now() - Seconds{60}), "yes");
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, hour);
    EXPECT_EQ(engine.commitment()->startedWall, now() - Seconds{60});
    EXPECT_TRUE(mine.heartbeat(false));
    EXPECT_FALSE(theirs.heartbeat(false));
    EXPECT_EQ(mine.status(), (HelperStatus{true, now() + hour, true}));
    EXPECT_EQ(theirs.status(), (HelperStatus{false, std::nullopt, false}));
    EXPECT_FALSE(theirs.end());
    EXPECT_TRUE(mine.end());
    // Of an app that is not there, too.
    const std::string missing = app.substr(0, app.size() - 4) + "-gone.app";
    EXPECT_TRUE(HelperConnection({ann, missing}, engine).begin(missing, now() + hour, now()));
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->appPath, missing);
}

constexpr double tooLate = 253402300800;
constexpr double infinite = std::numeric_limits<double>::infinity();
constexpr double latest = std::numeric_limits<double>::max();
// What many programs take for a date before, and after, all others.
constexpr double distantPast = -62135769600;
constexpr double distantFuture = 64092211200;

TEST_F(HelperConnectionTest, ABadDateNeverReachesTheEngine) {
    begin();
    const auto held = engine.commitment();
    const auto expectRefusal = [&](WallDate until, WallDate started, const std::string& problem) {
        world.calls.clear();
        log.clear();
        EXPECT_EQ(begin(app, until, started), problem);
        EXPECT_THAT(log.messages(),
                    ElementsAre(LogMessage{LogLevel::Error, "Refused a begin: " + problem}));
        EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it reached the engine";
        EXPECT_EQ(engine.commitment(), held);
    };
    for (const double date : {infinite, -infinite, std::numeric_limits<double>::quiet_NaN(),
                              -std::numeric_limits<double>::quiet_NaN(),
                              std::numeric_limits<double>::signaling_NaN()}) {
        expectRefusal(wallDate(date), now(), "until is not a finite number");
        expectRefusal(now() + hour, wallDate(date), "started is not a finite number");
        expectRefusal(wallDate(date), wallDate(date), "until is not a finite number");
    }
    for (const double date : {tooLate, std::nextafter(tooLate, infinite), 1e300, latest}) {
        expectRefusal(now() + hour, wallDate(date), "started is after the year 9999");
    }
}

TEST_F(HelperConnectionTest, ABeginForAnothersBundleIsRefusedAsThatWhateverItsDates) {
    const std::string other = world.addBundle("Applications/Other.app");
    for (const std::string& path : {other, app + std::string("\0.app", 5)}) {
        for (const double date : {infinite, -infinite, std::nan(""), latest, -latest, 1e9}) {
            log.clear();
            EXPECT_EQ(begin(path, wallDate(date), wallDate(date)), "no") << date;
            EXPECT_THAT(log.errors(), ElementsAre(notTheirs)) << date;
        }
    }
}

// A past end ends what is held; a past start leaves nothing of the day.
TEST_F(HelperConnectionTest, APastDateEndsWhatIsHeld) {
    for (const double date : {0.0, -0.0, 1.5, -1.0, distantPast, -1e300, -latest}) {
        for (const bool isStart : {false, true}) {
            SCOPED_TRACE(date);
            EXPECT_EQ(begin(), "yes");
            EXPECT_EQ(begin(app, isStart ? now() + hour : wallDate(date),
                            isStart ? wallDate(date) : now()),
                      "no");
            EXPECT_TRUE(engine.isIdle());
            EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::ended);
        }
    }
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HelperConnectionTest, AFutureEndIsGrantedUpToTheCap) {
    for (const double date : {distantFuture, tooLate, 1e300, latest}) {
        EXPECT_EQ(begin(app, wallDate(date), now() - hour), "yes") << date;
        EXPECT_EQ(mine.status().until, now() + HelperCommitment::maximum - hour);
        world.clock.advance(HelperCommitment::maximum - hour);
        engine.tick();
        EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::deadline);
    }
    EXPECT_EQ(begin(app, wallDate(latest), wallDate(std::nextafter(tooLate, 0.0))), "yes");
    EXPECT_THAT(log.errors(), IsEmpty());
}

// The executor check: whatever is called from another thread than the main one ends the process.
using HelperServiceDeathTest = HelperServiceTest;

TEST_F(HelperServiceDeathTest, IsCalledOnTheMainQueueOnly) {
    service.start();
    const HelperConnection mine = connect();
    const WallDate now = world.clock.now().wall;
    const std::function<void()> calls[] = {
        [&] { service.tick(); },
        [&] { service.terminate(); },
        [&] { service.connectionOpened(); },
        [&] { service.connectionClosed(); },
        [&] { (void)mine.begin(app, now + hour, now); },
        [&] { (void)mine.begin(app, wallDate(infinite), now); },
        [&] { (void)mine.heartbeat(false); },
        [&] { (void)mine.end(); },
        [&] { (void)mine.status(); },
    };
    for (const auto& call : calls) {
        EXPECT_DEATH(std::thread(call).join(),
                     "Incorrect actor executor assumption; Expected same executor as MainActor\\.");
    }
}

}  // namespace
}  // namespace halvo::testing
