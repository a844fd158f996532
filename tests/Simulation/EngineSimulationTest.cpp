// The engine in a simulated world, under random sequences of events.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using Lift = HelperEngine::Lift;

constexpr std::size_t eventsPerRun = 250;
constexpr std::size_t eventsInReport = 40;
constexpr Seconds nothing{0};
constexpr Seconds checkpointGap{60};
constexpr std::size_t eighthsPerHour = std::size_t{8} * 60 * 60;

// --- The expected behaviour, by the rules and independent of the engine.

constexpr Seconds silence{6};
constexpr Seconds reopenGap{15};
constexpr Seconds sessionEndGrace{90};
constexpr int temporaryFailure = 75;

// By the text of the path only, which suffices for the paths of the simulation.
bool isBundle(const std::string& path) { return path.starts_with('/') && path.ends_with(".app"); }

bool isInApplications(const std::string& path) {
    return std::filesystem::path(path).parent_path().filename() == "Applications";
}

// The expected commitment, with both budgets counted down as time passes.
struct ExpectedCommitment {
    std::string appPath;
    std::uint32_t uid{};
    WallDate startedWall;
    Seconds remaining{};
    Seconds cap{};
    bool locked{};

    bool operator==(const ExpectedCommitment&) const = default;

    [[nodiscard]] Seconds left() const { return std::min(remaining, cap); }

    [[nodiscard]] bool isLive() const { return left() > Seconds{0}; }

    // Whether `record`, as of `now`, is this commitment with this time left, apart from `locked`.
    [[nodiscard]] bool matches(const HelperCommitment& record, const ClockReading& now) const;
};

// The commitment of a stored record as of `now`. Within one boot the time since its checkpoint is
// charged; after a reboot the time by the wall clock or the uptime, whichever is larger, and the
// commitment ends a day after its start by the wall clock.
ExpectedCommitment asOf(const HelperCommitment& record, const ClockReading& now) {
    ExpectedCommitment held{record.appPath,   record.uid,          record.startedWall,
                            record.remaining, record.capRemaining, record.locked};
    const bool sameBoot = record.checkpoint.bootID == now.bootID;
    const Seconds charged =
        sameBoot ? now.sinceBoot - record.checkpoint.sinceBoot
                 : std::max({now.wall - record.checkpoint.wall, now.sinceBoot, nothing});
    held.remaining -= charged;
    held.cap -= charged;
    if (!sameBoot) {
        held.cap = std::min(held.cap, record.startedWall + day - now.wall);
    }
    return held;
}

bool ExpectedCommitment::matches(const HelperCommitment& record, const ClockReading& now) const {
    ExpectedCommitment stored = asOf(record, now);
    stored.locked = locked;
    return stored == *this;
}

struct BeginRequest {
    std::string appPath;
    WallDate until;
    WallDate started;
    HelperPeer peer;
};

// A model of the engine: predicts the outcome of each operation from the world as it is before.
// Times are exact, as all spans are multiples of an eighth of a second.
class Expectation {
  public:
    explicit Expectation(const SimulatedWorld& world) : world_(world) {}

    std::optional<ExpectedCommitment> held;
    std::optional<HelperEngine::Lift> lastLift;

    // Time passes within one boot, whether or not an engine runs.
    void timePasses(Seconds span) {
        if (held) {
            held->remaining -= span;
            held->cap -= span;
        }
    }

    void startup() {
        held.reset();
        lastLift.reset();
        started_ = now();
        consoleSince_ = now();
        console_ = world_.session.console;
        heard_ = seen_ = opened_ = announced_ = std::nullopt;
        if (const auto* record = world_.store.commitment()) {
            held = asOf(*record, world_.clock.now());
            if (!held->isLive()) {
                lift(Lift::expiredAtStartup);
            }
        } else if (!world_.store.isEmpty()) {
            lastLift = Lift::unreadableAtStartup;
        }
    }

    bool begin(const BeginRequest& request) {
        unlockedPath_.clear();
        if (!isBundle(request.appPath) || request.peer.bundlePath != request.appPath) {
            return false;
        }
        if (held && !held->isLive()) {
            lift(Lift::deadline);
        }
        if (held && held->uid != request.peer.uid) {
            return false;
        }
        const WallDate wall = world_.clock.now().wall;
        ExpectedCommitment next{request.appPath,
                                request.peer.uid,
                                request.started,
                                request.until - wall,
                                request.started + day - wall,
                                false};
        if (held) {
            next.startedWall = held->startedWall;
            next.cap = std::min(next.cap, held->cap);
        }
        if (!next.isLive()) {
            if (held) {
                lift(Lift::ended);
            }
            return false;
        }
        const bool keepsLock = held && held->locked && held->appPath == next.appPath;
        next.locked = keepsLock || wouldLock(next.appPath);
        held = next;
        heard_ = now();
        announced_.reset();
        return true;
    }

    bool end(std::uint32_t uid) {
        if (!held || held->uid != uid) {
            return false;
        }
        lift(Lift::ended);
        return true;
    }

    bool heartbeat(bool sessionEnding, std::uint32_t uid) {
        if (!held || held->uid != uid) {
            return false;
        }
        if (!held->isLive()) {
            lift(Lift::deadline);
            return false;
        }
        heard_ = now();
        announced_ = sessionEnding ? heard_ : std::nullopt;
        return true;
    }

    std::optional<Opening> tick() {
        if (!held) {
            return std::nullopt;
        }
        if (!held->isLive()) {
            lift(Lift::deadline);
            return std::nullopt;
        }
        return openingDue();
    }

    int terminate() const { return held && held->isLive() ? temporaryFailure : 0; }

    HelperStatus status(std::uint32_t uid) const {
        if (!held || held->uid != uid || !held->isLive()) {
            return {};
        }
        return {true, world_.clock.now().wall + held->left(), held->locked};
    }

  private:
    void lift(Lift reason) {
        if (held->locked && !world_.flags.failsToUnlock) {
            unlockedPath_ = held->appPath;
        }
        held.reset();
        lastLift = reason;
        heard_ = seen_ = opened_ = announced_ = std::nullopt;
    }

    bool wouldLock(const std::string& path) const {
        const bool isFree = !world_.flags.isSet(path) || path == unlockedPath_;
        return isInApplications(path) && world_.flags.exists(path) && isFree &&
               !world_.flags.failsToLock && !world_.store.failsToSave && !world_.store.failsToSync;
    }

    std::optional<Opening> openingDue() {
        const auto& person = world_.session.console;
        if (person != console_) {
            console_ = person;
            consoleSince_ = now();
            if (person != held->uid) {
                announced_.reset();
            }
        }
        if (person != held->uid || isAnnounced()) {
            return std::nullopt;
        }
        // Absent times are the smallest optionals there are.
        const std::optional<Seconds> lastSign = std::max(heard_, seen_);
        const Seconds quietSince = std::max({started_, consoleSince_, lastSign.value_or(started_)});
        if (now() < quietSince + silence) {
            return std::nullopt;
        }
        if (world_.session.runs(held->appPath, held->uid)) {
            seen_ = now();
            return std::nullopt;
        }
        if (opened_ && now() < *opened_ + reopenGap) {
            return std::nullopt;
        }
        opened_ = now();
        const bool afterQuit = lastSign && *lastSign >= consoleSince_;
        return Opening{held->appPath, held->uid, afterQuit, now()};
    }

    bool isAnnounced() {
        if (announced_ && now() >= *announced_ + sessionEndGrace) {
            announced_.reset();
        }
        return announced_.has_value();
    }

    [[nodiscard]] Seconds now() const { return world_.clock.now().sinceBoot; }

    const SimulatedWorld& world_;

    // The flag that the operation clears before it reads the flags again.
    std::string unlockedPath_;

    // The last time of each event that delays an opening.
    Seconds started_{};
    std::optional<Seconds> heard_;
    std::optional<Seconds> seen_;
    std::optional<Seconds> opened_;
    std::optional<Seconds> announced_;
    std::optional<std::uint32_t> console_;
    Seconds consoleSince_{};
};

// --- The simulation

std::string inWords(Seconds span) { return std::to_string(span.count()) + " s"; }

std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

std::string inWords(const std::optional<ExpectedCommitment>& held) {
    return held ? nameOf(held->appPath) + " of " + std::to_string(held->uid) + ", left " +
                      inWords(held->left())
                : "nothing";
}

// A broken invariant, with the events that led to it.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// How often each event occurred, to show that the runs are not idle.
using Tally = std::map<std::string, std::size_t>;

// One run: a sequence of events that its seed determines, with all invariants checked after each.
// With an odd seed ("foul weather") the store and the flags fail, too.
//
// Two users begin, extend and end commitments and quit the app; the clocks and the console user
// change; other processes set and clear flags; bundles are moved; the helper is terminated, killed
// between any two calls of a collaborator, and started again; the machine is rebooted or loses
// power.
class EngineSimulation {
  public:
    EngineSimulation(std::uint64_t seed, const TemporaryFolder& disk, Tally& tally)
        : seed_(seed), random_(seed), tally_(tally), isFoul_(seed % 2 == 1), world_(disk) {
        for (const char* path :
             {"Applications/A.app", "Users/ann/Applications/B.app", "Applications/Sub/C.app"}) {
            bundles_.push_back(world_.addBundle(path));
        }
        world_.session.console = ann;
    }

    std::size_t run() {
        restart();
        while (events_ < eventsPerRun) {
            happen();
        }
        // After a crash the engine is started once more, so that its last state is checked.
        world_.calls.cancelCrash();
        while (!engine_) {
            restart();
        }
        return trace_;
    }

  private:
    // The value of a flag, and whether a record or the engine owes its removal.
    struct Flag {
        bool isSet{};
        bool isOwed{};
    };

    // --- Chance

    // One of 0 ..< limit.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }

    bool chance(unsigned percent) { return below(100) < percent; }

    template <class Values>
    auto oneOf(const Values& values) {
        return values[below(values.size())];
    }

    Seconds eighths(std::size_t limit) {
        return Seconds{static_cast<double>(below(limit) + 1) / 8};
    }

    std::string anyBundle() { return bundles_[below(bundles_.size())]; }

    std::uint32_t anyUser() { return chance(75) ? ann : ben; }

    // --- Events

    using Event = void (EngineSimulation::*)();

    struct Chance {
        std::size_t percent;
        Event event;
    };

    void oneOf(std::initializer_list<Chance> chances) {
        std::size_t dice = below(100);
        for (const auto& [percent, event] : chances) {
            if (dice < percent) {
                return (this->*event)();
            }
            dice -= percent;
        }
    }

    void happen() {
        using Self = EngineSimulation;
        if (!engine_) {
            oneOf({{50, &Self::restart},
                   {10, &Self::powerCut},
                   {5, &Self::damageFile},
                   {35, &Self::happenToWorld}});
        } else {
            oneOf({{54, &Self::tickInTime},
                   {5, &Self::tickLate},
                   {7, &Self::heartbeat},
                   {8, &Self::begin},
                   {2, &Self::end},
                   {2, &Self::terminate},
                   {1, &Self::kill},
                   {1, &Self::powerCut},
                   {20, &Self::happenToWorld}});
        }
    }

    void happenToWorld() {
        using Self = EngineSimulation;
        const std::array events{&Self::setWallClock,     &Self::changeFlagByHand,
                                &Self::changeFlagByHand, &Self::moveBundle,
                                &Self::switchConsole,    &Self::startOrQuitApp,
                                &Self::changeWeather,    &Self::sleep};
        (this->*oneOf(events))();
        check();
    }

    void sleep() { pass(chance(50) ? eighths(800) : eighths(10 * eighthsPerHour)); }

    void tickInTime() {
        pass(Seconds{2});
        tick();
    }

    void tickLate() {
        pass(eighths(400));
        tick();
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
        request.appPath = chance(3) ? "/Applications/NoBundle" : anyBundle();
        request.until = now().wall + oneOf(lengths) + eighths(16);
        request.started = now().wall + oneOf(starts);
        request.peer = {anyUser(), chance(95) ? std::optional(request.appPath) : std::nullopt};
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
        const std::uint32_t uid = anyUser();
        operate(
            "end by " + std::to_string(uid), [&] { return expectation_.end(uid); },
            [&] { return engine_->end({uid, std::nullopt}); });
    }

    void heartbeat() {
        const std::uint32_t uid = anyUser();
        const bool ending = chance(15);
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

    // The commitment that the next engine will find.
    std::optional<ExpectedCommitment> onDisk() const {
        const auto* record = world_.store.commitment();
        return record == nullptr ? std::nullopt : std::optional(asOf(*record, now()));
    }

    // The time since the last save is lost, unless the wall clock tells of it.
    void powerCut() {
        const Seconds off = chance(50) ? eighths(800) : eighths(20 * eighthsPerHour);
        const Seconds up = eighths(2000);
        note("power-cut for " + inWords(off) + ", up for " + inWords(up));
        engine_.reset();
        const auto* record = world_.store.commitment();
        const bool isFresh = record != nullptr && record->checkpoint.bootID == now().bootID;
        // All of the uptime is lost when nothing was saved in this boot.
        const Seconds lost = now().sinceBoot - (isFresh ? record->checkpoint.sinceBoot : nothing);
        const auto before = onDisk();
        world_.clock.reboot(off, up);
        world_.session.quitAll();
        if (chance(40)) {
            setWallClock();
        }
        require(!isFresh || onDisk()->left() <= before->left() + lost - up,
                "a reboot restored more time than was lost with the power");
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
        const Seconds jump = eighths(30 * eighthsPerHour) * (chance(50) ? 1 : -1);
        note("wall-clock " + inWords(jump));
        world_.clock.moveWallClock(jump);
    }

    void changeFlagByHand() {
        const std::string path = anyBundle();
        const bool isSet = world_.flags.isSet(path);
        if (!world_.flags.exists(path)) {
            return;
        }
        note((isSet ? "flag-cleared by hand: " : "flag-set by hand: ") + nameOf(path));
        world_.flags.setByHand(path, !isSet);
        if (isSet) {
            foreign_.erase(path);
            ours_.erase(path);
        } else if (!owes(path)) {
            foreign_.insert(path);
        }
    }

    // In the simulated flags only: the real folder stays, which saves thousands of system calls.
    void moveBundle() {
        const std::string path = anyBundle();
        if (!world_.flags.exists(path)) {
            note("bundle " + nameOf(path) + " comes back");
            world_.flags.add(path);
        } else if (!world_.flags.isSet(path) && chance(40)) {
            note("bundle " + nameOf(path) + " goes away");
            world_.flags.erase(path);
        }
    }

    void switchConsole() {
        constexpr std::array<std::optional<std::uint32_t>, 4> people{ann, ann, ben, std::nullopt};
        world_.session.console = oneOf(people);
        note("console " + std::to_string(world_.session.console.value_or(0)));
    }

    void startOrQuitApp() {
        const std::string path = anyBundle();
        const std::uint32_t uid = anyUser();
        if (world_.session.runs(path, uid)) {
            note("quits: " + nameOf(path) + " of " + std::to_string(uid));
            world_.session.quit(path, uid);
        } else {
            note("starts: " + nameOf(path) + " of " + std::to_string(uid));
            world_.session.start(path, uid);
        }
        world_.opener.startsApps = chance(50);
    }

    void changeWeather() {
        std::string failing = "weather: failing";
        const auto change = [&](bool& fails, const char* what) {
            fails = chance(30);
            failing += fails ? what : "";
        };
        change(world_.flags.failsToLock, " locks");
        if (isFoul_) {
            change(world_.store.failsToSave, " saves");
            change(world_.store.failsToSync, " syncs");
            change(world_.store.failsToRemove, " removals");
            change(world_.flags.failsToUnlock, " unlocks");
        }
        note(failing);
    }

    // In fair weather path and lock can still be parsed.
    void damageFile() {
        const auto* record = world_.store.commitment();
        if (record == nullptr) {
            return;
        }
        note("file-damaged");
        UnreadableCommitment rest{record->appPath, record->locked};
        if (isFoul_ && chance(30)) {
            rest.appPath.reset();
        }
        if (isFoul_ && chance(30)) {
            rest.locked = false;
        }
        world_.store.stored = rest;
        age_.reset();
    }

    // --- One operation

    // Runs `actual` on the engine, which must return what `expected` returns. Now and then it
    // crashes at some call of a collaborator.
    template <class Expected, class Actual>
    void operate(const std::string& what, Expected expected, Actual actual) {
        note(what);
        if (chance(2)) {
            world_.calls.crashAt(below(9) + 1);
        }
        const auto flagsBefore = flagsNow();
        const auto before = expectation_.held;
        // First: the model reads the world as it is before the operation.
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
            checkCrash(before, expectation_.held);
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

    // The operation may set flags only with a record on the disk, and clear only those it owed.
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
                require(flag.isOwed, "a flag was cleared that no record owed");
            }
        }
    }

    // After a crash within an operation the disk has the commitment from before or from after it.
    void checkCrash(const std::optional<ExpectedCommitment>& before,
                    const std::optional<ExpectedCommitment>& after) {
        note("broken-off");
        checkFlags();
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
    }

    // --- Invariants

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
        require(engine_->lastLift() == expectation_.lastLift, "the reason of the last end");
        if (expected) {
            require(expected->matches(*held, now()),
                    "what is held: " + inWords(asOf(*held, now())));
            require(held->locked == expected->locked, "whether the unlock is owed");
        }
        for (const std::uint32_t uid : {ann, ben}) {
            require(engine_->status({uid, std::nullopt}) == expectation_.status(uid),
                    "the status of " + std::to_string(uid));
        }
    }

    void checkFlags() {
        for (const std::string& path : foreign_) {
            require(world_.flags.isSet(path), "a flag of another process was cleared");
        }
        const auto* record = world_.store.commitment();
        for (const std::string& path : isFoul_ ? std::set<std::string>() : ours_) {
            require(owes(path),
                    "a flag of the helper is left that no record owes: " + nameOf(path));
            require(record == nullptr || record->appPath == path,
                    "the record on the disk owes another bundle");
        }
    }

    void checkDisk() {
        if (isFoul_) {
            return;
        }
        const auto* record = world_.store.commitment();
        require(world_.store.isEmpty() == engine_->isIdle(), "whether anything is on the disk");
        require(record == nullptr || *record == *engine_->commitment(),
                "the record on the disk is not the held commitment");
    }

    // The record is up to date and still owes the lock, and the flag is cleared.
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

    // No commitment lasts longer than a day from its start, whatever the wall clock shows.
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

    void hash(const std::string& text) {
        trace_ = std::hash<std::string>{}(std::to_string(trace_) + text);
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
    // Gives the same numbers on every machine.
    std::mt19937_64 random_;
    Tally& tally_;
    bool isFoul_;
    LogCapture log_;
    SimulatedWorld world_;
    std::vector<std::string> bundles_;
    std::optional<HelperEngine> engine_;
    Expectation expectation_{world_};

    // Flags that other processes set, and that no record owed: the helper must not clear them.
    std::set<std::string> foreign_;
    // Flags that the helper set.
    std::set<std::string> ours_;

    // The age of the commitment since its first begin: what it had at the begin, plus the uptime
    // since then, less what was lost with the power.
    std::optional<Seconds> age_;

    std::size_t trace_ = 0;
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

// One run replays a given seed.
std::uint64_t defaultRuns() { return std::getenv(seedSetting) != nullptr ? 1 : 1000; }

class EngineSimulationTest : public ::testing::Test {
  protected:
    std::size_t run(std::uint64_t seed) { return EngineSimulation(seed, disk, tally).run(); }

    TemporaryFolder disk;
    Tally tally;
};

TEST_F(EngineSimulationTest, RandomHistoriesKeepTheInvariants) {
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
    std::cout << "and no invariant was broken\n";
    if (runs < 1000) {
        return;
    }
    for (const char* what :
         {"begin",  "begun",        "begin-refused", "broken-off", "bundle",    "console",
          "end",    "file-damaged", "flag-cleared",  "flag-set",   "heartbeat", "kill",
          "opened", "power-cut",    "quits:",        "start",      "starts:",   "terminate",
          "tick",   "wall-clock",   "weather:"}) {
        EXPECT_GT(tally[what], runs / 10) << what << " hardly ever occurred";
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
