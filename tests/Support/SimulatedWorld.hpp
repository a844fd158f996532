// A simulated machine: fakes of the engine's collaborators, and a main queue on simulated time that
// the test drives.
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

// Two people.
inline constexpr std::uint32_t ann = 501;
inline constexpr std::uint32_t ben = 502;

// Thrown instead of the call at which CallLog::crashAt() simulates a crash. Not derived from
// std::exception, so that no handler catches it by accident.
struct Crash {};

// Records the calls of the collaborators in order: "save locked", "lock Halvo.app".
class CallLog {
  public:
    // Records a call, with the last component of a path; throws Crash instead at the call that
    // crashAt() chose.
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

    // The number of recorded calls that equal `call`.
    [[nodiscard]] std::size_t count(std::string_view call) const {
        return static_cast<std::size_t>(std::ranges::count(calls_, call));
    }

    void clear() { calls_.clear(); }

    // The `nth` call from now (the next one is number 1) throws Crash instead of being made.
    void crashAt(std::size_t nth) { untilCrash_ = nth; }

    // Cancels crashAt(). True when the crash had not happened yet.
    bool cancelCrash() { return std::exchange(untilCrash_, 0) != 0; }

    // Stops recording, so that no call allocates.
    void stopRecording() { recording_ = false; }

  private:
    std::vector<std::string> calls_;
    std::size_t untilCrash_ = 0;
    bool recording_ = true;
};

// Clocks that only the test moves.
class SimulatedClock final : public HelperClock {
  public:
    explicit SimulatedClock(CallLog& log) : log_(log) {}

    ClockReading reading() override {
        log_.enter("reading");
        return now_;
    }

    // The reading; not recorded as a call.
    [[nodiscard]] const ClockReading& now() const { return now_; }

    // Time passes, awake or asleep: both clocks advance.
    void advance(Seconds span) {
        now_.sinceBoot += span;
        now_.wall += span;
    }

    // The wall clock is set (clock_settime(2)).
    void setWallClock(WallDate date) { now_.wall = date; }

    void moveWallClock(Seconds by) { now_.wall += by; }

    // A faulty clock: the time since boot becomes `time`.
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

// The items on a disk, and which of them have the lock flag.
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
        // A flag that already has the wanted value is not set, which cannot fail.
        if (!exists(path) || (isSet(path) != locked && (locked ? failsToLock : failsToUnlock))) {
            return false;
        }
        items_[path] = locked;
        return true;
    }

    void sync(const std::string& path) override { log_.enter("sync", path); }

    // Setting, or clearing, any flag fails.
    bool failsToLock = false;
    bool failsToUnlock = false;

    // The items as they are; not recorded as calls.
    [[nodiscard]] bool exists(const std::string& path) const { return items_.contains(path); }

    [[nodiscard]] bool isSet(const std::string& path) const {
        const auto item = items_.find(path);
        return item != items_.end() && item->second;
    }

    // Changes by other processes.
    void add(const std::string& path) { items_.emplace(path, false); }

    void erase(const std::string& path) { items_.erase(path); }

    void setByHand(const std::string& path, bool flag) { items_.at(path) = flag; }

  private:
    CallLog& log_;
    std::map<std::string, bool> items_;
};

// The state file, in memory; it outlives the engines that use it.
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
    // A save reaches the disk, but reports failure, as when fsync(2) fails.
    bool failsToSync = false;
    bool failsToRemove = false;

    // The contents of the disk.
    StoredCommitment stored = NoCommitment{};

    // The stored commitment; null when there is none that can be read.
    [[nodiscard]] const HelperCommitment* commitment() const {
        return std::get_if<HelperCommitment>(&stored);
    }

    [[nodiscard]] bool isEmpty() const { return std::holds_alternative<NoCommitment>(stored); }

  private:
    CallLog& log_;
};

// The console user and the running apps.
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

    // What isAppRunning() returns; not recorded as a call.
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

// Records the openings. The app starts only with `startsApps`, or when the test starts it.
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
    // An opened app runs from then on.
    bool startsApps = false;

  private:
    CallLog& log_;
    const SimulatedClock& clock_;
    SimulatedSession& session_;
};

// One machine. The fakes log nothing, so every log message is the engine's. AppLocation examines
// the real disk, so bundles are real, empty folders.
class SimulatedWorld {
  public:
    SimulatedWorld() : own_(std::in_place), disk_(*own_) {}

    // A machine whose bundles lie in `disk`, which must outlive it.
    explicit SimulatedWorld(const TemporaryFolder& disk) : disk_(disk) {}

    SimulatedWorld(const SimulatedWorld&) = delete;
    SimulatedWorld& operator=(const SimulatedWorld&) = delete;

    CallLog calls;
    SimulatedClock clock{calls};
    SimulatedFlags flags{calls};
    SimulatedStore store{calls};
    // Store and flags combined as in the helper.
    RecordedLocks locks{store, flags};
    SimulatedSession session{calls};
    SimulatedOpener opener{calls, clock, session};

    // Makes a bundle at `relativePath`, such as "Applications/Halvo.app"; returns its full path.
    std::string addBundle(const std::string& relativePath) {
        std::string path = disk_ / relativePath;
        std::filesystem::create_directories(path);
        flags.add(path);
        return path;
    }

    // An engine before startup().
    [[nodiscard]] HelperEngine makeEngine() { return {clock, locks, locks, session, opener}; }

  private:
    std::optional<TemporaryFolder> own_;
    const TemporaryFolder& disk_;
};

// ---------------------------------------------------------------------------------- the main queue

// Thrown instead of exiting the process.
struct ProcessExit {
    int status;
};

// Thrown by run(), which must not return: from then on the test drives the queue.
struct QueueServed {};

// Runs all work on the thread that calls advance(), runPending() or terminate(), in the order that
// the live queue promises; only async() may be called from any thread. Its time is a simulated
// clock, which advance() moves; moving that directly simulates sleep.
class ManualMainQueue final : public MainQueue {
  public:
    // The arguments of repeat().
    struct TimerRequest {
        Seconds first{};
        Seconds interval{};
        Seconds leeway{};

        bool operator==(const TimerRequest&) const = default;
    };

    // Records in `calls`, if given: "repeat", "handle SIGTERM".
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

    // Lets `span` pass: runs the pending work first, then each timer exactly when it is due, and
    // after each the work that it enqueued.
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

    // Runs the pending work, also what it enqueues, without letting time pass.
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

    // Delivers SIGTERM; a handler must be set.
    void terminate() {
        runPending();
        termination_();
        runPending();
    }

    [[nodiscard]] const std::vector<TimerRequest>& timers() const { return requests_; }

    // The delays of all after() calls.
    [[nodiscard]] const std::vector<Seconds>& delays() const { return delays_; }

  private:
    struct Timer {
        Seconds due;
        // Absent for a one-shot timer.
        std::optional<Seconds> interval;
        Work work;
    };

    using Timers = std::vector<Timer>;

    void note(std::string_view call) {
        if (calls_ != nullptr) {
            calls_->enter(call);
        }
    }

    // The timer that is due first, the older one of two; end() when there is none.
    Timers::iterator nextDue() { return std::ranges::min_element(timers_, {}, &Timer::due); }

    // A repeating timer keeps its grid; missed expirations are skipped.
    void fire(Timers::iterator timer) {
        // A copy: the work may add timers, which invalidates `timer`.
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
