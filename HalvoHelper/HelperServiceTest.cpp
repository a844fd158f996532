#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "HalvoHelper/HelperConnection.hpp"
#include "HalvoHelper/HelperService.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;

constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;

// Where callers come in: by hand.
class FakeListener final : public HelperListener {
  public:
    explicit FakeListener(CallLog& calls) : calls_(calls) {}

    void serve(const HelperIdentity& required, HelperService& service) override {
        calls_.enter("serve");
        identity = required;
        served = &service;
    }

    std::optional<HelperIdentity> identity;
    HelperService* served = nullptr;

  private:
    CallLog& calls_;
};

// Notes in the world's calls what the service asks of its queue.
class NotingQueue final : public MainQueue {
  public:
    NotingQueue(ManualMainQueue& queue, CallLog& calls) : queue_(queue), calls_(calls) {}

    void async(Work work) override { queue_.async(std::move(work)); }

    void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) override {
        calls_.enter("repeat");
        queue_.repeat(first, interval, leeway, std::move(work));
    }

    void after(Seconds delay, Work work) override {
        calls_.enter("after");
        queue_.after(delay, std::move(work));
    }

    void onTermination(Work work) override {
        calls_.enter("handle SIGTERM");
        queue_.onTermination(std::move(work));
    }

    [[nodiscard]] Seconds now() const override { return queue_.now(); }

    [[noreturn]] void run() override { queue_.run(); }

    [[noreturn]] void exit(int status) override { queue_.exit(status); }

  private:
    ManualMainQueue& queue_;
    CallLog& calls_;
};

class HelperServiceTest : public ::testing::Test {
  protected:
    void start() { service.start(); }

    // What of the service's time has passed since it was made.
    [[nodiscard]] double age() const { return (queue.now() - madeAt).count(); }

    // Lets `seconds` pass. The status that the process exits with meanwhile, if it does.
    std::optional<int> pass(double seconds) {
        try {
            queue.advance(Seconds{seconds});
        } catch (const ProcessExit& end) {
            return end.status;
        }
        return std::nullopt;
    }

    // Serves until the process exits; its age then. Gives up after a day.
    double ageAtIdleExit() {
        const auto status = pass(86400);
        EXPECT_EQ(status, 0) << "no idle exit";
        return status ? age() : -1;
    }

    std::optional<int> terminate() {
        try {
            queue.terminate();
        } catch (const ProcessExit& end) {
            return end.status;
        }
        return std::nullopt;
    }

    HelperConnection connect(std::uint32_t uid = ann) {
        listener.served->connectionOpened();
        return {{uid, app}, listener.served->engine()};
    }

    void disconnect() { listener.served->connectionClosed(); }

    // Ann begins a commitment of `length`. Whether it is held.
    bool begin(const HelperConnection& connection, Seconds length) {
        const WallDate now = world.clock.now().wall;
        return connection.begin(app, now + length, now).value_or(false);
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    ManualMainQueue queue{world.clock};
    NotingQueue noting{queue, world.calls};
    FakeListener listener{world.calls};
    const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
    const Seconds madeAt = queue.now();
    HelperService service{identity,
                          {world.clock, world.flags, world.store, world.session, world.opener},
                          listener,
                          noting};
};

TEST_F(HelperServiceTest, BuildsTheEngineBeforeAnythingIsServed) {
    EXPECT_THAT(world.calls.calls(), ElementsAre("reading", "console"));
    EXPECT_EQ(service.connections(), 0);
    EXPECT_EQ(listener.served, nullptr);
    EXPECT_FALSE(queue.handlesTermination());
    EXPECT_TRUE(queue.timers().empty());
}

TEST_F(HelperServiceTest, StartsUpThenListensThenHandlesTerminationThenTicks) {
    world.calls.clear();
    start();
    EXPECT_THAT(world.calls.calls(),
                ElementsAre("reading", "load", "serve", "handle SIGTERM", "repeat"));
    EXPECT_EQ(listener.identity, identity);
    EXPECT_EQ(listener.served, &service);
}

TEST_F(HelperServiceTest, TakesTheStoredCommitmentUpBeforeACallerCanReachIt) {
    const ClockReading now = world.clock.now();
    world.store.stored =
        HelperCommitment{app, ann, now.wall, Seconds{600}, HelperCommitment::maximum, now, true};
    world.calls.clear();
    start();
    EXPECT_THAT(world.calls.calls(),
                ElementsAre("reading", "load", "save locked", "state Halvo.app", "lock Halvo.app",
                            "serve", "handle SIGTERM", "repeat"));
}

TEST_F(HelperServiceTest, TicksEveryTwoSecondsWithAFifthOfASecondOfLeeway) {
    start();
    EXPECT_THAT(queue.timers(),
                ElementsAre(ManualMainQueue::TimerRequest{Seconds{2}, Seconds{2}, Seconds{0.2}}));
}

TEST_F(HelperServiceTest, EachTickIsATickOfTheEngine) {
    start();
    const auto connection = connect();
    ASSERT_TRUE(begin(connection, Seconds{600}));
    world.calls.clear();
    EXPECT_EQ(pass(1.9), std::nullopt);
    EXPECT_EQ(world.calls.count("state Halvo.app"), 0U);
    EXPECT_EQ(pass(4.1), std::nullopt);
    EXPECT_EQ(world.calls.count("state Halvo.app"), 3U);
}

TEST_F(HelperServiceTest, ExitsAfterThirtySecondsWithNothingToDo) {
    start();
    EXPECT_EQ(pass(29.9), std::nullopt);
    EXPECT_EQ(pass(0.1), 0);
    EXPECT_EQ(age(), 30);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperServiceTest, CountsFromItsConstruction) {
    world.clock.advance(Seconds{7});
    start();
    // Ticks at 9, 11 and so on.
    EXPECT_EQ(ageAtIdleExit(), 31);
}

TEST_F(HelperServiceTest, CountsWhileTheMachineSleeps) {
    start();
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
    start();
    EXPECT_EQ(pass(GetParam().opened), std::nullopt);
    const auto connection = connect();
    EXPECT_EQ(pass(GetParam().closed - GetParam().opened), std::nullopt);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), GetParam().exits);
}

INSTANTIATE_TEST_SUITE_P(Times, HelperServiceConnectionTest,
                         ::testing::Values(
                             // Between two ticks: 32 is the first at least 30 after its end.
                             OneConnection{1, 1.5, 32},
                             // Closed on a tick's dot, which had still seen it open.
                             OneConnection{1, 2, 32}, OneConnection{1, 2.1, 34},
                             OneConnection{10, 21, 52},
                             // Opened at the last moment.
                             OneConnection{29.9, 29.95, 60}, OneConnection{29.9, 100, 130},
                             OneConnection{5, 86000.5, 86032}),
                         [](const auto& row) {
                             const auto text = std::to_string(row.param.opened) + "_until_" +
                                               std::to_string(row.param.closed);
                             std::string name;
                             for (const char c : text) {
                                 name += c == '.' ? 'p' : c;
                             }
                             return name;
                         });

TEST_F(HelperServiceTest, StaysAsLongAsAConnectionIsOpen) {
    start();
    const auto connection = connect();
    EXPECT_EQ(pass(86400), std::nullopt);
    EXPECT_EQ(service.connections(), 1);
}

TEST_F(HelperServiceTest, StaysUntilTheLastOfSeveralConnectionsIsGone) {
    start();
    const auto first = connect(ann);
    const auto second = connect(ben);
    EXPECT_EQ(pass(100), std::nullopt);
    EXPECT_EQ(service.connections(), 2);
    disconnect();
    EXPECT_EQ(pass(100), std::nullopt);
    EXPECT_EQ(service.connections(), 1);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), 230);
}

TEST_F(HelperServiceTest, ConnectionsRestartTheCountEvenWhenTheyAreNotKept) {
    start();
    EXPECT_EQ(pass(11), std::nullopt);
    service.connectionOpened();
    service.connectionClosed();
    EXPECT_EQ(ageAtIdleExit(), 42);
}

TEST_F(HelperServiceTest, NeverCountsBelowNothing) {
    start();
    disconnect();
    disconnect();
    disconnect();
    EXPECT_EQ(pass(5), std::nullopt);
    EXPECT_EQ(service.connections(), 0);
    const auto connection = connect();
    EXPECT_EQ(pass(100), std::nullopt);
    EXPECT_EQ(service.connections(), 1);
    disconnect();
    disconnect();
    EXPECT_EQ(pass(0), std::nullopt);
    EXPECT_EQ(service.connections(), 0);
}

TEST_F(HelperServiceTest, AnEndTooManyRestartsTheCountToo) {
    start();
    EXPECT_EQ(pass(11), std::nullopt);
    disconnect();
    EXPECT_EQ(ageAtIdleExit(), 42);
}

TEST_F(HelperServiceTest, StaysAsLongAsACommitmentIsHeld) {
    start();
    const auto connection = connect();
    ASSERT_TRUE(begin(connection, HelperCommitment::maximum));
    disconnect();
    EXPECT_EQ(pass(86399), std::nullopt);
    EXPECT_EQ(service.connections(), 0);
}

TEST_F(HelperServiceTest, CountsFromTheLastTickThatFoundACommitment) {
    start();
    const auto connection = connect();
    ASSERT_TRUE(begin(connection, Seconds{9}));
    disconnect();
    // Ticks at 2 to 8 find it held; the one at 10 lets it go.
    EXPECT_EQ(ageAtIdleExit(), 38);
    EXPECT_TRUE(world.store.isEmpty());
}

TEST_F(HelperServiceTest, TerminationEndsWithTheEnginesWordOnALiveCommitment) {
    start();
    const auto connection = connect();
    ASSERT_TRUE(begin(connection, Seconds{600}));
    world.calls.clear();
    EXPECT_EQ(terminate(), 75);
    EXPECT_THAT(world.calls.changes(), ElementsAre("save locked", "unlock Halvo.app"));
}

TEST_F(HelperServiceTest, TerminationEndsWithZeroWhenNothingIsHeld) {
    start();
    EXPECT_EQ(terminate(), 0);
}

TEST_F(HelperServiceTest, TerminationEndsWithZeroWhenTheTimeIsUp) {
    start();
    const auto connection = connect();
    ASSERT_TRUE(begin(connection, Seconds{600}));
    world.clock.advance(Seconds{600});
    EXPECT_EQ(terminate(), 0);
}

TEST_F(HelperServiceTest, TerminationDoesNotWaitForConnections) {
    start();
    const auto connection = connect();
    EXPECT_EQ(pass(10), std::nullopt);
    EXPECT_EQ(terminate(), 0);
}

TEST_F(HelperServiceTest, ServesRequestsWithItsEngine) {
    start();
    const auto mine = connect(ann);
    const auto theirs = connect(ben);
    ASSERT_TRUE(begin(mine, Seconds{600}));
    EXPECT_TRUE(mine.status().holding);
    EXPECT_FALSE(theirs.status().holding);
    EXPECT_TRUE(world.flags.isSet(app));
}

// The executor check: whatever is called from another thread than the main one ends the process.

void onAnotherThread(const std::function<void()>& work) { std::thread(work).join(); }

using HelperServiceDeathTest = HelperServiceTest;

constexpr const char* wrongExecutor =
    "Incorrect actor executor assumption; Expected same executor as MainActor\\.";

TEST_F(HelperServiceDeathTest, TicksOnTheMainQueueOnly) {
    start();
    EXPECT_DEATH(onAnotherThread([this] { service.tick(); }), wrongExecutor);
}

TEST_F(HelperServiceDeathTest, TerminatesOnTheMainQueueOnly) {
    start();
    EXPECT_DEATH(onAnotherThread([this] { service.terminate(); }), wrongExecutor);
}

TEST_F(HelperServiceDeathTest, CountsOnTheMainQueueOnly) {
    start();
    EXPECT_DEATH(onAnotherThread([this] { service.connectionOpened(); }), wrongExecutor);
    EXPECT_DEATH(onAnotherThread([this] { service.connectionClosed(); }), wrongExecutor);
}

}  // namespace
}  // namespace halvo::testing
