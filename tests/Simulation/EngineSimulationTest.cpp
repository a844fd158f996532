// An engine in a simulated world, through events that nobody would think of.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/Simulation/Expectation.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

constexpr std::size_t eventsPerRun = 250;
constexpr std::size_t eventsInReport = 40;
constexpr std::uint32_t anna = 501;
constexpr std::uint32_t ben = 502;
constexpr Seconds nothing{0};
constexpr Seconds day{24 * 60 * 60};
constexpr Seconds checkpointGap{60};
constexpr std::size_t eighthsPerHour = std::size_t{8} * 60 * 60;

std::string inWords(Seconds span) {
    std::ostringstream text;
    text << std::setprecision(15) << span.count() << " s";
    return text.str();
}

std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

std::string inWords(const std::optional<ExpectedCommitment>& held) {
    return held ? nameOf(held->appPath) + " of " + std::to_string(held->uid) + ", left " +
                      inWords(held->left())
                : "nothing";
}

// Chance that can be replayed. The same seed gives the same numbers on every machine and with every
// library (SplitMix64).
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15U;
        std::uint64_t number = state_;
        number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
        number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
        return number ^ (number >> 31U);
    }

    // One of 0 ..< limit.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next() % limit); }

    bool chance(unsigned percent) { return below(100) < percent; }

    template <class Value>
    const Value& oneOf(std::span<const Value> values) {
        return values[below(values.size())];
    }

  private:
    std::uint64_t state_;
};

// Something that must always be so was not. The text says what, and what happened before.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// How much came up in one or more runs, so that nobody takes an idle simulation for a good one.
using Tally = std::map<std::string, std::size_t>;

// One run: a sequence of events that its seed decides, with everything that must hold checked after
// each of them. Every second seed is one of foul weather, in which the store and the flags fail
// too.
//
// Two people begin, extend, end and quit; both clocks and the console do what they do; the flag is
// set and cleared by others; bundles come and go; the helper is terminated, killed between any two
// calls of a collaborator, and started again; the machine is rebooted and cut off from power.
class EngineSimulation {
  public:
    EngineSimulation(std::uint64_t seed, const TemporaryFolder& disk, Tally& tally)
        : seed_(seed), random_(seed), tally_(tally), isFoul_(seed % 2 == 1), world_(disk) {
        for (const char* path :
             {"Applications/A.app", "Users/anna/Applications/B.app", "Applications/Sub/C.app"}) {
            bundles_.push_back(world_.addBundle(path));
        }
        world_.session.console = anna;
    }

    std::uint64_t run() {
        restart();
        while (events_ < eventsPerRun) {
            happen();
        }
        // Whatever is still broken off is started once more, so that no run ends unseen.
        world_.calls.cancelCrash();
        while (!engine_) {
            restart();
        }
        return trace_;
    }

  private:
    // A flag as it was, and whether anybody had set it with the promise to clear it.
    struct Flag {
        bool isSet{};
        bool isOwed{};
    };

    // --- Chance

    Seconds eighths(std::size_t limit) {
        return Seconds{static_cast<double>(random_.below(limit) + 1) / 8};
    }

    std::string anyBundle() { return bundles_[random_.below(bundles_.size())]; }

    std::uint32_t anybody() { return random_.chance(75) ? anna : ben; }

    // --- Events

    void happen() {
        if (!engine_) {
            happenWithoutEngine();
        } else if (random_.chance(80)) {
            happenToEngine();
        } else {
            happenToWorld();
        }
    }

    void happenWithoutEngine() {
        const std::size_t dice = random_.below(100);
        if (dice < 50) {
            restart();
        } else if (dice < 60) {
            powerCut();
        } else if (dice < 65) {
            damageFile();
        } else {
            happenToWorld();
        }
    }

    void happenToEngine() {
        const std::size_t dice = random_.below(100);
        if (dice < 67) {
            pass(Seconds{2});
            tick();
        } else if (dice < 73) {
            pass(eighths(400));
            tick();
        } else if (dice < 82) {
            heartbeat();
        } else if (dice < 92) {
            begin();
        } else if (dice < 94) {
            end();
        } else if (dice < 97) {
            terminate();
        } else if (dice < 98) {
            kill();
        } else {
            powerCut();
        }
    }

    void happenToWorld() {
        const std::array<void (EngineSimulation::*)(), 8> events{
            &EngineSimulation::setWallClock,    &EngineSimulation::setFlagByHand,
            &EngineSimulation::clearFlagByHand, &EngineSimulation::moveBundle,
            &EngineSimulation::switchConsole,   &EngineSimulation::startOrQuitApp,
            &EngineSimulation::changeWeather,   nullptr};
        const auto event = random_.oneOf<void (EngineSimulation::*)()>(events);
        if (event == nullptr) {
            pass(random_.chance(50) ? eighths(800) : eighths(10 * eighthsPerHour));
        } else {
            (this->*event)();
        }
        if (engine_) {
            check();
        }
    }

    void pass(Seconds span) {
        note("pass " + inWords(span));
        world_.clock.advance(span);
        expectation_.timePasses(span);
        if (age_) {
            *age_ += span;
        }
    }

    void tick() {
        const auto opened = [this] {
            world_.opener.openings.clear();
            engine_->tick();
            const auto& openings = world_.opener.openings;
            tally_["opened"] += openings.size();
            require(openings.size() <= 1, "the app was opened twice");
            return openings.empty() ? std::nullopt : std::optional(openings.front());
        };
        operate("tick", [this] { return expectation_.tick(); }, opened);
        const auto* record = world_.store.commitment();
        if (engine_ && !isFoul_ && record != nullptr) {
            require(now().sinceBoot - record->checkpoint.sinceBoot < checkpointGap,
                    "the record on the disk is older than a minute after a tick");
        }
    }

    void begin() {
        constexpr std::array lengths{Seconds{-10},   Seconds{5},     Seconds{30},
                                     Seconds{600},   Seconds{10800}, Seconds{108000},
                                     Seconds{36000}, Seconds{90},    Seconds{0}};
        constexpr std::array starts{Seconds{0},      Seconds{0},      Seconds{0},
                                    Seconds{-3600},  Seconds{-82800}, Seconds{-86395},
                                    Seconds{-90000}, Seconds{3600}};
        BeginRequest request;
        request.appPath = random_.chance(3) ? "/Applications/NoBundle" : anyBundle();
        request.until = now().wall + random_.oneOf<Seconds>(lengths) + eighths(16);
        request.started = now().wall + random_.oneOf<Seconds>(starts);
        request.peer = {anybody(),
                        random_.chance(95) ? std::optional(request.appPath) : std::nullopt};
        operate(
            "begin " + nameOf(request.appPath) + " by " + std::to_string(request.peer.uid) +
                " for " + inWords(request.until - now().wall) + " from " +
                inWords(request.started - now().wall),
            [&] { return expectBegin(request); },
            [&] {
                const bool reply =
                    engine_->begin(request.appPath, request.until, request.started, request.peer);
                tally_[reply ? "begun" : "begin-refused"] += 1;
                return reply;
            });
    }

    bool expectBegin(const BeginRequest& request) {
        const bool isFirst = !expectation_.held || !expectation_.held->isLive();
        const bool reply = expectation_.begin(request);
        if (reply && isFirst) {
            const Seconds age = now().wall - request.started;
            // One that starts in the future may last longer than a day from now.
            age_ = age >= nothing ? std::optional(age) : std::nullopt;
        }
        return reply;
    }

    void end() {
        const std::uint32_t uid = anybody();
        operate(
            "end by " + std::to_string(uid), [&] { return expectation_.end(uid); },
            [&] { return engine_->end({uid, std::nullopt}); });
    }

    void heartbeat() {
        const std::uint32_t uid = anybody();
        const bool ending = random_.chance(15);
        operate(
            "heartbeat of " + std::to_string(uid) + (ending ? ", session ending" : ""),
            [&] { return expectation_.heartbeat(ending, uid); },
            [&] { return engine_->heartbeat(ending, {uid, std::nullopt}); });
    }

    void terminate() {
        operate(
            "terminate", [this] { return expectation_.terminate(); },
            [this] {
                const int status = engine_->terminate();
                checkTerminated();
                engine_.reset();
                return status;
            });
    }

    void kill() {
        note("kill");
        engine_.reset();
    }

    // What the next engine will find.
    std::optional<ExpectedCommitment> onDisk() const {
        const auto* record = world_.store.commitment();
        return record == nullptr ? std::nullopt : std::optional(worthOf(*record, now()));
    }

    // The time from the last save to the cut is lost, where the wall clock does not tell of it.
    void powerCut() {
        const Seconds off = random_.chance(50) ? eighths(800) : eighths(20 * eighthsPerHour);
        const Seconds up = eighths(2000);
        note("power-cut for " + inWords(off) + ", up for " + inWords(up));
        engine_.reset();
        const auto* record = world_.store.commitment();
        const bool isFresh = record != nullptr && record->checkpoint.bootID == now().bootID;
        // Of a boot in which nothing was saved all is lost.
        const Seconds lost = now().sinceBoot - (isFresh ? record->checkpoint.sinceBoot : nothing);
        const auto before = onDisk();
        world_.clock.reboot(off, up);
        world_.session.quitAll();
        if (random_.chance(40)) {
            setWallClock();
        }
        require(!isFresh || onDisk()->left() <= before->left() + lost - up,
                "a reboot gave more time back than was lost with the power");
        if (age_) {
            *age_ += up - lost;
        }
    }

    void restart() {
        expectation_.held = onDisk();
        operate(
            "start",
            [this] {
                expectation_.startup();
                return expectation_.lastLift;
            },
            [this] {
                engine_.emplace(world_.clock, world_.locks, world_.locks, world_.session,
                                world_.opener);
                engine_->startup();
                return engine_->lastLift();
            });
    }

    void setWallClock() {
        const Seconds jump = eighths(30 * eighthsPerHour) * (random_.chance(50) ? 1 : -1);
        note("wall-clock " + inWords(jump));
        world_.clock.moveWallClock(jump);
    }

    void setFlagByHand() {
        const std::string path = anyBundle();
        if (!world_.flags.exists(path) || world_.flags.isSet(path)) {
            return;
        }
        note("flag-set by hand: " + nameOf(path));
        world_.flags.setByHand(path, true);
        if (!owes(path)) {
            foreign_.insert(path);
        }
    }

    void clearFlagByHand() {
        const std::string path = anyBundle();
        if (!world_.flags.isSet(path)) {
            return;
        }
        note("flag-cleared by hand: " + nameOf(path));
        world_.flags.setByHand(path, false);
        foreign_.erase(path);
        ours_.erase(path);
    }

    // As the flags see it: the real folder stays, which saves thousands of visits to the disk.
    void moveBundle() {
        const std::string path = anyBundle();
        if (!world_.flags.exists(path)) {
            note("bundle " + nameOf(path) + " comes back");
            world_.flags.add(path);
        } else if (!world_.flags.isSet(path) && random_.chance(40)) {
            note("bundle " + nameOf(path) + " goes away");
            world_.flags.erase(path);
        }
    }

    void switchConsole() {
        constexpr std::array<std::optional<std::uint32_t>, 4> people{anna, anna, ben, std::nullopt};
        world_.session.console = random_.oneOf<std::optional<std::uint32_t>>(people);
        note("console " + std::to_string(world_.session.console.value_or(0)));
    }

    void startOrQuitApp() {
        const std::string path = anyBundle();
        const std::uint32_t uid = anybody();
        if (world_.session.runs(path, uid)) {
            note("quits: " + nameOf(path) + " of " + std::to_string(uid));
            world_.session.quit(path, uid);
        } else {
            note("starts: " + nameOf(path) + " of " + std::to_string(uid));
            world_.session.start(path, uid);
        }
        world_.opener.startsApps = random_.chance(50);
    }

    void changeWeather() {
        world_.flags.failsToLock = random_.chance(30);
        note(std::string("weather: locks ") + (world_.flags.failsToLock ? "fail" : "succeed"));
        if (isFoul_) {
            world_.store.failsToSave = random_.chance(30);
            world_.store.failsToSync = random_.chance(30);
            world_.store.failsToRemove = random_.chance(30);
            world_.flags.failsToUnlock = random_.chance(30);
            note(std::string("weather: failing") + (world_.store.failsToSave ? " saves" : "") +
                 (world_.store.failsToSync ? " syncs" : "") +
                 (world_.store.failsToRemove ? " removals" : "") +
                 (world_.flags.failsToUnlock ? " unlocks" : ""));
        }
    }

    // In fair weather the path and the lock can still be read.
    void damageFile() {
        const auto* record = world_.store.commitment();
        if (record == nullptr) {
            return;
        }
        note("file-damaged");
        UnreadableCommitment rest{record->appPath, record->locked};
        if (isFoul_ && random_.chance(30)) {
            rest.appPath.reset();
        }
        if (isFoul_ && random_.chance(30)) {
            rest.locked = false;
        }
        world_.store.stored = rest;
        age_.reset();
    }

    // --- One operation

    // Runs `actual` on the engine, which must give what `expected` gives. Now and then it is broken
    // off at some call of a collaborator.
    template <class Expected, class Actual>
    void operate(const std::string& what, Expected expected, Actual actual) {
        note(what);
        if (random_.chance(2)) {
            world_.calls.crashAt(random_.below(9) + 1);
        }
        const auto flagsBefore = flagsNow();
        const auto before = expectation_.held;
        // First: what is expected is told from the world as it is before the operation.
        const auto reply = expected();
        bool isBroken = false;
        try {
            require(actual() == reply, "the outcome of " + what);
        } catch (const Crash&) {
            isBroken = true;
            engine_.reset();
        }
        world_.calls.cancelCrash();
        followFlags(flagsBefore);
        absorbTrace();
        if (isBroken) {
            breakOff(before, expectation_.held);
        } else {
            check();
        }
    }

    std::map<std::string, Flag> flagsNow() const {
        std::map<std::string, Flag> flags;
        for (const std::string& path : bundles_) {
            flags[path] = {world_.flags.isSet(path), owes(path)};
        }
        return flags;
    }

    // What the operation set is ours; what it cleared it must have owed.
    void followFlags(const std::map<std::string, Flag>& before) {
        for (const auto& [path, flag] : before) {
            const bool isSet = world_.flags.isSet(path);
            if (isSet && !flag.isSet) {
                ours_.insert(path);
                const auto* record = world_.store.commitment();
                require(record == nullptr ? !world_.store.isEmpty()
                                          : record->locked && record->appPath == path,
                        "a lock was set that no record on the disk owes: " + nameOf(path));
            } else if (!isSet && flag.isSet) {
                ours_.erase(path);
                require(flag.isOwed, "a flag was cleared that nobody owed");
            }
        }
    }

    // The helper was killed within an operation: what is on the disk is the commitment as it was
    // before or the one that the operation was about to bring about.
    void breakOff(const std::optional<ExpectedCommitment>& before,
                  const std::optional<ExpectedCommitment>& after) {
        note("broken-off");
        checkForeignFlags();
        if (isFoul_) {
            return;
        }
        const auto* record = world_.store.commitment();
        const auto isStored = [&](const std::optional<ExpectedCommitment>& held) {
            if (!held || record == nullptr) {
                return !held && record == nullptr;
            }
            return held->matches(*record, now());
        };
        const bool mayBeGone = before && !before->isLive();
        const bool isUnreadable = record == nullptr && !world_.store.isEmpty();
        require(isStored(before) || isStored(after) || isUnreadable || (mayBeGone && !record),
                "the record on the disk after a crash; before: " + inWords(before) +
                    ", after: " + inWords(after));
        for (const std::string& path : ours_) {
            checkOwed(path);
        }
    }

    // --- What must hold

    bool owes(const std::string& path) const {
        const auto isOwedBy = [&path](const HelperCommitment* record) {
            return record != nullptr && record->locked && record->appPath == path;
        };
        const auto* unreadable = std::get_if<UnreadableCommitment>(&world_.store.stored);
        const bool isHeld = engine_ && engine_->commitment() && isOwedBy(&*engine_->commitment());
        return isHeld || isOwedBy(world_.store.commitment()) ||
               (unreadable != nullptr && unreadable->locked && unreadable->appPath == path);
    }

    void check() {
        if (!engine_) {
            return;
        }
        checkCommitment();
        checkFlags();
        checkDisk();
        checkDay();
        absorbTrace();
    }

    void checkCommitment() {
        const auto& held = engine_->commitment();
        const auto& expected = expectation_.held;
        require(held.has_value() == expected.has_value(),
                held ? "something is held" : "nothing is held");
        require(engine_->isIdle() == !expected, "whether it is idle");
        require(engine_->lastLift() == expectation_.lastLift, "why it was last let go");
        if (expected) {
            require(expected->matches(*held, now()),
                    "what is held: " + inWords(worthOf(*held, now())));
            require(held->locked == expected->locked, "whether the lock is owed");
        }
        for (const std::uint32_t uid : {anna, ben}) {
            require(engine_->status({uid, std::nullopt}) == expectation_.status(uid),
                    "the status of " + std::to_string(uid));
        }
    }

    void checkForeignFlags() {
        for (const std::string& path : foreign_) {
            require(world_.flags.isSet(path), "somebody else's flag was cleared");
        }
    }

    void checkOwed(const std::string& path) {
        require(owes(path), "a flag of ours is left that nobody owes: " + nameOf(path));
        const auto* record = world_.store.commitment();
        require(record == nullptr || record->appPath == path,
                "the record on the disk owes another");
    }

    void checkFlags() {
        checkForeignFlags();
        if (!isFoul_) {
            for (const std::string& path : ours_) {
                checkOwed(path);
            }
        }
    }

    void checkDisk() {
        if (isFoul_) {
            return;
        }
        const auto* record = world_.store.commitment();
        require(world_.store.isEmpty() == engine_->isIdle(), "whether anything is on the disk");
        require(record == nullptr || *record == *engine_->commitment(),
                "what is on the disk is not what is held");
    }

    // The record is up to date and owes the lock as before, and the flags are off.
    void checkTerminated() {
        if (isFoul_) {
            return;
        }
        const auto* record = world_.store.commitment();
        require((record != nullptr) == expectation_.held.has_value(), "whether a record is left");
        if (record != nullptr) {
            require(expectation_.held->matches(*record, now()) && record->checkpoint == now() &&
                        record->locked == expectation_.held->locked,
                    "the record that was left");
            require(!record->locked || !world_.flags.isSet(record->appPath),
                    "a flag is left set while no helper runs");
        }
    }

    // No commitment outlives a day from its start, whatever the wall clock shows.
    void checkDay() {
        if (!expectation_.held) {
            age_.reset();
        } else if (age_ && !isFoul_) {
            require(!expectation_.held->isLive() || *age_ < day,
                    "it has run for longer than a day: " + inWords(*age_));
        }
    }

    void require(bool condition, const std::string& what) {
        if (condition) {
            return;
        }
        std::string report = "seed " + std::to_string(seed_) + (isFoul_ ? " (foul weather)" : "") +
                             ", event " + std::to_string(events_) + ": " + what +
                             "; expected: " + inWords(expectation_.held) + "\nThe last events:\n";
        for (const std::string& event : recent_) {
            report += "  " + event + "\n";
        }
        throw Violation(report);
    }

    // --- The trace

    void note(const std::string& event) {
        ++events_;
        tally_[event.substr(0, event.find(' '))] += 1;
        recent_.push_back("[" + inWords(now().sinceBoot) + "] " + event);
        if (recent_.size() > eventsInReport) {
            recent_.pop_front();
        }
        hash(event);
    }

    // FNV-1a.
    void hash(const std::string& text) {
        for (const char character : text) {
            trace_ = (trace_ ^ static_cast<unsigned char>(character)) * 0x100000001B3U;
        }
        trace_ = (trace_ ^ 0xFFU) * 0x100000001B3U;
    }

    void absorbTrace() {
        for (const std::string& call : world_.calls.calls()) {
            hash(call);
        }
        world_.calls.clear();
        for (const LogMessage& message : log_.messages()) {
            hash(message.text);
        }
        log_.clear();
    }

    [[nodiscard]] const ClockReading& now() const { return world_.clock.now(); }

    std::uint64_t seed_;
    Random random_;
    Tally& tally_;
    bool isFoul_;
    LogCapture log_;
    SimulatedWorld world_;
    std::vector<std::string> bundles_;
    std::optional<HelperEngine> engine_;
    Expectation expectation_{world_};

    // Flags that others set while nobody owed them: nobody may clear them but others.
    std::set<std::string> foreign_;
    // Flags that are set because the helper set them.
    std::set<std::string> ours_;

    // Of the commitment since its first begin: how long it has run, by the clock that counts from
    // boot, at most as much as was lost with the power; and how old it was when it began.
    std::optional<Seconds> age_;

    std::uint64_t trace_ = 0xCBF29CE484222325U;
    std::deque<std::string> recent_;
    std::size_t events_ = 0;
};

// The number in the environment variable `name`, or `otherwise`.
std::uint64_t setting(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::stoull(text);
}

constexpr const char* seedSetting = "HALVO_SIMULATION_SEED";
constexpr const char* runsSetting = "HALVO_SIMULATION_RUNS";

// One run of a failing seed is enough to see it fail again.
std::uint64_t defaultRuns() { return std::getenv(seedSetting) != nullptr ? 1 : 2000; }

class EngineSimulationTest : public ::testing::Test {
  protected:
    std::uint64_t run(std::uint64_t seed) { return EngineSimulation(seed, disk, tally).run(); }

    TemporaryFolder disk;
    Tally tally;
};

TEST_F(EngineSimulationTest, WhateverHappensTheRulesHold) {
    const std::uint64_t first = setting(seedSetting, 1);
    const std::uint64_t runs = setting(runsSetting, defaultRuns());
    std::cout << runs << " runs from seed " << first << "\n";
    for (std::uint64_t seed = first; seed < first + runs; ++seed) {
        try {
            run(seed);
        } catch (const Violation& violation) {
            FAIL() << violation.what() << "To replay: " << seedSetting << "=" << seed
                   << " SimulationTests";
        }
    }
    for (const auto& [what, count] : tally) {
        std::cout << what << " " << count << ", ";
    }
    std::cout << "and no rule was broken\n";
    if (runs < 1000) {
        return;
    }
    for (const char* what :
         {"begin",  "begun",        "begin-refused", "broken-off", "bundle",    "console",
          "end",    "file-damaged", "flag-cleared",  "flag-set",   "heartbeat", "kill",
          "opened", "power-cut",    "quits:",        "start",      "starts:",   "terminate",
          "tick",   "wall-clock",   "weather:"}) {
        EXPECT_GT(tally[what], runs / 10) << what << " hardly ever happened";
    }
}

TEST_F(EngineSimulationTest, ASeedReplaysExactly) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        EXPECT_EQ(run(seed), run(seed)) << seed;
    }
}

TEST_F(EngineSimulationTest, SeedsDiffer) {
    EXPECT_NE(run(1), run(3));
    EXPECT_NE(run(2), run(4));
}

}  // namespace
}  // namespace halvo::testing
