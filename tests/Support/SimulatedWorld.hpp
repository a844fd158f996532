// A simulated machine: everything that the engine knows of the world, without the world; and a main
// queue that runs when told to, on simulated time.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoHelperCore/AppOpener.hpp"
#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/HelperClock.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SessionProbe.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {

// Thrown out of the collaborator call at which the world was told to crash. Of no standard type, so
// that nothing catches it by accident.
struct Crash {};

// Every call of a collaborator, in order, in words: "save locked", "lock Halvo.app".
class CallLog {
  public:
    // Notes a call, of a path its last component; throws Crash instead when this is the one to
    // crash at.
    void enter(std::string_view verb, std::string_view object = {}) {
        if (untilCrash_ != 0 && --untilCrash_ == 0) {
            throw Crash{};
        }
        if (recording_) {
            std::string& call = calls_.emplace_back(verb);
            if (!object.empty()) {
                call.append(" ").append(object.substr(object.find_last_of('/') + 1));
            }
        }
    }

    [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }

    // The calls that change something outside the engine: saves, removals, locks, unlocks,
    // openings.
    [[nodiscard]] std::vector<std::string> changes() const {
        constexpr std::array<std::string_view, 5> verbs{"save", "remove", "lock", "unlock", "open"};
        std::vector<std::string> result;
        std::ranges::copy_if(calls_, std::back_inserter(result), [&](std::string_view call) {
            return std::ranges::find(verbs, call.substr(0, call.find(' '))) != verbs.end();
        });
        return result;
    }

    // How many calls were noted in exactly these words.
    [[nodiscard]] std::size_t count(std::string_view call) const {
        return static_cast<std::size_t>(std::ranges::count(calls_, call));
    }

    void clear() { calls_.clear(); }

    // The call number `nth` from now (the next one is number 1) is not carried out: it throws
    // Crash.
    void crashAt(std::size_t nth) { untilCrash_ = nth; }

    // No crash any more. Returns whether the one asked for was still to come.
    bool cancelCrash() { return std::exchange(untilCrash_, 0) != 0; }

    // Notes nothing any more, so that no call allocates.
    void stopRecording() { recording_ = false; }

  private:
    std::vector<std::string> calls_;
    std::size_t untilCrash_ = 0;
    bool recording_ = true;
};

// The clocks of a machine that stands still until told otherwise.
class SimulatedClock final : public HelperClock {
  public:
    explicit SimulatedClock(CallLog& log) : log_(log) {}

    ClockReading reading() override {
        log_.enter("reading");
        return now_;
    }

    // The reading, not counted as a call.
    [[nodiscard]] const ClockReading& now() const { return now_; }

    // Lets time pass, awake or asleep: both clocks move.
    void advance(Seconds span) {
        now_.sinceBoot += span;
        now_.wall += span;
    }

    // Somebody sets the wall clock.
    void setWallClock(WallDate date) { now_.wall = date; }

    void moveWallClock(Seconds by) { now_.wall += by; }

    // A clock that misbehaves: the time since boot becomes `time`.
    void setSinceBoot(Seconds time) { now_.sinceBoot = time; }

    // Another boot: the machine was off for `off`, and has been up for `up`.
    void reboot(Seconds off, Seconds up) {
        now_.bootID = "boot " + std::to_string(++boots_);
        now_.sinceBoot = up;
        now_.wall += off + up;
    }

  private:
    CallLog& log_;
    int boots_ = 1;
    ClockReading now_{"boot 1", Seconds{1000}, wallDate(1'760'000'000)};
};

// The items of a disk and which of them carry the lock flag.
class SimulatedFlags final : public FileFlags {
  public:
    explicit SimulatedFlags(CallLog& log) : log_(log) {}

    LockState state(const std::string& path) override {
        log_.enter("state", path);
        return !exists(path) ? LockState::missing
               : isSet(path) ? LockState::locked
                             : LockState::unlocked;
    }

    bool setLocked(bool locked, const std::string& path) override {
        log_.enter(locked ? "lock" : "unlock", path);
        // Flags that are as asked need no change, which could fail.
        if (!exists(path) || (isSet(path) != locked && (locked ? failsToLock : failsToUnlock))) {
            return false;
        }
        items_[path] = locked;
        return true;
    }

    // The system refuses to set, or to clear, any flag.
    bool failsToLock = false;
    bool failsToUnlock = false;

    // What is there, as anybody may see it.
    [[nodiscard]] bool exists(const std::string& path) const { return items_.contains(path); }

    [[nodiscard]] bool isSet(const std::string& path) const {
        const auto item = items_.find(path);
        return item != items_.end() && item->second;
    }

    // What others do.
    void add(const std::string& path) { items_.emplace(path, false); }

    void erase(const std::string& path) { items_.erase(path); }

    void setByHand(const std::string& path, bool flag) { items_.at(path) = flag; }

  private:
    CallLog& log_;
    std::map<std::string, bool> items_;
};

// The state file, in memory. It outlives the engines that use it, as the file does.
class SimulatedStore final : public CommitmentStore {
  public:
    explicit SimulatedStore(CallLog& log) : log_(log) {}

    StoredCommitment load() override {
        log_.enter("load");
        return stored;
    }

    bool save(const HelperCommitment& commitment) override {
        log_.enter("save", commitment.locked ? "locked" : "unlocked");
        if (!failsToSave) {
            stored = commitment;
        }
        return !failsToSave && !failsToSync;
    }

    void remove() override {
        log_.enter("remove");
        if (!failsToRemove) {
            stored = NoCommitment{};
        }
    }

    bool failsToSave = false;
    // A save gets to the disk, but says that it may not have.
    bool failsToSync = false;
    bool failsToRemove = false;

    // What is on the disk.
    StoredCommitment stored = NoCommitment{};

    // The commitment on the disk, if that is what is there.
    [[nodiscard]] const HelperCommitment* commitment() const {
        return std::get_if<HelperCommitment>(&stored);
    }

    [[nodiscard]] bool isEmpty() const { return std::holds_alternative<NoCommitment>(stored); }

  private:
    CallLog& log_;
};

// Who sits at the console and which apps run.
class SimulatedSession final : public SessionProbe {
  public:
    explicit SimulatedSession(CallLog& log) : log_(log) {}

    std::optional<std::uint32_t> consoleUser() override {
        log_.enter("console");
        return console;
    }

    bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) override {
        log_.enter("running?", bundlePath);
        return runs(bundlePath, uid);
    }

    std::optional<std::uint32_t> console;

    void start(const std::string& bundlePath, std::uint32_t uid) {
        running_[bundlePath].insert(uid);
    }

    void quit(const std::string& bundlePath, std::uint32_t uid) { running_[bundlePath].erase(uid); }

    void quitAll() { running_.clear(); }

    // The answer of isAppRunning(), not counted as a call.
    [[nodiscard]] bool runs(const std::string& bundlePath, std::uint32_t uid) const {
        const auto users = running_.find(bundlePath);
        return users != running_.end() && users->second.contains(uid);
    }

  private:
    CallLog& log_;
    std::map<std::string, std::set<std::uint32_t>> running_;
};

struct Opening {
    std::string appPath;
    std::uint32_t uid{};
    bool afterQuit{};
    // Time since boot.
    Seconds at{};

    bool operator==(const Opening&) const = default;
};

// Remembers what was opened. Whether the app then comes up is for the test to say.
class SimulatedOpener final : public AppOpener {
  public:
    SimulatedOpener(CallLog& log, const SimulatedClock& clock, SimulatedSession& session)
        : log_(log), clock_(clock), session_(session) {}

    void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) override {
        log_.enter("open", appPath);
        openings.push_back({appPath, uid, afterQuit, clock_.now().sinceBoot});
        if (startsApps) {
            session_.start(appPath, uid);
        }
    }

    std::vector<Opening> openings;
    // An app that is opened runs from then on.
    bool startsApps = false;

  private:
    CallLog& log_;
    const SimulatedClock& clock_;
    SimulatedSession& session_;
};

// One machine. The fakes are silent: they write nothing to the log, so that what is in the log the
// engine said. Where apps may lie is asked of the real disk, so bundles are real, empty folders.
class SimulatedWorld {
  public:
    SimulatedWorld() : own_(std::in_place), disk_(*own_) {}

    // A machine whose bundles lie in `disk`, which outlives it.
    explicit SimulatedWorld(const TemporaryFolder& disk) : disk_(disk) {}

    SimulatedWorld(const SimulatedWorld&) = delete;
    SimulatedWorld& operator=(const SimulatedWorld&) = delete;

    CallLog calls;
    SimulatedClock clock{calls};
    SimulatedFlags flags{calls};
    SimulatedStore store{calls};
    // Store and flags as the helper puts them together.
    RecordedLocks locks{store, flags};
    SimulatedSession session{calls};
    SimulatedOpener opener{calls, clock, session};

    // Makes a bundle at `relativePath`, as "Applications/Halvo.app", and returns its whole path.
    std::string addBundle(const std::string& relativePath) {
        std::string path = disk_ / relativePath;
        std::filesystem::create_directories(path);
        flags.add(path);
        return path;
    }

    // An engine that has not started up.
    [[nodiscard]] HelperEngine makeEngine() { return {clock, locks, locks, session, opener}; }

  private:
    std::optional<TemporaryFolder> own_;
    const TemporaryFolder& disk_;
};

// ---------------------------------------------------------------------------------- the main queue

// Thrown in the place of the end of the process.
struct ProcessExit {
    int status;
};

// Thrown by run(), which must not return: from here on the test serves the queue.
struct QueueServed {};

// Everything happens on the thread that calls advance(), runPending() or terminate(), in the order
// that the live queue promises; only async() may be called from any thread. Time is that of a
// simulated clock, which advance() moves; it may be moved otherwise too (the machine slept).
class ManualMainQueue final : public MainQueue {
  public:
    // A timer as it was asked for.
    struct TimerRequest {
        Seconds first{};
        Seconds interval{};
        Seconds leeway{};

        bool operator==(const TimerRequest&) const = default;
    };

    // What is asked of it is noted in `calls`, if any: "repeat", "handle SIGTERM".
    explicit ManualMainQueue(SimulatedClock& clock, CallLog* calls = nullptr)
        : clock_(clock), calls_(calls) {}

    void async(Work work) override {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(std::move(work));
    }

    void repeat(Seconds first, Seconds interval, Seconds leeway, Work work) override {
        note("repeat");
        requests_.push_back({first, interval, leeway});
        timers_.push_back({now() + first, interval, std::move(work)});
    }

    void after(Seconds delay, Work work) override {
        delays_.push_back(delay);
        const bool isDelay = delay > Seconds{0};  // not-a-number is none
        timers_.push_back({now() + (isDelay ? delay : Seconds{0}), std::nullopt, std::move(work)});
    }

    void onTermination(Work work) override {
        note("handle SIGTERM");
        termination_ = std::move(work);
    }

    [[nodiscard]] Seconds now() const override { return clock_.now().sinceBoot; }

    [[noreturn]] void run() override { throw QueueServed{}; }

    [[noreturn]] void exit(int status) override { throw ProcessExit{status}; }

    // Lets `span` pass: work that waits runs first, then each timer whenever it is due, and after
    // each turn what that turn enqueued. Every turn is on the dot.
    void advance(Seconds span) {
        runPending();
        const Seconds end = now() + span;
        for (auto next = nextDue(); next != timers_.end() && next->due <= end; next = nextDue()) {
            clock_.advance(std::max(next->due - now(), Seconds{0}));
            fire(next);
            runPending();
        }
        clock_.advance(std::max(end - now(), Seconds{0}));
    }

    // Runs the work that waits, also what it enqueues, without letting time pass.
    void runPending() {
        while (true) {
            std::vector<Work> batch;
            {
                const std::lock_guard lock(mutex_);
                batch.swap(waiting_);
            }
            if (batch.empty()) {
                return;
            }
            for (Work& work : batch) {
                work();
            }
        }
    }

    // Delivers SIGTERM, for which there must be a handler.
    void terminate() {
        runPending();
        termination_();
        runPending();
    }

    [[nodiscard]] const std::vector<TimerRequest>& timers() const { return requests_; }

    // Every delay that after() was asked for.
    [[nodiscard]] const std::vector<Seconds>& delays() const { return delays_; }

  private:
    struct Timer {
        Seconds due;
        // Absent for one that turns once.
        std::optional<Seconds> interval;
        Work work;
    };

    using Timers = std::vector<Timer>;

    void note(std::string_view call) {
        if (calls_ != nullptr) {
            calls_->enter(call);
        }
    }

    // The timer that is due first, of two the one made first; the end when there is none.
    Timers::iterator nextDue() { return std::ranges::min_element(timers_, {}, &Timer::due); }

    // The timer keeps to its grid; turns that were missed are not made up for.
    void fire(Timers::iterator timer) {
        // A copy: the work may add timers, which moves this one.
        const Work work = timer->work;
        if (timer->interval) {
            const double missed = std::floor((now() - timer->due) / *timer->interval);
            timer->due += *timer->interval * (std::max(missed, 0.0) + 1);
        } else {
            timers_.erase(timer);
        }
        work();
    }

    SimulatedClock& clock_;
    CallLog* calls_;
    std::mutex mutex_;
    std::vector<Work> waiting_;
    std::vector<TimerRequest> requests_;
    std::vector<Seconds> delays_;
    Timers timers_;
    Work termination_;
};

}  // namespace halvo::testing
