#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/Printing.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::ann;
using testing::ben;
using testing::day;
using testing::hour;
using testing::LogCapture;
using testing::minute;
using testing::SimulatedWorld;
using Lift = HelperEngine::Lift;
using Limits = std::numeric_limits<double>;

constexpr Seconds second{1};

constexpr const char* refusedBundle =
    "error: Refused a begin for a bundle that isn't the caller's own";
constexpr const char* refusedPerson =
    "error: Refused a begin while another person's Ultra Hard mode runs";
constexpr const char* lockedAgain = "Locked Halvo's app again";
constexpr const char* opening = "Halvo isn't running during Ultra Hard mode; opening it";
constexpr const char* unreadable = "error: The state file couldn't be read; everything was lifted";

std::string holding(long seconds) {
    return "Holding Ultra Hard mode for " + std::to_string(seconds) + " s";
}

std::string holdingAnother(long seconds) {
    return "Holding Ultra Hard mode for another " + std::to_string(seconds) + " s";
}

std::string letGo(const char* reason) { return std::string("Ultra Hard mode let go: ") + reason; }

std::string joined(const std::vector<std::string>& parts) {
    std::string all;
    for (const std::string& part : parts) {
        all += (all.empty() ? "" : ", ") + part;
    }
    return all;
}

// A machine with Anna at the console, and an engine that has started up on it.
struct Machine {
    Machine() {
        world.session.console = ann;
        restart();
    }

    // A new engine on the same machine, started up; the one before is killed without terminate().
    void restart() {
        engine.emplace(world.clock, world.flags, world.store, world.session, world.opener);
        engine->startup();
    }

    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // The caller is `uid`, from the bundle that it asks for; `started` is counted from now.
    bool begin(const std::string& path, Seconds length, std::uint32_t uid = ann,
               Seconds started = {}) {
        return engine->begin(path, now() + length, now() + started, {uid, path});
    }

    bool end(std::uint32_t uid = ann) { return engine->end({uid, std::nullopt}); }

    bool heartbeat(std::uint32_t uid = ann, bool sessionEnding = false) {
        return engine->heartbeat(sessionEnding, {uid, app});
    }

    [[nodiscard]] HelperStatus status(std::uint32_t uid = ann) const {
        return engine->status({uid, app});
    }

    void tickAfter(Seconds span) {
        world.clock.advance(span);
        engine->tick();
    }

    // Begins, and then lets all of the time pass, and an hour more.
    void beginAndExpire(std::uint32_t uid = ann) {
        begin(app, minute, uid);
        world.clock.advance(hour);
    }

    // What is held.
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

    // What was called of the collaborators since then, what of that changes anything, and what was
    // said; each in order, with ", " in between.
    [[nodiscard]] std::string calls() const { return joined(world.calls.calls()); }

    [[nodiscard]] std::string changes() const { return joined(world.calls.changes()); }

    [[nodiscard]] std::string said() const {
        std::vector<std::string> lines;
        for (const auto& [level, text] : log.messages()) {
            lines.push_back((level == LogLevel::Error ? "error: " : "") + text);
        }
        return joined(lines);
    }

    void expectIdle() const {
        EXPECT_TRUE(engine->isIdle());
        EXPECT_TRUE(world.store.isEmpty());
    }

    void expectNothingDone() const {
        EXPECT_EQ(changes(), "");
        EXPECT_EQ(said(), "");
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    std::string otherApp = world.addBundle("Applications/Other.app");
    std::string deepApp = world.addBundle("Applications/Sub/Deep.app");
    std::optional<HelperEngine> engine;
};

class HelperEngineTest : public ::testing::Test, protected Machine {};

// What happens to a machine.
using Event = void (*)(Machine&);
const Event nothing = [](Machine&) {};
const Event appStarts = [](Machine& m) { m.world.session.start(m.app, ann); };
const Event appQuits = [](Machine& m) { m.world.session.quit(m.app, ann); };
const Event appStartsForBen = [](Machine& m) { m.world.session.start(m.app, ben); };
const Event heartbeat = [](Machine& m) { EXPECT_TRUE(m.heartbeat()); };
const Event sessionEnds = [](Machine& m) { EXPECT_TRUE(m.heartbeat(ann, true)); };
const Event begins = [](Machine& m) { EXPECT_TRUE(m.begin(m.app, hour)); };
const Event annComes = [](Machine& m) { m.world.session.console = ann; };
const Event benComes = [](Machine& m) { m.world.session.console = ben; };
const Event allLeave = [](Machine& m) { m.world.session.console.reset(); };
const Event ends = [](Machine& m) { EXPECT_TRUE(m.end()); };
const Event restarts = [](Machine& m) { m.restart(); };
const Event expires = [](Machine& m) { m.beginAndExpire(); };
const Event beginsDeeper = [](Machine& m) { EXPECT_TRUE(m.begin(m.deepApp, hour)); };
const Event flagIsSet = [](Machine& m) { m.world.flags.setByHand(m.app, true); };
const Event bundleGoes = [](Machine& m) { m.world.flags.erase(m.app); };

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
    EXPECT_EQ(calls(), "reading, console");
    EXPECT_TRUE(fresh.isIdle());
    EXPECT_EQ(fresh.lastLift(), std::nullopt);
}

TEST_F(HelperEngineTest, WithNothingHeldDoesNothingNotEvenLog) {
    for (const auto lift : {std::optional<Lift>(), std::optional(Lift::ended)}) {
        forget();
        engine->tick();
        EXPECT_FALSE(end());
        EXPECT_EQ(engine->terminate(), 0);
        EXPECT_EQ(calls(), "");
        EXPECT_EQ(said(), "");
        EXPECT_EQ(engine->lastLift(), lift);
        // The same once it has let go.
        begin(app, hour);
        end();
    }
}

// --- Begin

TEST_F(HelperEngineTest, ABeginIsHeldStoredAndLocked) {
    forget();
    EXPECT_TRUE(begin(app, hour * 2));
    const HelperCommitment expected{app, ann, now(), hour * 2, day, world.clock.now(), true};
    EXPECT_EQ(held(), expected);
    EXPECT_EQ(world.store.stored, StoredCommitment(expected));
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_FALSE(engine->isIdle());
    EXPECT_EQ(said(), holding(7200));
}

TEST(HelperEngineBeginTest, IsGrantedUpToADayFromItsStart) {
    struct Row {
        double started;
        double length;
        // As the log says; absent when it is refused.
        std::optional<long> granted;
    };

    const Row rows[] = {
        {0, 90.999, 90},
        {0, 0.5, 0},
        {0, 259'200, 86'400},
        {-82'800, 10'800, 3'600},
        {18'000, 172'800, 104'400},
        {-3'600, 6e10, 82'800},
        {-3'600, Limits::max(), 82'800},
        {0, -10, {}},
        {0, 0, {}},
        {-86'400, 3'600, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.length);
        Machine machine;
        machine.forget();
        const Seconds length{row.length};
        const Seconds started{row.started};
        EXPECT_EQ(machine.begin(machine.app, length, ann, started), row.granted.has_value());
        if (!row.granted) {
            machine.expectNothingDone();
            machine.expectIdle();
            EXPECT_EQ(machine.engine->lastLift(), std::nullopt);
            continue;
        }
        EXPECT_EQ(machine.said(), holding(*row.granted));
        EXPECT_EQ(machine.held().startedWall, machine.now() + started);
        EXPECT_EQ(machine.held().remaining, machine.now() + length - machine.now());
        EXPECT_EQ(machine.held().capRemaining, day + started);
        EXPECT_EQ(machine.status().until,
                  machine.now() + std::min(machine.held().remaining, day + started));
        EXPECT_TRUE(machine.begin(machine.app, second / 4)) << "it can be shortened as any other";
        EXPECT_EQ(machine.status().until, machine.now() + second / 4);
    }
}

TEST_F(HelperEngineTest, ABeginForAnythingButTheCallersOwnBundleIsRefused) {
    struct Row {
        std::string path;
        std::optional<std::string> own;
    };

    std::vector<Row> rows{{app, {}}, {app, otherApp}, {app, app + "/"}, {app, ""}};
    for (const std::string& path :
         {std::string(), std::string("Halvo.app"), std::string("/Applications/Halvo"),
          std::string("/Applications/../Halvo.app"), app + "/", app + "/Contents/MacOS/Halvo"}) {
        rows.push_back({path, path});
    }
    for (const Row& row : rows) {
        forget();
        EXPECT_FALSE(engine->begin(row.path, now() + hour, now(), {ann, row.own})) << row.path;
        EXPECT_EQ(said(), refusedBundle);
        EXPECT_EQ(changes(), "");
        expectIdle();
    }
    beginAndExpire();
    const HelperCommitment before = held();
    forget();
    EXPECT_FALSE(engine->begin(app, now() + hour, now(), {ann, otherApp}));
    EXPECT_EQ(held(), before) << "not even what has expired is let go";
    EXPECT_EQ(said(), refusedBundle);
}

TEST_F(HelperEngineTest, ABeginWhileAnotherPersonsCommitmentRunsIsRefused) {
    begin(app, hour, ben);
    const HelperCommitment before = held();
    world.clock.advance(minute);
    for (const Seconds length : {hour, second * -10}) {
        forget();
        EXPECT_FALSE(begin(app, length, ann));
        EXPECT_EQ(said(), refusedPerson);
        EXPECT_EQ(held(), before) << "not even rebased";
        EXPECT_EQ(changes(), "");
    }
}

TEST_F(HelperEngineTest, ABeginAfterACommitmentExpiredLetsThatGoAndStartsAnew) {
    for (const std::uint32_t uid : {ben, ann}) {
        beginAndExpire(uid);
        forget();
        EXPECT_TRUE(begin(otherApp, hour, ann));
        EXPECT_EQ(held().uid, ann);
        EXPECT_EQ(held().startedWall, now());
        EXPECT_EQ(held().capRemaining, day);
        EXPECT_EQ(engine->lastLift(), Lift::deadline);
        EXPECT_EQ(said(), letGo("deadline") + ", " + holding(3600));
        EXPECT_FALSE(world.flags.isSet(app));
        EXPECT_TRUE(world.flags.isSet(otherApp));
        end();
    }
}

TEST(HelperEngineBeginTest, ExtendsWithTheFirstStartAndNeverRaisesTheCap) {
    struct Row {
        const char* what;
        Seconds jump;
        Seconds started;
        Seconds length;
        Seconds cap;
    };

    for (const Row& row : {Row{"longer than a day", {}, {}, day * 2, day - minute},
                           Row{"shorter", {}, {}, second, day - minute},
                           Row{"with the clock set back", hour * -10, {}, day * 2, day - minute},
                           Row{"started earlier", {}, hour * -20, day, hour * 4}}) {
        SCOPED_TRACE(row.what);
        Machine machine;
        machine.begin(machine.app, hour);
        const WallDate start = machine.now();
        machine.world.clock.advance(minute);
        machine.world.clock.moveWallClock(row.jump);
        EXPECT_TRUE(machine.begin(machine.app, row.length, ann, row.started));
        EXPECT_EQ(machine.held().startedWall, start);
        EXPECT_EQ(machine.held().remaining, row.length);
        EXPECT_EQ(machine.held().capRemaining, row.cap);
        EXPECT_EQ(machine.held().checkpoint, machine.world.clock.now());
        EXPECT_EQ(machine.status().until, machine.now() + std::min(row.length, row.cap));
    }
}

TEST_F(HelperEngineTest, NoNumberOfExtensionsPassesADayFromTheFirstStart) {
    for (int hours = 0; hours < 24; ++hours) {
        EXPECT_TRUE(begin(app, hour * 10)) << hours;
        world.clock.advance(hour);
    }
    EXPECT_FALSE(heartbeat());
    expectIdle();
}

// Every call of a collaborator: the record owes the unlock before the flag is touched.
TEST(HelperEngineBeginTest, LocksTheBundleWhereItMayAndCan) {
    const std::string all = "reading, state Halvo.app, save locked, lock Halvo.app, save locked";
    const std::string moved =
        "reading, unlock Halvo.app, state Other.app, save locked, lock Other.app, save locked";

    struct Row {
        const char* what;
        Event given;
        std::string Machine::* bundle;
        bool isLocked;
        std::string calls;
        const char* error = "";
    };

    for (const Row& row : std::vector<Row>{
             {"in Applications", nothing, &Machine::app, true, all},
             {"an extension", begins, &Machine::app, true, "reading, save locked"},
             {"an extension of what could not be locked",
              [](Machine& m) {
                  m.world.flags.failsToLock = true;
                  m.begin(m.app, hour);
                  m.world.flags.failsToLock = false;
              },
              &Machine::app, true, all},
             {"another bundle", begins, &Machine::otherApp, true, moved},
             {"another bundle, though the old one stays locked",
              [](Machine& m) {
                  m.begin(m.app, hour);
                  m.world.flags.failsToUnlock = true;
              },
              &Machine::otherApp, true, moved},
             {"another bundle, after one with a flag that the helper did not set",
              [](Machine& m) {
                  m.world.flags.setByHand(m.app, true);
                  m.begin(m.app, hour);
              },
              &Machine::otherApp, true,
              "reading, state Other.app, save locked, lock Other.app, save locked"},
             {"deeper in Applications", nothing, &Machine::deepApp, false,
              "reading, save unlocked"},
             {"a flag is there already", flagIsSet, &Machine::app, false,
              "reading, state Halvo.app, save unlocked"},
             {"the flags cannot be read", bundleGoes, &Machine::app, false,
              "reading, state Halvo.app, save unlocked"},
             {"the lock fails", [](Machine& m) { m.world.flags.failsToLock = true; }, &Machine::app,
              false, "reading, state Halvo.app, save locked, lock Halvo.app, save unlocked",
              "error: Couldn't lock Halvo's app, "}}) {
        SCOPED_TRACE(row.what);
        Machine machine;
        row.given(machine);
        machine.forget();
        const std::string& path = machine.*row.bundle;
        EXPECT_TRUE(machine.begin(path, hour));
        EXPECT_EQ(machine.held().appPath, path);
        EXPECT_EQ(machine.held().locked, row.isLocked);
        EXPECT_EQ(machine.world.store.stored, StoredCommitment(machine.held()));
        EXPECT_EQ(machine.calls(), row.calls);
        EXPECT_EQ(machine.said(), row.error + holding(3600));
    }
}

TEST_F(HelperEngineTest, NeverClearsAFlagThatItDidNotSet) {
    world.flags.setByHand(app, true);
    begin(app, hour);
    engine->tick();
    end();
    EXPECT_TRUE(world.flags.isSet(app));
}

TEST_F(HelperEngineTest, ABeginOffTheMainQueueEndsTheProcess) {
    const auto result =
        testing::runInChild([this] { std::thread([this] { begin(app, hour); }).join(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_TRUE(result.output.contains("Incorrect actor executor assumption")) << result.output;
}

TEST_F(HelperEngineTest, ASpanThatNoWholeNumberHoldsEndsTheProcess) {
    HelperCommitment stored{app, ann, now(), Seconds{1e300}, Seconds{1e300}, {}, false};
    stored.checkpoint = world.clock.now();
    std::vector<std::function<void()>> operations{[&] {
        world.store.stored = stored;
        restart();
    }};
    for (const double date : {1e300, Limits::infinity(), std::nan("")}) {
        operations.emplace_back(
            [this, date] { engine->begin(app, wallDate(date), wallDate(date), {ann, app}); });
    }
    for (const auto& operation : operations) {
        const auto result = testing::runInChild(operation);
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_TRUE(result.output.contains("Fatal error: ")) << result.output;
    }
}

// --- Letting go

TEST(HelperEngineLiftTest, UnlocksRemovesTheRecordAndSaysWhy) {
    struct Row {
        const char* what;
        Event given;
        Event operate;
        Lift reason;
        std::string changes = "unlock Halvo.app, remove";
    };

    for (const Row& row : std::vector<Row>{
             {"an end", begins, ends, Lift::ended},
             {"an end after the time ran out", expires, ends, Lift::ended},
             {"an end without a lock", beginsDeeper, ends, Lift::ended, "remove"},
             {"an end whose unlock fails",
              [](Machine& m) {
                  m.begin(m.app, hour);
                  m.world.flags.failsToUnlock = true;
              },
              ends, Lift::ended},
             {"a begin that is over already", begins,
              [](Machine& m) { EXPECT_FALSE(m.begin(m.app, second * -10)); }, Lift::ended},
             {"a begin that was over long ago", begins,
              [](Machine& m) { EXPECT_FALSE(m.begin(m.app, Seconds{Limits::lowest()})); },
              Lift::ended},
             {"a begin that started long ago", begins,
              [](Machine& m) { EXPECT_FALSE(m.begin(m.app, hour, ann, Seconds{-1e300})); },
              Lift::ended},
             {"a heartbeat after the time ran out", expires,
              [](Machine& m) { EXPECT_FALSE(m.heartbeat()); }, Lift::deadline},
             {"a tick with exactly nothing left", begins, [](Machine& m) { m.tickAfter(hour); },
              Lift::deadline}}) {
        SCOPED_TRACE(row.what);
        Machine machine;
        row.given(machine);
        machine.forget();
        row.operate(machine);
        machine.expectIdle();
        EXPECT_EQ(machine.engine->lastLift(), row.reason);
        EXPECT_EQ(machine.calls(), (row.operate == ends ? "" : "reading, ") + row.changes);
        EXPECT_EQ(machine.world.flags.isSet(machine.app), machine.world.flags.failsToUnlock);
        EXPECT_EQ(machine.said(), letGo(row.reason == Lift::ended ? "ended" : "deadline"));
    }
}

TEST_F(HelperEngineTest, AnotherPersonLearnsNothingAndChangesNothing) {
    begin(app, minute);
    const HelperCommitment before = held();
    for (const Seconds passed : {second, hour}) {
        world.clock.advance(passed);
        forget();
        EXPECT_FALSE(end(ben));
        EXPECT_FALSE(heartbeat(ben));
        EXPECT_EQ(status(ben), HelperStatus::idle);
        EXPECT_EQ(held(), before) << "even if it has expired";
        expectNothingDone();
    }
}

// --- Status and heartbeat

TEST_F(HelperEngineTest, AStatusTellsTheOwnerWhenItEndsAndWhetherItIsLocked) {
    forget();
    EXPECT_EQ(status(), HelperStatus::idle);
    EXPECT_EQ(calls(), "reading");
    begin(app, hour);
    world.clock.advance(minute);
    EXPECT_EQ(status(), (HelperStatus{true, now() + hour - minute, true}));
    world.clock.moveWallClock(hour * -5);
    EXPECT_EQ(status().until, now() + hour - minute) << "on the wall clock of the moment";
    begin(deepApp, hour);
    EXPECT_EQ(status(), (HelperStatus{true, now() + hour, false}));
    world.clock.advance(hour);
    forget();
    EXPECT_EQ(status(), HelperStatus::idle);
    EXPECT_FALSE(engine->isIdle()) << "it lifts nothing";
    EXPECT_EQ(calls(), "reading");
    EXPECT_EQ(said(), "");
}

TEST_F(HelperEngineTest, AHeartbeatIsTrueWhileTheCallersCommitmentIsLive) {
    EXPECT_FALSE(heartbeat());
    begin(app, minute);
    forget();
    EXPECT_TRUE(heartbeat());
    EXPECT_TRUE(engine->heartbeat(true, {ann, std::nullopt}));
    EXPECT_EQ(calls(), "reading, reading") << "one for each";
    EXPECT_EQ(said(), "");
}

// --- The periodic check: time

TEST_F(HelperEngineTest, ATickSavesTheRebasedRecordOnceAMinute) {
    begin(app, hour);
    const HelperCommitment begun = held();
    forget();
    tickAfter(second * 2);
    tickAfter(second * 57);
    EXPECT_EQ(world.calls.count("save locked"), 0U) << "59 s after the begin";
    EXPECT_EQ(held(), begun);
    tickAfter(second);
    EXPECT_EQ(world.calls.count("save locked"), 1U) << "60 s after the begin";
    EXPECT_EQ(held(), begun.rebased(world.clock.now()));
    EXPECT_EQ(world.store.stored, StoredCommitment(held()));
    tickAfter(second * 59);
    EXPECT_EQ(world.calls.count("save locked"), 1U) << "59 s after the save";
    tickAfter(hour / 2);
    EXPECT_EQ(world.calls.count("save locked"), 2U) << "one save, however long it slept";
}

TEST_F(HelperEngineTest, NeitherFailedSavesNorMissedTicksNorASetClockChangeTheTimeLeft) {
    begin(app, hour);
    world.store.failsToSave = true;
    for (const Seconds jump : {hour * -48, hour * 96, hour * -1}) {
        world.clock.moveWallClock(jump);
        tickAfter(minute);
    }
    EXPECT_EQ(status().until, now() + hour - minute * 3);
    world.clock.advance(hour / 2);
    EXPECT_EQ(status().until, now() + hour / 2 - minute * 3);
    engine->tick();
    EXPECT_EQ(status().until, now() + hour / 2 - minute * 3);
}

TEST_F(HelperEngineTest, AQuietTickAllocatesNothing) {
    world.session.start(app, ann);
    begin(app, hour);
    world.calls.stopRecording();
    engine->tick();
    world.clock.advance(second * 20);
    const std::size_t before = testing::mallocsMade();
    for (int i = 0; i < 5; ++i) {
        tickAfter(second * 2);
    }
    EXPECT_EQ(testing::mallocsMade(), before);
    std::string(100, 'x').swap(app);
    EXPECT_GT(testing::mallocsMade(), before) << "nothing was counted";
    EXPECT_FALSE(engine->isIdle());
}

// --- The periodic check: the lock

TEST_F(HelperEngineTest, AFlagClearedByHandIsBackWithinOneTickWithAnyConsoleUser) {
    begin(app, hour);
    for (const std::optional<std::uint32_t>& user :
         {std::optional(ann), std::optional<std::uint32_t>(), std::optional(ben)}) {
        world.session.console = user;
        world.flags.setByHand(app, false);
        forget();
        engine->tick();
        EXPECT_TRUE(world.flags.isSet(app));
        EXPECT_EQ(said(), lockedAgain);
        forget();
        engine->tick();
        expectNothingDone();
    }
}

TEST_F(HelperEngineTest, TheFlagIsBackBeforeTheAppIsOpened) {
    begin(app, hour);
    world.flags.setByHand(app, false);
    forget();
    tickAfter(minute);
    EXPECT_EQ(changes(), "save locked, lock Halvo.app, open Halvo.app");
    EXPECT_EQ(said(), std::string(lockedAgain) + ", " + opening);
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

TEST_F(HelperEngineTest, ABundleThatIsGoneIsNotChasedAndALockThatIsNotOwedNotLookedAt) {
    begin(app, hour);
    world.flags.erase(app);
    forget();
    engine->tick();
    expectNothingDone();
    EXPECT_TRUE(held().locked);
    begin(deepApp, hour);
    forget();
    engine->tick();
    EXPECT_EQ(world.calls.count("state Deep.app"), 0U);
}

// --- The periodic check: the app

struct Story {
    // What is opened, in seconds since the begin: "6 quit" as after a quit, "6" as without one.
    const char* openings;

    struct Moment {
        double at;
        Event event;
    };

    std::vector<Moment> moments;
};

// Ticks come at 2, 4, 6 ... up to the last opening, each after the events of its time; up to 600
// where nothing is opened.
void play(Machine& machine, const Story& story) {
    const std::string expected = story.openings;
    const double until =
        expected.empty() ? 600 : std::stod(expected.substr(expected.rfind(',') + 1));
    const Seconds start = machine.world.clock.now().sinceBoot;
    const auto advanceTo = [&](double time) {
        machine.world.clock.advance(start + Seconds{time} - machine.world.clock.now().sinceBoot);
    };
    machine.begin(machine.app, hour);
    auto moment = story.moments.begin();
    for (double tick = 2; tick <= until; tick += 2) {
        for (; moment != story.moments.end() && moment->at <= tick; ++moment) {
            advanceTo(moment->at);
            moment->event(machine);
        }
        advanceTo(tick);
        machine.engine->tick();
    }
    std::vector<std::string> openings;
    for (const auto& [appPath, uid, afterQuit, at] : machine.world.opener.openings) {
        EXPECT_EQ(appPath, machine.app);
        EXPECT_EQ(uid, ann);
        openings.push_back(std::to_string(std::lround((at - start).count())) +
                           (afterQuit ? " quit" : ""));
    }
    EXPECT_EQ(joined(openings), expected);
    EXPECT_EQ(machine.log.count(opening), openings.size());
}

const std::vector<Story> stories{
    // An app that runs is never opened.
    {"", {{0, appStarts}}},
    // One that does not come up: 6 s after the begin, then at the first tick after another 15 s.
    {"6 quit, 22 quit, 38 quit", {}},
    // One that quits: 6 s after it was last seen, at 12.
    {"18 quit", {{0, appStarts}, {13, appQuits}}},
    // One that comes up, seen at 10, is left alone until it quits again.
    {"6 quit, 22 quit", {{9, appStarts}, {11, appQuits}}},
    // A heartbeat is a sign of life.
    {"18 quit", {{5, heartbeat}, {10.5, heartbeat}}},
    // So is one that announces the end, in this console session though never seen.
    {"92 quit", {{0, restarts}, {2, sessionEnds}}},
    // Exactly 6 s of silence are enough.
    {"6 quit, 26 quit", {{10, heartbeat}, {20, heartbeat}}},
    // The app of another person is not theirs.
    {"6 quit", {{0, appStartsForBen}}},
    // An announced end of the session keeps it closed for 90 s.
    {"100 quit", {{0, appStarts}, {10, sessionEnds}, {11, appQuits}}},
    // A heartbeat, and a begin, take the announced end back.
    {"10 quit", {{2, sessionEnds}, {4, heartbeat}}},
    {"10 quit", {{2, sessionEnds}, {4, begins}}},
    // Announcing the end again counts from then.
    {"150 quit", {{2, sessionEnds}, {60, sessionEnds}}},
    // The person's leaving, and another person's coming, take the announced end back.
    {"16", {{2, sessionEnds}, {4, allLeave}, {10, annComes}}},
    {"12", {{2, sessionEnds}, {4, benComes}, {6, annComes}}},
    // The person's coming leaves the announced end standing.
    {"100", {{3, benComes}, {10, sessionEnds}, {20, annComes}}},
    // So does a return between two ticks.
    {"92 quit", {{2, sessionEnds}, {2.5, benComes}, {3.5, annComes}}},
    // Nothing is opened while another person is at the console, or none.
    {"", {{3, benComes}}},
    {"", {{3, allLeave}}},
    // Coming back, seen at 100, gives 6 s of grace.
    {"106", {{3, benComes}, {99, annComes}}},
    // An app seen in this console session is opened as after a quit.
    {"112 quit", {{3, benComes}, {99, annComes}, {100, appStarts}, {107, appQuits}}},
    // Switching between two ticks is not seen.
    {"6 quit", {{3, benComes}, {3.5, annComes}}},
    // After a restart of the helper: 6 s later, of an app that was never seen since.
    {"28", {{0, appStarts}, {21, restarts}, {22, appQuits}}},
    // Letting go forgets what was seen, and the last opening, but not the console session.
    {"18 quit, 26 quit", {{0, appStarts}, {13, appQuits}, {19, ends}, {20, begins}}},
    {"16 quit", {{3, benComes}, {8, annComes}, {9, ends}, {9.5, begins}}},
    // A console change while nothing is held is seen at the next tick after.
    {"26 quit", {{3, ends}, {5, benComes}, {13, annComes}, {20, begins}}},
};

TEST(KeepingTheAppOpenTest, OpensItWhenItIsDueAndSaysWhetherItQuit) {
    for (std::size_t i = 0; i < stories.size(); ++i) {
        SCOPED_TRACE(i);
        Machine machine;
        play(machine, stories[i]);
    }
}

TEST_F(HelperEngineTest, ExactlyFifteenSecondsAfterAnOpeningAreEnough) {
    play(*this, {"6 quit", {}});
    tickAfter(second * 14);
    EXPECT_EQ(world.opener.openings.size(), 1U);
    tickAfter(second);
    EXPECT_EQ(world.opener.openings.size(), 2U);
}

TEST_F(HelperEngineTest, DoesNotLookForTheAppBeforeItIsSilentOrWhileTheSessionEnds) {
    begin(app, hour);
    forget();
    tickAfter(second * 5);
    EXPECT_EQ(calls(), "reading, state Halvo.app, console");
    tickAfter(second);
    EXPECT_EQ(world.calls.count("running? Halvo.app"), 1U);
    heartbeat(ann, true);
    tickAfter(minute);
    EXPECT_EQ(world.calls.count("running? Halvo.app"), 1U);
}

// --- Startup

// On the disk: a locked commitment of Anna's with an hour left, as of now.
HelperCommitment storedOn(const Machine& machine) {
    return {machine.app, ann, machine.now(), hour, day, machine.world.clock.now(), true};
}

TEST(HelperEngineStartupTest, TakesALiveCommitmentUpRebasedAndSaved) {
    struct Row {
        const char* what;
        // What happens to the machine meanwhile.
        Event happen;
        long left;
        std::string changes = "save locked, lock Halvo.app";
        bool isLocked = true;
        Seconds remaining = hour;
        Seconds capRemaining = day;
    };

    const Event reboots = [](Machine& m) { m.world.clock.reboot(hour * 23, minute); };
    for (const Row& row : std::vector<Row>{
             {"the lock is owed", nothing, 3600},
             {"the lock is not owed", nothing, 3600, "save unlocked", false},
             {"the flag is there", flagIsSet, 3600, "save locked"},
             {"the bundle is gone", bundleGoes, 3600, "save locked"},
             {"time has passed", [](Machine& m) { m.world.clock.advance(Seconds{600.5}); }, 2999},
             {"the day is nearly over", nothing, 60, "save unlocked", false, hour, minute},
             {"a reboot: a day from the start", reboots, 3540, "save unlocked", false, day * 9,
              day * 9},
             {"a reboot: the time that it was off",
              [](Machine& m) { m.world.clock.reboot(minute * 20, minute); }, 2340},
             {"a reboot with the wall clock set back: the time since boot at least",
              [](Machine& m) {
                  m.world.clock.reboot(Seconds{0}, minute);
                  m.world.clock.moveWallClock(hour * -10);
              },
              3540},
             {"it cannot be saved", [](Machine& m) { m.world.store.failsToSave = true; }, 3600}}) {
        SCOPED_TRACE(row.what);
        Machine machine;
        HelperCommitment stored = storedOn(machine);
        stored.locked = row.isLocked;
        stored.remaining = row.remaining;
        stored.capRemaining = row.capRemaining;
        machine.world.store.stored = stored;
        row.happen(machine);
        machine.forget();
        machine.restart();
        EXPECT_EQ(machine.held(), stored.rebased(machine.world.clock.now()));
        EXPECT_EQ(machine.world.store.stored,
                  StoredCommitment(machine.world.store.failsToSave ? stored : machine.held()));
        EXPECT_EQ(machine.changes(), row.changes);
        EXPECT_EQ(machine.said(), (row.changes.contains("lock H") ? lockedAgain + ", "s : "") +
                                      holdingAnother(row.left));
        EXPECT_EQ(machine.world.calls.count("state Halvo.app"), stored.locked ? 1U : 0U);
        machine.forget();
        machine.tickAfter(second * 59);
        EXPECT_EQ(machine.world.calls.count("save locked"), 0U) << "a minute after the start";
    }
}

TEST_F(HelperEngineTest, LetsGoAtTheStartOfWhatExpiredOrCannotBeRead) {
    struct Row {
        StoredCommitment content;
        const char* changes = "remove";
    };

    const char* both = "unlock Halvo.app, remove";
    const HelperCommitment expired = storedOn(*this);
    HelperCommitment withoutLock = expired;
    withoutLock.locked = false;
    world.clock.advance(hour);
    for (const Row& row : std::vector<Row>{{expired, both},
                                           {withoutLock},
                                           {UnreadableCommitment{app, true}, both},
                                           {UnreadableCommitment{app, false}},
                                           {UnreadableCommitment{std::nullopt, true}},
                                           {UnreadableCommitment{deepApp, true}},
                                           {UnreadableCommitment{app + "/", true}}}) {
        for (const bool failsToUnlock : {false, true}) {
            world.flags.setByHand(app, true);
            world.flags.failsToUnlock = failsToUnlock;
            world.store.stored = row.content;
            forget();
            restart();
            expectIdle();
            const bool isRead = std::holds_alternative<HelperCommitment>(row.content);
            EXPECT_EQ(engine->lastLift(),
                      isRead ? Lift::expiredAtStartup : Lift::unreadableAtStartup);
            EXPECT_EQ(changes(), row.changes);
            EXPECT_EQ(said(), isRead ? letGo("expiredAtStartup") : unreadable);
        }
    }
}

TEST_F(HelperEngineTest, WithNothingStoredNothingHappensAtTheStart) {
    forget();
    restart();
    EXPECT_EQ(calls(), "reading, console, reading, load");
    EXPECT_EQ(said(), "");
    expectIdle();
    EXPECT_EQ(engine->lastLift(), std::nullopt);
}

TEST_F(HelperEngineTest, TheFirstLookNeverComesBeforeTheStartEvenByAClockThatWentBack) {
    world.store.stored = storedOn(*this);
    restart();
    world.clock.setSinceBoot(second * 100);
    for (const std::uint32_t user : {ben, ann}) {
        world.session.console = user;
        engine->tick();
    }
    tickAfter(minute);
    EXPECT_TRUE(world.opener.openings.empty());
    world.clock.setSinceBoot(second * 1006);
    engine->tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

// --- Termination

TEST_F(HelperEngineTest, TheLogNamesTheCommitmentInEachLineFromItsBeginToItsEnd) {
    static std::vector<std::vector<std::string>> fields;
    fields.clear();
    setLogContext(nullptr);  // an engine of another test may have been left holding
    const LogSink before = std::exchange(
        logSink, [](const Logger&, LogLevel, std::string_view) { fields.push_back(logFields()); });
    FileCommitmentStore unwritable("/dev/null/state");
    HelperEngine failing(world.clock, world.flags, unwritable, world.session, world.opener);
    const HelperPeer peer{ann, app};
    EXPECT_FALSE(failing.begin(otherApp, now() + minute, now(), peer));
    EXPECT_TRUE(failing.begin(app, now() + Seconds{600.4}, now(), peer));
    EXPECT_TRUE(failing.end(peer));
    EXPECT_FALSE(failing.begin(otherApp, now() + minute, now(), peer));
    const std::vector<std::string> none;
    const std::vector<std::string> named{"HALVO_UID=501", "HALVO_BUNDLE=" + app,
                                         "HALVO_END=2025-10-09T09:03:20Z"};
    // Refused; saved twice, in vain; held; let go; refused.
    EXPECT_EQ(fields, (std::vector{none, named, named, named, named, none}));
    world.store.stored = HelperCommitment{app, ben, {}, second, second, world.clock.now(), true};
    world.clock.advance(minute);
    restart();
    EXPECT_EQ(fields.back().front(), "HALVO_UID=502") << "expired before the start";
    EXPECT_EQ(logFields(), none);
    logSink = before;
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
    EXPECT_EQ(calls(), "reading, save locked, unlock Halvo.app");
    EXPECT_EQ(held(), before) << "what the engine holds is not touched";
    EXPECT_EQ(said(), "");
    world.clock.advance(minute);
    restart();
    EXPECT_TRUE(world.flags.isSet(app));
    EXPECT_EQ(status(), (HelperStatus{true, now() + hour - minute * 2, true}));
    EXPECT_EQ(said(), std::string(lockedAgain) + ", " + holdingAnother(3480));
    world.flags.failsToUnlock = true;
    EXPECT_EQ(engine->terminate(), 75) << "whatever becomes of the unlock";
}

TEST_F(HelperEngineTest, TerminatingTouchesNoFlagThatIsNotOwedAndLiftsNothing) {
    begin(deepApp, hour);
    forget();
    EXPECT_EQ(engine->terminate(), 75);
    EXPECT_EQ(changes(), "save unlocked");
    begin(app, minute);
    world.clock.advance(minute - second / 2);
    EXPECT_EQ(engine->terminate(), 75) << "half a second before the time runs out";
    world.clock.advance(second / 2);
    forget();
    EXPECT_EQ(engine->terminate(), 0) << "just after the time ran out";
    EXPECT_EQ(changes(), "save locked, unlock Halvo.app");
    EXPECT_EQ(world.store.commitment()->remaining, second * 0);
    EXPECT_FALSE(engine->isIdle());
    EXPECT_EQ(said(), "");
}

}  // namespace
}  // namespace halvo
