// A simulated machine: everything that the engine knows of the world, without the world.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
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
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {

// Thrown out of the collaborator call at which the world was told to crash. Of no standard type, so
// that nothing catches it by accident.
struct Crash {};

// Every call of a collaborator, in order, in words: "save locked", "lock Halvo.app".
class CallLog {
  public:
    // Notes a call; throws Crash instead when this is the one to crash at.
    void enter(std::string_view verb, std::string_view object = {});

    [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }

    // The calls that change something outside the engine: saves, removals, locks, unlocks,
    // openings.
    [[nodiscard]] std::vector<std::string> changes() const;

    // How many calls were noted in exactly these words.
    [[nodiscard]] std::size_t count(std::string_view call) const;

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

    ClockReading reading() override;

    // The reading, not counted as a call.
    [[nodiscard]] const ClockReading& now() const { return now_; }

    // Lets time pass, awake or asleep: both clocks move.
    void advance(Seconds span);

    // Somebody sets the wall clock.
    void setWallClock(WallDate date) { now_.wall = date; }

    void moveWallClock(Seconds by) { now_.wall += by; }

    // A clock that misbehaves: the time since boot becomes `time`.
    void setSinceBoot(Seconds time) { now_.sinceBoot = time; }

    // Another boot: the machine was off for `off`, and has been up for `up`.
    void reboot(Seconds off, Seconds up);

  private:
    CallLog& log_;
    int boots_ = 1;
    ClockReading now_{"boot 1", Seconds{1000}, wallDate(1'760'000'000)};
};

// The items of a disk and which of them carry the lock flag.
class SimulatedFlags final : public FileFlags {
  public:
    explicit SimulatedFlags(CallLog& log) : log_(log) {}

    LockState state(const std::string& path) override;
    bool setLocked(bool locked, const std::string& path) override;

    // The system refuses to set, or to clear, any flag.
    bool failsToLock = false;
    bool failsToUnlock = false;

    // What is there, as anybody may see it.
    [[nodiscard]] bool exists(const std::string& path) const { return items_.contains(path); }

    [[nodiscard]] bool isSet(const std::string& path) const;

    // What others do.
    void add(const std::string& path) { items_.emplace(path, false); }

    void erase(const std::string& path) { items_.erase(path); }

    void setByHand(const std::string& path, bool flag) { items_.at(path) = flag; }

  private:
    CallLog& log_;
    std::map<std::string, bool> items_;
};

// The state file, in memory. It outlives the engines that use it, as the file does.
class SimulatedStore final : public DurableCommitmentStore {
  public:
    explicit SimulatedStore(CallLog& log) : log_(log) {}

    StoredCommitment load() override;
    bool saveDurably(const HelperCommitment& commitment) override;
    void remove() override;

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

    std::optional<std::uint32_t> consoleUser() override;
    bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) override;

    std::optional<std::uint32_t> console;

    void start(const std::string& bundlePath, std::uint32_t uid) {
        running_[bundlePath].insert(uid);
    }

    void quit(const std::string& bundlePath, std::uint32_t uid) { running_[bundlePath].erase(uid); }

    void quitAll() { running_.clear(); }

    // The answer of isAppRunning(), not counted as a call.
    [[nodiscard]] bool runs(const std::string& bundlePath, std::uint32_t uid) const;

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

    void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) override;

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
    std::string addBundle(const std::string& relativePath);

    // Deletes the bundle, which must carry no flag, or brings it back.
    void deleteBundle(const std::string& path);
    void restoreBundle(const std::string& path);

    // An engine that has not started up.
    [[nodiscard]] HelperEngine makeEngine() { return {clock, locks, locks, session, opener}; }

  private:
    std::optional<TemporaryFolder> own_;
    const TemporaryFolder& disk_;
};

}  // namespace halvo::testing
