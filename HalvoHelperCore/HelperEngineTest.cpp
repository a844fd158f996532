#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/Printing.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::Crash;
using testing::LogCapture;
using testing::Opening;
using testing::SimulatedWorld;
using Calls = std::vector<std::string>;
using Lift = HelperEngine::Lift;

constexpr Seconds second{1};
constexpr Seconds minute{60};
constexpr Seconds hour{3600};
constexpr Seconds day{86400};

// Two people.
constexpr std::uint32_t anna = 501;
constexpr std::uint32_t ben = 502;

constexpr const char* refusedBundle = "Refused a begin for a bundle that isn't the caller's own";
constexpr const char* refusedPerson = "Refused a begin while another person's Ultra Hard mode runs";
constexpr const char* lockedAgain = "Locked Halvo's app again";
constexpr const char* opening = "Halvo isn't running during Ultra Hard mode; opening it";

// A machine with Anna at the console, and an engine that has started up on it.
class HelperEngineTest : public ::testing::Test {
  protected:
    HelperEngineTest() {
        world.session.console = anna;
        restart();
    }

    // A new engine on the same machine, started up; the one before is gone without a word.
    void restart() {
        engine.emplace(world.clock, world.flags, world.store, world.session, world.opener);
        engine->startup();
    }

    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // The caller is `uid`, from the bundle that it asks for.
    bool begin(const std::string& path, Seconds length, std::uint32_t uid = anna) {
        return engine->begin(path, now() + length, now(), {uid, path});
    }

    bool beginFrom(WallDate started, WallDate until, std::uint32_t uid = anna) {
        return engine->begin(app, until, started, {uid, app});
    }

    [[nodiscard]] HelperPeer peer(std::uint32_t uid = anna) const { return {uid, app}; }

    // What is held, and the same on the disk.
    const HelperCommitment& held() {
        static const HelperCommitment none;
        EXPECT_TRUE(engine->commitment().has_value());
        return engine->commitment() ? *engine->commitment() : none;
    }

    // Forgets what was said and done so far.
    void forget() {
        log.clear();
        world.calls.clear();
    }

    void expectIdle() {
        EXPECT_TRUE(engine->isIdle());
        EXPECT_TRUE(world.store.isEmpty());
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    std::string otherApp = world.addBundle("Applications/Other.app");
    std::string deepApp = world.addBundle("Applications/Sub/Deep.app");
    std::optional<HelperEngine> engine;
};

// --- Construction and collaborators

TEST_F(HelperEngineTest, TakesItsTimesFromTheTable) {
    EXPECT_EQ(HelperEngine::Timing::tick, second * 2);
    EXPECT_EQ(HelperEngine::Timing::checkpoint, minute);
    EXPECT_EQ(HelperEngine::Timing::sessionEndGrace, second * 90);
    EXPECT_EQ(HelperEngine::Timing::silence, second * 6);
    EXPECT_EQ(HelperEngine::Timing::reopenGap, second * 15);
    EXPECT_EQ(HelperEngine::exitWhileHolding, 75);
}

TEST_F(HelperEngineTest, LooksAtTheClockAndTheConsoleOnceWhenItIsMade) {
    forget();
    const HelperEngine fresh = world.makeEngine();
    EXPECT_EQ(world.calls.calls(), (Calls{"reading", "console"}));
    EXPECT_TRUE(fresh.isIdle());
    EXPECT_EQ(fresh.lastLift(), std::nullopt);
}

TEST_F(HelperEngineTest, ReadsTheClockOncePerOperation) {
    struct Row {
        const char* what;
        void (*operate)(HelperEngine&, const HelperPeer&);
        std::size_t whenIdle;
        std::size_t whenHolding;
    };

    const std::vector<Row> rows{
        {"status", [](auto& e, auto& p) { static_cast<void>(e.status(p)); }, 1, 1},
        {"heartbeat", [](auto& e, auto& p) { e.heartbeat(false, p); }, 1, 1},
        {"tick", [](auto& e, auto&) { e.tick(); }, 0, 1},
        {"terminate", [](auto& e, auto&) { e.terminate(); }, 0, 1},
        {"end", [](auto& e, auto& p) { e.end(p); }, 0, 0},
    };
    for (const Row& row : rows) {
        forget();
        row.operate(*engine, peer());
        EXPECT_EQ(world.calls.count("reading"), row.whenIdle) << row.what;
    }
    for (const Row& row : rows) {
        begin(app, hour);
        forget();
        row.operate(*engine, peer());
        EXPECT_EQ(world.calls.count("reading"), row.whenHolding) << row.what;
    }
    forget();
    begin(app, hour);
    EXPECT_EQ(world.calls.count("reading"), 1U);
    forget();
    HelperEngine fresh = world.makeEngine();
    forget();
    fresh.startup();
    EXPECT_EQ(world.calls.count("reading"), 1U);
    EXPECT_EQ(world.calls.count("load"), 1U);
}

TEST_F(HelperEngineTest, WithNothingHeldATickLooksAtNothing) {
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.calls(), Calls{});
    EXPECT_TRUE(log.isEmpty());
}

// --- Begin

TEST_F(HelperEngineTest, ABeginIsHeldStoredAndLocked) {
    forget();
    EXPECT_TRUE(begin(app, hour * 2));
    const HelperCommitment expected{app, anna, now(), hour * 2, day, world.clock.now(), true};
    EXPECT_EQ(held(), expected);
    EXPECT_EQ(world.store.stored, StoredCommitment(expected));
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_FALSE(engine->isIdle());
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 7200 s"});
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(HelperEngineTest, TheRecordOwesTheUnlockBeforeTheFlagIsTouched) {
    forget();
    begin(app, hour);
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "lock Halvo.app", "save locked"}));
}

TEST_F(HelperEngineTest, TheSecondsInTheLogAreCutOff) {
    begin(app, Seconds{90.999});
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 90 s"});
    log.clear();
    begin(app, Seconds{0.5});
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 0 s"});
}

TEST_F(HelperEngineTest, ABeginForWhatIsNoBundlePathIsRefused) {
    for (const std::string& path :
         {std::string(), std::string("Halvo.app"), std::string("/Applications/Halvo"),
          "/Applications/../Halvo.app" + std::string(), app + "/", app + "/Contents/MacOS/Halvo"}) {
        forget();
        EXPECT_FALSE(engine->begin(path, now() + hour, now(), {anna, path})) << path;
        EXPECT_EQ(log.errors(), Calls{refusedBundle});
        EXPECT_EQ(world.calls.changes(), Calls{});
    }
    expectIdle();
}

TEST_F(HelperEngineTest, ABeginForAnotherBundleThanTheCallersOwnIsRefused) {
    for (const std::optional<std::string>& own :
         {std::optional<std::string>(), std::optional(otherApp), std::optional(app + "/"),
          std::optional<std::string>("")}) {
        forget();
        EXPECT_FALSE(engine->begin(app, now() + hour, now(), {anna, own}));
        EXPECT_EQ(log.errors(), Calls{refusedBundle});
        EXPECT_EQ(world.calls.changes(), Calls{});
    }
    expectIdle();
}

TEST_F(HelperEngineTest, ABeginForAForeignBundleDoesNotEvenLiftWhatHasExpired) {
    begin(app, minute);
    world.clock.advance(hour);
    const HelperCommitment before = held();
    forget();
    EXPECT_FALSE(engine->begin(app, now() + hour, now(), {anna, otherApp}));
    EXPECT_EQ(held(), before);
    EXPECT_EQ(log.errors(), Calls{refusedBundle});
    EXPECT_EQ(world.calls.changes(), Calls{});
}

TEST_F(HelperEngineTest, ABeginThatIsOverAlreadyIsFalseSavesNothingAndSaysNothing) {
    for (const Seconds length : {second * -10, second * 0}) {
        forget();
        EXPECT_FALSE(begin(app, length));
        EXPECT_EQ(world.calls.changes(), Calls{});
        EXPECT_TRUE(log.isEmpty());
        EXPECT_EQ(engine->lastLift(), std::nullopt);
        expectIdle();
    }
}

TEST_F(HelperEngineTest, ABeginThatIsOverAlreadyEndsTheCallersRunningCommitment) {
    begin(app, hour);
    forget();
    EXPECT_FALSE(begin(app, second * -10));
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::ended);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(log.notices(), Calls{"Ultra Hard mode let go: ended"});
}

TEST_F(HelperEngineTest, ABeginStartedHoursAgoIsCappedAtADayFromThen) {
    EXPECT_TRUE(beginFrom(now() - hour * 23, now() + hour * 3));
    EXPECT_EQ(held().capRemaining, hour);
    EXPECT_EQ(held().remaining, hour * 3);
    EXPECT_EQ(held().startedWall, now() - hour * 23);
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 3600 s"});
    EXPECT_EQ(engine->status(peer()).until, now() + hour);
}

TEST_F(HelperEngineTest, ABeginStartedADayAgoIsOver) {
    EXPECT_FALSE(beginFrom(now() - day, now() + hour));
    EXPECT_FALSE(beginFrom(now() - day * 2, now() + hour));
    expectIdle();
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperEngineTest, ABeginOfMoreThanADayIsCapped) {
    EXPECT_TRUE(begin(app, day * 3));
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 86400 s"});
    world.clock.advance(day - second);
    EXPECT_TRUE(engine->heartbeat(false, peer()));
    world.clock.advance(second);
    EXPECT_FALSE(engine->heartbeat(false, peer()));
}

TEST_F(HelperEngineTest, ABeginThatStartsInTheFutureMayLastLongerThanADayFromNow) {
    EXPECT_TRUE(beginFrom(now() + hour * 5, now() + day * 2));
    EXPECT_EQ(held().capRemaining, day + hour * 5);
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 104400 s"});
}

TEST_F(HelperEngineTest, AnExtensionKeepsTheStartAndNeverRaisesTheCap) {
    begin(app, hour);
    const WallDate start = now();
    world.clock.advance(minute * 30);
    EXPECT_TRUE(begin(app, day * 2));
    EXPECT_EQ(held().startedWall, start);
    EXPECT_EQ(held().remaining, day * 2);
    EXPECT_EQ(held().capRemaining, day - minute * 30);
    EXPECT_EQ(held().checkpoint, world.clock.now());
    EXPECT_EQ(engine->status(peer()).until, start + day);
}

TEST_F(HelperEngineTest, NoNumberOfExtensionsPassesADayFromTheFirstStart) {
    begin(app, hour * 10);
    for (int hours = 0; hours < 24; ++hours) {
        EXPECT_TRUE(begin(app, hour * 10)) << hours;
        world.clock.advance(hour);
    }
    EXPECT_FALSE(engine->heartbeat(false, peer()));
    expectIdle();
}

TEST_F(HelperEngineTest, AnExtensionIsNotHelpedBySettingTheWallClock) {
    begin(app, hour);
    world.clock.advance(minute);
    world.clock.moveWallClock(hour * -10);
    EXPECT_TRUE(begin(app, day * 2));
    EXPECT_EQ(held().capRemaining, day - minute);
}

TEST_F(HelperEngineTest, AnExtensionStartedEarlierLowersTheCap) {
    begin(app, hour);
    EXPECT_TRUE(beginFrom(now() - hour * 20, now() + day));
    EXPECT_EQ(held().capRemaining, hour * 4);
    EXPECT_EQ(held().startedWall, now()) << "the start of the first begin stays";
}

// Dates as far away as a double can say.

TEST_F(HelperEngineTest, AnEndOrAStartInTheFarPastEndsWhatIsHeld) {
    for (const double past :
         {-1.0, -62135769600.0, -1e300, std::numeric_limits<double>::lowest()}) {
        begin(app, hour);
        EXPECT_FALSE(beginFrom(now(), wallDate(past)));
        expectIdle();
        begin(app, hour);
        EXPECT_FALSE(beginFrom(wallDate(past), now() + hour));
        expectIdle();
    }
}

TEST_F(HelperEngineTest, AnEndInTheFarFutureIsGrantedUpToTheCapAndNoLonger) {
    for (const double future : {64092211200.0, 1e300, std::numeric_limits<double>::max()}) {
        log.clear();
        EXPECT_TRUE(beginFrom(now() - hour, wallDate(future)));
        EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 82800 s"});
        EXPECT_EQ(engine->status(peer()).until, now() + day - hour);
        EXPECT_TRUE(begin(app, minute)) << "it can be shortened as any other";
        EXPECT_EQ(engine->status(peer()).until, now() + minute);
        engine->end(peer());
    }
}

TEST_F(HelperEngineTest, AnExtensionMayShorten) {
    begin(app, hour);
    EXPECT_TRUE(begin(app, minute));
    EXPECT_EQ(engine->status(peer()).until, now() + minute);
}

TEST_F(HelperEngineTest, AnExtensionLeavesTheLockAsItIs) {
    begin(app, hour);
    forget();
    EXPECT_TRUE(begin(app, hour * 2));
    EXPECT_TRUE(held().locked);
    EXPECT_EQ(world.calls.changes(), Calls{"save locked"});
    EXPECT_EQ(world.calls.count("state Halvo.app"), 0U);
}

TEST_F(HelperEngineTest, AnExtensionTriesToLockWhatCouldNotBeLockedBefore) {
    world.flags.failsToLock = true;
    begin(app, hour);
    EXPECT_FALSE(held().locked);
    world.flags.failsToLock = false;
    EXPECT_TRUE(begin(app, hour));
    EXPECT_TRUE(held().locked);
    EXPECT_TRUE(world.flags.isSet(app));
}

TEST_F(HelperEngineTest, ABeginForAnotherBundleMovesTheLock) {
    begin(app, hour);
    const WallDate start = now();
    world.clock.advance(minute);
    forget();
    EXPECT_TRUE(begin(otherApp, hour));
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_TRUE(world.flags.isSet(otherApp));
    EXPECT_EQ(held().appPath, otherApp);
    EXPECT_TRUE(held().locked);
    EXPECT_EQ(held().startedWall, start);
    EXPECT_EQ(held().capRemaining, day - minute);
    EXPECT_EQ(world.calls.changes(),
              (Calls{"unlock Halvo.app", "save locked", "lock Other.app", "save locked"}));
}

TEST_F(HelperEngineTest, ABeginForAnotherBundleClearsNoFlagThatItDidNotSet) {
    world.flags.setByHand(app, true);
    begin(app, hour);
    forget();
    EXPECT_TRUE(begin(otherApp, hour));
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.count("unlock Halvo.app"), 0U);
}

TEST_F(HelperEngineTest, ABeginForAnotherBundleHoldsEvenIfTheOldOneStaysLocked) {
    begin(app, hour);
    world.flags.failsToUnlock = true;
    EXPECT_TRUE(begin(otherApp, hour));
    EXPECT_EQ(held().appPath, otherApp);
    EXPECT_TRUE(held().locked);
}

TEST_F(HelperEngineTest, ABeginForABundleDeeperInApplicationsIsHeldWithoutALock) {
    forget();
    EXPECT_TRUE(begin(deepApp, hour));
    EXPECT_FALSE(held().locked);
    EXPECT_EQ(world.calls.changes(), Calls{"save unlocked"});
    EXPECT_EQ(world.calls.count("state Deep.app"), 0U);
    EXPECT_FALSE(world.flags.isSet(deepApp));
}

TEST_F(HelperEngineTest, ABundleThatCarriesTheFlagAlreadyIsLeftAlone) {
    world.flags.setByHand(app, true);
    forget();
    EXPECT_TRUE(begin(app, hour));
    EXPECT_FALSE(held().locked);
    EXPECT_EQ(world.calls.changes(), Calls{"save unlocked"});
    engine->tick();
    engine->end(peer());
    EXPECT_TRUE(world.flags.isSet(app)) << "what the helper did not set it never clears";
}

TEST_F(HelperEngineTest, ABundleWhoseFlagsCannotBeReadIsHeldWithoutALock) {
    world.flags.erase(app);
    forget();
    EXPECT_TRUE(begin(app, hour));
    EXPECT_FALSE(held().locked);
    EXPECT_EQ(world.calls.changes(), Calls{"save unlocked"});
}

TEST_F(HelperEngineTest, ALockThatFailsIsLoggedAndTheCommitmentHeldWithoutIt) {
    world.flags.failsToLock = true;
    forget();
    EXPECT_TRUE(begin(app, hour));
    EXPECT_FALSE(held().locked);
    EXPECT_FALSE(world.store.commitment()->locked);
    EXPECT_EQ(log.errors(), Calls{"Couldn't lock Halvo's app"});
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for 3600 s"});
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "lock Halvo.app", "save unlocked"}));
}

TEST_F(HelperEngineTest, ABeginWhileAnotherPersonsCommitmentRunsIsRefused) {
    begin(app, hour, ben);
    const HelperCommitment before = held();
    world.clock.advance(minute);
    forget();
    EXPECT_FALSE(begin(app, hour, anna));
    EXPECT_EQ(log.errors(), Calls{refusedPerson});
    EXPECT_EQ(held(), before) << "not even rebased";
    EXPECT_EQ(world.calls.changes(), Calls{});
}

TEST_F(HelperEngineTest, ABeginWhileAnotherPersonsCommitmentRunsIsRefusedEvenIfItIsOverAlready) {
    begin(app, hour, ben);
    EXPECT_FALSE(begin(app, second * -10, anna));
    EXPECT_EQ(log.errors(), Calls{refusedPerson});
    EXPECT_FALSE(engine->isIdle());
}

TEST_F(HelperEngineTest, ABeginAfterAnotherPersonsCommitmentExpiredLetsThatGoFirst) {
    begin(app, minute, ben);
    world.clock.advance(hour);
    forget();
    EXPECT_TRUE(begin(otherApp, hour, anna));
    EXPECT_EQ(held().uid, anna);
    EXPECT_EQ(held().startedWall, now());
    EXPECT_EQ(engine->lastLift(), Lift::deadline);
    EXPECT_EQ(log.notices(),
              (Calls{"Ultra Hard mode let go: deadline", "Holding Ultra Hard mode for 3600 s"}));
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_TRUE(world.flags.isSet(otherApp));
}

TEST_F(HelperEngineTest, ABeginAfterTheCallersOwnCommitmentExpiredStartsAnew) {
    begin(app, minute);
    world.clock.advance(hour);
    EXPECT_TRUE(begin(app, hour));
    EXPECT_EQ(held().startedWall, now());
    EXPECT_EQ(held().capRemaining, day);
    EXPECT_EQ(log.count("Ultra Hard mode let go: deadline"), 1U);
}

TEST_F(HelperEngineTest, ABeginIsHeldEvenIfItCannotBeSaved) {
    world.store.failsToSave = true;
    EXPECT_TRUE(begin(app, hour));
    EXPECT_TRUE(engine->status(peer()).holding);
    EXPECT_TRUE(world.flags.isSet(app));
}

TEST_F(HelperEngineTest, ABeginOffTheMainQueueEndsTheProcess) {
    const auto result =
        testing::runInChild([this] { std::thread([this] { begin(app, hour); }).join(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find("Incorrect actor executor assumption; Expected same executor as "
                                 "MainActor."),
              std::string::npos);
}

TEST_F(HelperEngineTest, ASpanThatNoWholeNumberHoldsEndsTheProcess) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double date : {1e300, infinity, std::nan("")}) {
        const auto result = testing::runInChild([&] { beginFrom(wallDate(date), wallDate(date)); });
        EXPECT_EQ(result.signal, SIGABRT) << date;
        EXPECT_NE(result.output.find("Fatal error: "), std::string::npos) << result.output;
    }
}

// --- End

TEST_F(HelperEngineTest, AnEndLetsTheCallersCommitmentGo) {
    begin(app, hour);
    forget();
    EXPECT_TRUE(engine->end(peer()));
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::ended);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.changes(), (Calls{"unlock Halvo.app", "remove"}));
    EXPECT_EQ(log.notices(), Calls{"Ultra Hard mode let go: ended"});
}

TEST_F(HelperEngineTest, AnEndNeedsTheUserAndNotTheBundle) {
    begin(app, hour);
    EXPECT_TRUE(engine->end({anna, std::nullopt}));
    expectIdle();
}

TEST_F(HelperEngineTest, AnEndOfAnotherPersonChangesNothing) {
    begin(app, hour);
    const HelperCommitment before = held();
    forget();
    EXPECT_FALSE(engine->end(peer(ben)));
    EXPECT_EQ(held(), before);
    EXPECT_TRUE(log.isEmpty());
    EXPECT_EQ(world.calls.changes(), Calls{});
}

TEST_F(HelperEngineTest, AnEndWithNothingHeldDoesNothingNotEvenLog) {
    forget();
    EXPECT_FALSE(engine->end(peer()));
    EXPECT_TRUE(log.isEmpty());
    EXPECT_EQ(world.calls.calls(), Calls{});
    EXPECT_EQ(engine->lastLift(), std::nullopt);
}

TEST_F(HelperEngineTest, AnEndAfterTheTimeRanOutStillEnds) {
    begin(app, minute);
    world.clock.advance(hour);
    EXPECT_TRUE(engine->end(peer()));
    EXPECT_EQ(engine->lastLift(), Lift::ended);
}

TEST_F(HelperEngineTest, AnEndOfACommitmentWithoutALockTouchesNoFlag) {
    begin(deepApp, hour);
    forget();
    engine->end(peer());
    EXPECT_EQ(world.calls.changes(), Calls{"remove"});
}

TEST_F(HelperEngineTest, AnUnlockThatFailsDoesNotKeepTheCommitment) {
    begin(app, hour);
    world.flags.failsToUnlock = true;
    EXPECT_TRUE(engine->end(peer()));
    expectIdle();
    EXPECT_EQ(log.count("Ultra Hard mode let go: ended"), 1U);
}

TEST_F(HelperEngineTest, OnceLetGoNothingIsDoneAnyMore) {
    begin(app, hour);
    engine->end(peer());
    forget();
    engine->tick();
    EXPECT_FALSE(engine->end(peer()));
    EXPECT_EQ(engine->terminate(), 0);
    EXPECT_EQ(world.calls.calls(), Calls{});
    EXPECT_TRUE(log.isEmpty());
    EXPECT_EQ(engine->lastLift(), Lift::ended);
}

// --- Status

TEST_F(HelperEngineTest, AStatusWithNothingHeldIsIdle) {
    EXPECT_EQ(engine->status(peer()), HelperStatus::idle);
}

TEST_F(HelperEngineTest, AStatusTellsTheOwnerWhenItEndsAndWhetherItIsLocked) {
    begin(app, hour);
    world.clock.advance(minute);
    EXPECT_EQ(engine->status(peer()), (HelperStatus{true, now() + hour - minute, true}));
    begin(deepApp, hour);
    EXPECT_EQ(engine->status(peer()), (HelperStatus{true, now() + hour, false}));
}

TEST_F(HelperEngineTest, AStatusTellsTheEndOnTheWallClockOfTheMoment) {
    begin(app, hour);
    world.clock.moveWallClock(hour * -5);
    EXPECT_EQ(engine->status(peer()).until, now() + hour);
}

TEST_F(HelperEngineTest, AStatusTellsAnotherPersonNothing) {
    begin(app, hour);
    EXPECT_EQ(engine->status(peer(ben)), HelperStatus::idle);
}

TEST_F(HelperEngineTest, AStatusAfterTheTimeRanOutIsIdleAndLiftsNothing) {
    begin(app, minute);
    world.clock.advance(minute);
    forget();
    EXPECT_EQ(engine->status(peer()), HelperStatus::idle);
    EXPECT_FALSE(engine->isIdle());
    EXPECT_TRUE(log.isEmpty());
    EXPECT_EQ(world.calls.changes(), Calls{});
}

// --- Heartbeat

TEST_F(HelperEngineTest, AHeartbeatIsTrueWhileTheCallersCommitmentIsLive) {
    EXPECT_FALSE(engine->heartbeat(false, peer()));
    begin(app, minute);
    forget();
    EXPECT_TRUE(engine->heartbeat(false, peer()));
    EXPECT_TRUE(engine->heartbeat(true, {anna, std::nullopt}));
    EXPECT_EQ(world.calls.changes(), Calls{});
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperEngineTest, AHeartbeatOfAnotherPersonIsFalseAndNothingElseHappens) {
    begin(app, minute);
    const HelperCommitment before = held();
    world.clock.advance(hour);
    forget();
    EXPECT_FALSE(engine->heartbeat(false, peer(ben)));
    EXPECT_EQ(held(), before) << "although it has expired";
    EXPECT_TRUE(log.isEmpty());
    EXPECT_EQ(world.calls.changes(), Calls{});
}

TEST_F(HelperEngineTest, AHeartbeatAfterTheTimeRanOutLetsGo) {
    begin(app, minute);
    world.clock.advance(minute);
    forget();
    EXPECT_FALSE(engine->heartbeat(false, peer()));
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::deadline);
    EXPECT_EQ(log.notices(), Calls{"Ultra Hard mode let go: deadline"});
}

// --- The periodic check: time

TEST_F(HelperEngineTest, ATickAfterTheTimeRanOutLetsGo) {
    begin(app, second * 3);
    world.clock.advance(second * 2);
    engine->tick();
    EXPECT_FALSE(engine->isIdle());
    world.clock.advance(second * 2);
    forget();
    engine->tick();
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::deadline);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.calls(), (Calls{"reading", "unlock Halvo.app", "remove"}));
    EXPECT_EQ(log.notices(), Calls{"Ultra Hard mode let go: deadline"});
}

TEST_F(HelperEngineTest, ATickWithExactlyNothingLeftLetsGo) {
    begin(app, second * 2);
    world.clock.advance(second * 2);
    engine->tick();
    expectIdle();
}

TEST_F(HelperEngineTest, ATickSavesTheRebasedRecordOnceAMinute) {
    begin(app, hour);
    const HelperCommitment begun = held();
    forget();
    world.clock.advance(second * 2);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 0U) << "the first tick after a begin";
    world.clock.advance(second * 57);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 0U) << "59 s after the begin";
    EXPECT_EQ(held(), begun);
    world.clock.advance(second);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 1U) << "60 s after the begin";
    EXPECT_EQ(held(), begun.rebased(world.clock.now()));
    EXPECT_EQ(world.store.stored, StoredCommitment(held()));
    world.clock.advance(second * 59);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 1U) << "59 s after the save";
    world.clock.advance(hour / 2);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 2U) << "one save, however long it slept";
}

TEST_F(HelperEngineTest, ASaveThatFailsLosesNoTime) {
    begin(app, hour);
    world.store.failsToSave = true;
    for (int minutes = 0; minutes < 30; ++minutes) {
        world.clock.advance(minute);
        engine->tick();
    }
    EXPECT_EQ(engine->status(peer()).until, now() + hour / 2);
}

TEST_F(HelperEngineTest, MissedTicksLoseNoTime) {
    begin(app, hour);
    world.clock.advance(hour / 2);
    EXPECT_EQ(engine->status(peer()).until, now() + hour / 2);
    engine->tick();
    EXPECT_EQ(engine->status(peer()).until, now() + hour / 2);
}

TEST_F(HelperEngineTest, SettingTheWallClockChangesNoTimeLeft) {
    begin(app, hour);
    for (const Seconds jump : {hour * -48, hour * 96, hour * -1}) {
        world.clock.moveWallClock(jump);
        world.clock.advance(minute);
        engine->tick();
    }
    EXPECT_EQ(engine->status(peer()).until, now() + hour - minute * 3);
}

TEST_F(HelperEngineTest, AClockThatGoesBackwardsGivesNoTimeBack) {
    begin(app, hour);
    world.clock.setSinceBoot(second * 100);
    EXPECT_EQ(engine->status(peer()).until, now() + hour - second * 100);
}

TEST_F(HelperEngineTest, AQuietTickAllocatesNothing) {
    world.session.start(app, anna);
    begin(app, hour);
    world.calls.stopRecording();
    engine->tick();
    world.clock.advance(second * 20);
    const std::size_t before = testing::mallocsMade();
    for (int i = 0; i < 5; ++i) {
        world.clock.advance(second * 2);
        engine->tick();
    }
    EXPECT_EQ(testing::mallocsMade(), before);
    std::string(100, 'x').swap(app);
    EXPECT_GT(testing::mallocsMade(), before) << "nothing was counted";
    EXPECT_FALSE(engine->isIdle());
}

// --- The periodic check: the lock

TEST_F(HelperEngineTest, AFlagClearedByHandIsBackWithinOneTick) {
    begin(app, hour);
    world.flags.setByHand(app, false);
    forget();
    engine->tick();
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(log.notices(), Calls{lockedAgain});
    log.clear();
    engine->tick();
    EXPECT_TRUE(log.isEmpty()) << "nothing to do any more";
}

TEST_F(HelperEngineTest, TheFlagIsBackBeforeTheAppIsOpened) {
    begin(app, hour);
    world.clock.advance(minute);
    world.flags.setByHand(app, false);
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "lock Halvo.app", "open Halvo.app"}));
    EXPECT_EQ(log.notices(), (Calls{lockedAgain, opening}));
}

TEST_F(HelperEngineTest, AFlagIsSetAgainWhoeverIsAtTheConsole) {
    begin(app, hour);
    for (const std::optional<std::uint32_t> user :
         {std::optional<std::uint32_t>(), std::optional(ben)}) {
        world.session.console = user;
        world.flags.setByHand(app, false);
        engine->tick();
        EXPECT_TRUE(world.flags.isSet(app));
    }
}

TEST_F(HelperEngineTest, AFlagThatCannotBeSetAgainIsTriedAtEveryTickAndLoggedAllTheSame) {
    begin(app, hour);
    world.flags.setByHand(app, false);
    world.flags.failsToLock = true;
    engine->tick();
    engine->tick();
    EXPECT_EQ(log.count(lockedAgain), 2U);
    EXPECT_TRUE(held().locked);
    world.flags.failsToLock = false;
    engine->tick();
    EXPECT_TRUE(world.flags.isSet(app));
}

TEST_F(HelperEngineTest, ABundleThatIsGoneIsNotChased) {
    begin(app, hour);
    world.flags.erase(app);
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.changes(), Calls{});
    EXPECT_TRUE(log.isEmpty());
    EXPECT_TRUE(held().locked);
}

TEST_F(HelperEngineTest, ALockThatIsNotOwedIsNotLookedAt) {
    begin(deepApp, hour);
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.count("state Deep.app"), 0U);
}

// --- The periodic check: the app. One row per event with its time, and what must then hold.

enum class Event {
    none,
    appStarts,
    appQuits,
    appStartsForBen,
    heartbeat,
    sessionEnds,
    begin,
    annaComes,
    benComes,
    everybodyLeaves,
    end,
    restart,
};

struct Row {
    // Seconds since the begin.
    double at;
    Event event;
    // How often the app has been opened by then, and what the last opening said.
    std::size_t openings;
    bool afterQuit = false;
};

class KeepingTheAppOpenTest : public HelperEngineTest {
  protected:
    // Begins at 0 and ticks at 2, 4, 6 ...; an event comes before the tick of its time.
    void play(const std::vector<Row>& rows) {
        const Seconds start = world.clock.now().sinceBoot;
        begin(app, hour);
        for (const Row& row : rows) {
            advanceTo(start, Seconds{row.at});
            happen(row.event);
            if (std::fmod(row.at, 2.0) == 0 && row.at > 0) {
                engine->tick();
            }
            const auto& openings = world.opener.openings;
            EXPECT_EQ(openings.size(), row.openings) << "at " << row.at << " s";
            if (!openings.empty()) {
                EXPECT_EQ(openings.back().afterQuit, row.afterQuit) << "at " << row.at << " s";
                EXPECT_EQ(openings.back().appPath, app);
                EXPECT_EQ(openings.back().uid, anna);
            }
        }
        EXPECT_EQ(log.count(opening), world.opener.openings.size());
    }

  private:
    // Lets time pass up to `time`, with every tick before it.
    void advanceTo(Seconds start, Seconds time) {
        while (true) {
            const double passed = (world.clock.now().sinceBoot - start).count();
            const Seconds nextTick{(std::floor(passed / 2) + 1) * 2};
            if (nextTick >= time) {
                world.clock.advance(time - Seconds{passed});
                return;
            }
            world.clock.advance(nextTick - Seconds{passed});
            engine->tick();
        }
    }

    void happen(Event event) {
        switch (event) {
            case Event::none:
                return;
            case Event::appStarts:
                return world.session.start(app, anna);
            case Event::appQuits:
                return world.session.quit(app, anna);
            case Event::appStartsForBen:
                return world.session.start(app, ben);
            case Event::heartbeat:
                EXPECT_TRUE(engine->heartbeat(false, peer()));
                return;
            case Event::sessionEnds:
                EXPECT_TRUE(engine->heartbeat(true, peer()));
                return;
            case Event::begin:
                EXPECT_TRUE(begin(app, hour));
                return;
            case Event::annaComes:
                world.session.console = anna;
                return;
            case Event::benComes:
                world.session.console = ben;
                return;
            case Event::everybodyLeaves:
                world.session.console.reset();
                return;
            case Event::end:
                EXPECT_TRUE(engine->end(peer()));
                return;
            case Event::restart:
                restart();
                return;
        }
    }
};

TEST_F(KeepingTheAppOpenTest, AnAppThatRunsIsNeverOpened) {
    play({{0, Event::appStarts, 0}, {600, Event::none, 0}});
}

TEST_F(KeepingTheAppOpenTest, AnAppThatNeverCameUpIsOpenedSixSecondsAfterTheBegin) {
    play({{4, Event::none, 0}, {6, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AnAppThatQuitsIsOpenedSixSecondsAfterItWasLastSeen) {
    play({{0, Event::appStarts, 0},
          // It is seen at 6 and at 12.
          {13, Event::appQuits, 0},
          {16, Event::none, 0},
          {18, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AnAppThatDoesNotComeUpIsOpenedAgainAfterFifteenSeconds) {
    play({{6, Event::none, 1, true},
          {20, Event::none, 1, true},
          // 15 s after the opening there is no tick.
          {22, Event::none, 2, true},
          {36, Event::none, 2, true},
          {38, Event::none, 3, true}});
}

TEST_F(KeepingTheAppOpenTest, ExactlyFifteenSecondsAreEnough) {
    play({{5, Event::none, 0}, {6, Event::none, 1, true}, {20, Event::none, 1, true}});
    world.clock.advance(second);
    engine->tick();
    EXPECT_EQ(world.opener.openings.size(), 2U);
}

TEST_F(KeepingTheAppOpenTest, AnAppThatComesUpIsLeftAloneUntilItQuitsAgain) {
    play({{6, Event::none, 1, true},
          {9, Event::appStarts, 1, true},
          // Seen at 10.
          {11, Event::appQuits, 1, true},
          {20, Event::none, 1, true},
          {22, Event::none, 2, true}});
}

TEST_F(KeepingTheAppOpenTest, AHeartbeatIsASignOfLife) {
    play({{5, Event::heartbeat, 0},
          {10, Event::none, 0},
          {10.5, Event::heartbeat, 0},
          {16, Event::none, 0},
          {18, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AHeartbeatThatAnnouncesTheEndIsASignOfLifeToo) {
    play({{0, Event::restart, 0},
          {2, Event::sessionEnds, 0},
          {90, Event::none, 0},
          // Heard of in this console session, though never seen.
          {92, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, ExactlySixSecondsOfSilenceAreEnough) {
    play({{10, Event::heartbeat, 1, true},
          {14, Event::none, 1, true},
          {20, Event::heartbeat, 1, true},
          {24, Event::none, 1, true},
          {26, Event::none, 2, true}});
}

TEST_F(KeepingTheAppOpenTest, TheAppOfAnotherPersonIsNotTheirs) {
    play({{0, Event::appStartsForBen, 0}, {6, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AnAnnouncedEndOfTheSessionKeepsItClosedForNinetySeconds) {
    play({{0, Event::appStarts, 0},
          {10, Event::sessionEnds, 0},
          {11, Event::appQuits, 0},
          {98, Event::none, 0},
          {100, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, ASessionThatIsEndingIsNotEvenLookedAt) {
    play({{10, Event::sessionEnds, 1, true}});
    forget();
    world.clock.advance(second * 60);
    engine->tick();
    EXPECT_EQ(world.calls.count("running? Halvo.app"), 0U);
}

TEST_F(KeepingTheAppOpenTest, AHeartbeatTakesTheAnnouncedEndBack) {
    play({{2, Event::sessionEnds, 0},
          {4, Event::heartbeat, 0},
          {8, Event::none, 0},
          {10, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, ABeginTakesTheAnnouncedEndBack) {
    play({{2, Event::sessionEnds, 0},
          {4, Event::begin, 0},
          {8, Event::none, 0},
          {10, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AnnouncingTheEndAgainCountsFromThen) {
    play({{2, Event::sessionEnds, 0},
          {60, Event::sessionEnds, 0},
          {148, Event::none, 0},
          {150, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, ThePersonsLeavingTakesTheAnnouncedEndBack) {
    play({{2, Event::sessionEnds, 0},
          {4, Event::everybodyLeaves, 0},
          {10, Event::annaComes, 0},
          {14, Event::none, 0},
          {16, Event::none, 1, false}});
}

TEST_F(KeepingTheAppOpenTest, AnotherPersonsComingTakesTheAnnouncedEndBack) {
    play({{2, Event::sessionEnds, 0},
          {4, Event::benComes, 0},
          {6, Event::annaComes, 0},
          {10, Event::none, 0},
          {12, Event::none, 1, false}});
}

TEST_F(KeepingTheAppOpenTest, ThePersonsComingLeavesTheAnnouncedEndStanding) {
    play({{3, Event::benComes, 0},
          {10, Event::sessionEnds, 0},
          {20, Event::annaComes, 0},
          {98, Event::none, 0},
          {100, Event::none, 1, false}});
}

TEST_F(KeepingTheAppOpenTest, AnAnnouncedEndOutlivesAReturnThatNobodySaw) {
    play({{2, Event::sessionEnds, 0},
          {2.5, Event::benComes, 0},
          {3.5, Event::annaComes, 0},
          {90, Event::none, 0},
          {92, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, NothingIsOpenedWhileAnotherPersonIsAtTheConsole) {
    play({{3, Event::benComes, 0}, {600, Event::none, 0}});
}

TEST_F(KeepingTheAppOpenTest, NothingIsOpenedWhileNobodyIsAtTheConsole) {
    play({{3, Event::everybodyLeaves, 0}, {600, Event::none, 0}});
}

TEST_F(KeepingTheAppOpenTest, ComingBackGivesSixSecondsOfGrace) {
    play({{3, Event::benComes, 0},
          {99, Event::annaComes, 0},
          // Seen at 100.
          {104, Event::none, 0},
          {106, Event::none, 1, false}});
}

TEST_F(KeepingTheAppOpenTest, AnAppSeenInThisConsoleSessionIsOpenedAsAfterAQuit) {
    play({{3, Event::benComes, 0},
          {99, Event::annaComes, 0},
          {100, Event::appStarts, 0},
          {107, Event::appQuits, 0},
          {110, Event::none, 0},
          {112, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, SwitchingWithoutATickInBetweenIsNotSeen) {
    play({{3, Event::benComes, 0}, {3.5, Event::annaComes, 0}, {6, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AfterARestartOfTheHelperTheFirstLookComesSixSecondsLater) {
    play({{0, Event::appStarts, 0},
          {21, Event::restart, 0},
          {22, Event::appQuits, 0},
          {26, Event::none, 0},
          // Nothing is known of an app that was never seen since.
          {28, Event::none, 1, false}});
}

TEST_F(KeepingTheAppOpenTest, LettingGoForgetsWhatWasSeen) {
    play({{0, Event::appStarts, 0},
          {13, Event::appQuits, 0},
          {18, Event::none, 1, true},
          {19, Event::end, 1, true},
          {20, Event::begin, 1, true},
          {24, Event::none, 1, true},
          // Less than 15 s after the opening of the commitment before.
          {26, Event::none, 2, true}});
}

TEST_F(KeepingTheAppOpenTest, LettingGoKeepsTheConsoleSession) {
    play({{3, Event::benComes, 0},
          {8, Event::annaComes, 0},
          {9, Event::end, 0},
          {9.5, Event::begin, 0},
          {14, Event::none, 0},
          {16, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, AConsoleChangeWhileNothingIsHeldIsSeenAtTheNextTickAfter) {
    play({{3, Event::end, 0},
          {5, Event::benComes, 0},
          {10, Event::none, 0},
          {13, Event::annaComes, 0},
          {20, Event::begin, 0},
          {24, Event::none, 0},
          {26, Event::none, 1, true}});
}

TEST_F(KeepingTheAppOpenTest, NobodyLooksForTheAppBeforeItIsSilent) {
    forget();
    begin(app, hour);
    world.clock.advance(second * 5);
    engine->tick();
    EXPECT_EQ(world.calls.count("running? Halvo.app"), 0U);
    world.clock.advance(second);
    engine->tick();
    EXPECT_EQ(world.calls.count("running? Halvo.app"), 1U);
}

// --- Startup

class StartupTest : public HelperEngineTest {
  protected:
    // On the disk: a locked commitment of Anna's with an hour left, as of now.
    HelperCommitment stored{app, anna, now(), hour, day, world.clock.now(), true};

    void startWith(const StoredCommitment& content) {
        world.store.stored = content;
        forget();
        restart();
    }
};

TEST_F(StartupTest, WithNothingStoredNothingHappens) {
    startWith(NoCommitment{});
    EXPECT_EQ(world.calls.calls(), (Calls{"reading", "console", "reading", "load"}));
    EXPECT_TRUE(log.isEmpty());
    expectIdle();
    EXPECT_EQ(engine->lastLift(), std::nullopt);
}

TEST_F(StartupTest, ALiveCommitmentIsTakenUpRebasedAndSaved) {
    world.flags.setByHand(app, true);
    world.clock.advance(Seconds{600.5});
    startWith(stored);
    EXPECT_EQ(held(), stored.rebased(world.clock.now()));
    EXPECT_EQ(world.store.stored, StoredCommitment(held()));
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for another 2999 s"});
    EXPECT_EQ(world.calls.changes(), Calls{"save locked"});
}

TEST_F(StartupTest, TellsTheTimeLeftAndNotTheTimeAsked) {
    HelperCommitment capped = stored;
    capped.capRemaining = Seconds{1800};
    startWith(capped);
    EXPECT_EQ(log.notices().back(), "Holding Ultra Hard mode for another 1800 s");
}

TEST_F(StartupTest, ALockThatIsOwedIsSetAgainBeforeAnythingIsSaid) {
    startWith(stored);
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(log.notices(), (Calls{lockedAgain, "Holding Ultra Hard mode for another 3600 s"}));
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "lock Halvo.app"}));
}

TEST_F(StartupTest, ALockThatIsNotOwedIsNotSet) {
    stored.locked = false;
    startWith(stored);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.count("state Halvo.app"), 0U);
}

TEST_F(StartupTest, ABundleThatIsGoneIsNotChased) {
    world.flags.erase(app);
    startWith(stored);
    EXPECT_EQ(log.notices(), Calls{"Holding Ultra Hard mode for another 3600 s"});
    EXPECT_TRUE(held().locked);
}

TEST_F(StartupTest, TheNextSaveComesAMinuteAfterTheStart) {
    startWith(stored);
    world.clock.advance(second * 59);
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 0U);
    world.clock.advance(second);
    engine->tick();
    EXPECT_EQ(world.calls.count("save locked"), 1U);
}

TEST_F(StartupTest, TheFirstTickAfterAStartWithNothingStoredHasNothingToDo) {
    startWith(NoCommitment{});
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.calls(), Calls{});
}

TEST_F(StartupTest, ACommitmentThatExpiredMeanwhileIsLetGo) {
    world.flags.setByHand(app, true);
    world.clock.advance(hour);
    startWith(stored);
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::expiredAtStartup);
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(log.messages(),
              (std::vector<testing::LogMessage>{
                  {LogLevel::Default, "Ultra Hard mode let go: expiredAtStartup"}}));
    EXPECT_EQ(world.calls.changes(), (Calls{"unlock Halvo.app", "remove"}));
}

TEST_F(StartupTest, ACommitmentThatExpiredWithoutALockClearsNoFlag) {
    world.flags.setByHand(app, true);
    world.clock.advance(hour * 2);
    stored.locked = false;
    startWith(stored);
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(engine->lastLift(), Lift::expiredAtStartup);
}

TEST_F(StartupTest, AfterARebootTheTimeSinceBootIsChargedAtLeast) {
    world.clock.reboot(Seconds{0}, minute);
    world.clock.moveWallClock(hour * -10);
    startWith(stored);
    EXPECT_EQ(engine->status(peer()).until, now() + hour - minute);
}

TEST_F(StartupTest, AfterARebootTheTimeThatItWasOffIsCharged) {
    world.clock.reboot(minute * 20, minute);
    startWith(stored);
    EXPECT_EQ(engine->status(peer()).until, now() + hour - minute * 21);
}

TEST_F(StartupTest, AfterARebootADayFromTheStartIsTheEnd) {
    stored.remaining = day * 9;
    stored.capRemaining = day * 9;
    world.clock.reboot(hour * 23, minute);
    startWith(stored);
    EXPECT_EQ(engine->status(peer()).until, stored.startedWall + day);
    world.clock.reboot(hour, minute);
    startWith(stored);
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::expiredAtStartup);
}

TEST_F(StartupTest, ACommitmentIsHeldEvenIfItCannotBeSaved) {
    world.store.failsToSave = true;
    world.clock.advance(minute);
    startWith(stored);
    EXPECT_TRUE(engine->status(peer()).holding);
    EXPECT_EQ(world.store.stored, StoredCommitment(stored));
}

TEST_F(StartupTest, TheFirstLookNeverComesBeforeTheStartEvenByAClockThatWentBack) {
    startWith(stored);
    world.clock.setSinceBoot(second * 100);
    for (const std::uint32_t user : {ben, anna}) {
        world.session.console = user;
        engine->tick();
    }
    world.clock.advance(minute);
    engine->tick();
    EXPECT_TRUE(world.opener.openings.empty());
    world.clock.setSinceBoot(second * 1006);
    engine->tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

TEST_F(StartupTest, AnUnreadableFileLiftsEverythingThatIsKnownOfIt) {
    world.flags.setByHand(app, true);
    startWith(UnreadableCommitment{app, true});
    expectIdle();
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(engine->lastLift(), Lift::unreadableAtStartup);
    EXPECT_EQ(world.calls.changes(), (Calls{"unlock Halvo.app", "remove"}));
    EXPECT_EQ(log.messages(),
              (std::vector<testing::LogMessage>{
                  {LogLevel::Error, "The state file couldn't be read; everything was lifted"}}));
}

TEST_F(StartupTest, AnUnreadableFileWithoutALockOrAPathClearsNoFlag) {
    world.flags.setByHand(app, true);
    world.flags.setByHand(deepApp, true);
    for (const UnreadableCommitment& content :
         {UnreadableCommitment{app, false}, UnreadableCommitment{std::nullopt, true},
          UnreadableCommitment{deepApp, true}, UnreadableCommitment{app + "/", true},
          UnreadableCommitment{"", true}}) {
        startWith(content);
        expectIdle();
        EXPECT_EQ(world.calls.changes(), Calls{"remove"});
        EXPECT_EQ(engine->lastLift(), Lift::unreadableAtStartup);
    }
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_TRUE(world.flags.isSet(deepApp));
}

TEST_F(StartupTest, AnUnlockThatFailsForAnUnreadableFileIsIgnored) {
    world.flags.setByHand(app, true);
    world.flags.failsToUnlock = true;
    startWith(UnreadableCommitment{app, true});
    expectIdle();
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(StartupTest, AStoredSpanThatNoWholeNumberHoldsEndsTheProcess) {
    stored.remaining = Seconds{1e300};
    stored.capRemaining = Seconds{1e300};
    const auto result = testing::runInChild([this] { startWith(stored); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find("Fatal error: "), std::string::npos) << result.output;
}

// --- Termination

TEST_F(HelperEngineTest, TerminatingWithNothingHeldIsZero) {
    forget();
    EXPECT_EQ(engine->terminate(), 0);
    EXPECT_EQ(world.calls.calls(), Calls{});
}

TEST_F(HelperEngineTest, TerminatingWhileHoldingSavesUnlocksAndAsksToBeStartedAgain) {
    begin(app, hour);
    const HelperCommitment before = held();
    world.clock.advance(minute);
    forget();
    EXPECT_EQ(engine->terminate(), 75);
    EXPECT_EQ(world.store.stored, StoredCommitment(before.rebased(world.clock.now())));
    EXPECT_TRUE(world.store.commitment()->locked) << "the next start sets the lock again";
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "unlock Halvo.app"}));
    EXPECT_EQ(held(), before) << "what the engine holds is not touched";
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperEngineTest, TerminatingWithoutALockTouchesNoFlag) {
    begin(deepApp, hour);
    forget();
    EXPECT_EQ(engine->terminate(), 75);
    EXPECT_EQ(world.calls.changes(), Calls{"save unlocked"});
}

TEST_F(HelperEngineTest, TheStartAfterATerminationTakesTheCommitmentUpAgain) {
    begin(app, hour);
    world.clock.advance(minute);
    engine->terminate();
    world.clock.advance(minute);
    forget();
    restart();
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(engine->status(peer()), (HelperStatus{true, now() + hour - minute * 2, true}));
    EXPECT_EQ(log.notices(), (Calls{lockedAgain, "Holding Ultra Hard mode for another 3480 s"}));
}

TEST_F(HelperEngineTest, TerminatingJustAfterTheTimeRanOutIsZeroAndDoesNotLift) {
    begin(app, minute);
    world.clock.advance(minute);
    forget();
    EXPECT_EQ(engine->terminate(), 0);
    EXPECT_EQ(world.calls.changes(), (Calls{"save locked", "unlock Halvo.app"}));
    EXPECT_EQ(world.store.commitment()->remaining, second * 0);
    EXPECT_FALSE(engine->isIdle());
    EXPECT_TRUE(log.isEmpty());
    restart();
    expectIdle();
    EXPECT_EQ(engine->lastLift(), Lift::expiredAtStartup);
}

TEST_F(HelperEngineTest, AnUnlockThatFailsAtTheEndDoesNotChangeTheStatus) {
    begin(app, hour);
    world.flags.failsToUnlock = true;
    EXPECT_EQ(engine->terminate(), 75);
}

// --- Crashes

TEST_F(HelperEngineTest, ACrashBetweenSaveAndLockLeavesARecordThatOwesTheUnlock) {
    // reading, state, save, and then the lock.
    world.calls.crashAt(4);
    EXPECT_THROW(begin(app, hour), Crash);
    EXPECT_FALSE(world.flags.isSet(app));
    ASSERT_NE(world.store.commitment(), nullptr);
    EXPECT_TRUE(world.store.commitment()->locked);
    restart();
    EXPECT_TRUE(world.flags.isSet(app));
    engine->end(peer());
    EXPECT_FALSE(world.flags.isSet(app));
}

TEST_F(HelperEngineTest, ACrashWhileLettingGoLeavesNoFlagBehindTheNextStart) {
    begin(app, minute);
    world.clock.advance(minute);
    // reading, unlock, and then the removal.
    world.calls.crashAt(3);
    EXPECT_THROW(engine->tick(), Crash);
    restart();
    expectIdle();
    EXPECT_FALSE(world.flags.isSet(app));
    EXPECT_EQ(engine->lastLift(), Lift::expiredAtStartup);
}

}  // namespace
}  // namespace halvo
