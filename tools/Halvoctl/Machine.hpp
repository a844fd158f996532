// halvoctl's commands, and the machine that they inspect and change, which tests replace. Main
// thread only.
#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/HelperClock.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/SessionProbe.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/CommandLine.hpp"

namespace halvo::control {

namespace ExitStatus = tools::ExitStatus;
using tools::Outcome;

// ------------------------------------------------------------------------------------- the machine

// Polls for conditions that the system does not announce. Tests override the virtual functions.
class Waiter {
  public:
    virtual ~Waiter() = default;

    // Calls `isDone` every 10 milliseconds until it returns true or `limit` has passed. Prints
    // `line`, unless it is empty, once a second has passed. Returns the last result of `isDone`.
    bool wait(const std::function<bool()>& isDone, Seconds limit, const std::string& line = "");

    // A monotonic clock with an arbitrary start.
    virtual Seconds now();

  protected:
    virtual void pause(Seconds span);
    // Writes `line` to standard error.
    virtual void say(const std::string& line);
};

// The processes of one helper: those of root that run its executable as the service. One source per
// system; tests override the virtual functions.
class HelperProcesses {
  public:
    // `executable`: the path of the helper.
    explicit HelperProcesses(std::string executable) : executable_(std::move(executable)) {}

    virtual ~HelperProcesses() = default;

    // Returns their ids in ascending order, including processes whose executable was replaced after
    // they started. On Linux processes in open-as-user mode are left out.
    virtual std::vector<pid_t> running();

    // Returns whether `process` is stopped (SIGSTOP, or by a tracer).
    virtual bool isStopped(pid_t process);

    // Sends SIGTERM to `process` if it is still a helper.
    virtual void terminate(pid_t process);

  private:
    [[nodiscard]] bool isHelper(pid_t process) const;

    std::string executable_;
};

// Sends SIGTERM once to each of `processes`, including those that start meanwhile, and waits until
// all have ended, at most ten seconds. Fails with sentences that say what to do.
std::expected<void, std::string> endAll(HelperProcesses& processes, Waiter& waiter);

enum class Verdict { ok, problem, notApplicable, needsRoot };

// One result of doctor.
struct Check {
    // What was checked, in a word or two.
    std::string name;
    Verdict verdict{};
    // The state found: one line without a full stop, with control characters escaped (printable()).
    std::string finding;
    // For a problem: the remedy. Otherwise: what happens next, or nothing.
    std::string advice;

    bool operator==(const Check&) const = default;
};

using Checks = std::vector<Check>;

inline Check isOk(std::string name, std::string finding) {
    return {std::move(name), Verdict::ok, std::move(finding), ""};
}

inline Check isProblem(std::string name, std::string finding, std::string advice) {
    return {std::move(name), Verdict::problem, std::move(finding), std::move(advice)};
}

inline Check isNotApplicable(std::string name, std::string finding) {
    return {std::move(name), Verdict::notApplicable, std::move(finding), ""};
}

// One row of a decision table: the result if the condition is true.
struct Case {
    bool condition{};
    std::string finding;
    std::string advice;
    Verdict verdict = Verdict::problem;
};

// Returns the check `name` with the result of the first of `cases` whose condition is true; without
// one it is ok, with `finding`.
Check firstOf(const std::string& name, const std::vector<Case>& cases, const std::string& finding);

// The helper under the system's service manager. One implementation per system: launchd's job;
// systemd's units, or the processes alone where systemd is not the init system.
class Service {
  public:
    virtual ~Service() = default;

    // Returns what starts a helper when none runs: a sentence without a full stop that begins with
    // "it starts" or "nothing".
    virtual std::string whatStarts() = 0;

    // Stops the helper and prevents its start. Leaves the stored commitment alone. Called once;
    // together with resume() it takes at most a minute. Fails with sentences that say what to do.
    virtual std::expected<void, std::string> stop() = 0;

    // Undoes what stop() has changed, also after a failure of it, but starts no helper. Returns
    // sentences on what remains different, or nothing; fails with sentences that say what to do.
    virtual std::expected<std::string, std::string> resume() = 0;

    // Returns the folders named Applications, other than Machine::applications, in which the helper
    // may have locked a bundle: those in the home folders of all accounts; under systemd those that
    // the helper's unit can write to. They need not exist.
    virtual std::vector<std::string> otherApplications();

    // Return the checks that differ between systems: of the helper's files and the service; of the
    // bundle at `app`; of the session of the user `uid`.
    virtual Checks examine() = 0;

    virtual Checks examineApp(const std::string& /*app*/) { return {}; }

    virtual Checks examineSession(std::uint32_t /*uid*/) { return {}; }

    // The shell commands that start, and restart, the helper; the latter is empty without a service
    // manager.
    std::string startCommand;
    std::string restartCommand;

    // The path of the lock file (takeLockFile()) of `halvoctl release`, which is gone after a boot.
    std::string releaseLock;
};

// Borrows all that it refers to.
struct Machine {
    HelperIdentity identity;
    // The path of the helper's executable.
    std::string helper;
    // The file of `store`.
    std::string stateFile;
    // The folder that is searched for bundles.
    std::string applications = "/Applications";
    bool isRoot{};
    HelperClock& clock;
    // Has the time zone of printed dates.
    GregorianCalendar calendar;
    FileFlags& flags;
    CommitmentStore& store;
    SessionProbe& session;
    HelperProcesses& processes;
    Waiter& waiter;
    // Returns the name of a user, or nothing for an unknown one.
    std::function<std::optional<std::string>(std::uint32_t uid)> userName;
    Service* service{};
};

// The service of this system, which borrows `machine`. One source per system, as for the functions
// below.
std::unique_ptr<Service> liveService(const Machine& machine);

// The shell command with which root clears the flag of the bundle at `path`.
std::string clearCommand(const std::string& path);

// "pid 12", "pids 12 and 13".
std::string pidText(const std::vector<pid_t>& processes);

// "ann (uid 1000)", or "uid 1000" for an unknown user.
std::string userText(const Machine& machine, std::uint32_t uid);

// `text` as one word for a shell, quoted if necessary. Control characters are escaped as by
// printable(), which changes their meaning.
std::string shellWord(const std::string& text);

// The status of the item at `path`, as lstat(2) has it; of type "none" after a failure other than
// that it does not exist.
std::filesystem::file_status statusOf(const std::string& path);

// The folder of the item at the absolute path `path`; empty for one in the root folder.
inline std::string folderOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

// ----------------------------------------------------------------- its state at one moment, read
// only

enum class StateFile {
    // It holds a record.
    whole,
    // It exists, but holds no valid record.
    damaged,
    // There is none.
    none,
    // It exists and cannot be read. The helper treats it as missing.
    unreadable,
};

// A bundle and the flag on its folder.
struct AppFlag {
    std::string path;
    LockState state{};

    bool operator==(const AppFlag&) const = default;
};

struct Observation {
    ClockReading now;
    StateFile file{};
    // Of a whole state file.
    std::optional<HelperCommitment> commitment;
    // The bundle and the lock of the commitment, or what can be read of them in a damaged file.
    UnreadableCommitment record;
    // The bundle whose unlock the record owes, if the helper locks bundles at such paths.
    std::optional<std::string> owed;
    // The bundles with the app's identifier in their Info.plist, sorted: those in
    // Machine::applications and in those of Service::otherApplications() that only root can change.
    std::vector<std::string> installed;
    // Those of them that are locked without being owed, and have the helper's identity in an
    // Info.plist that only root can change.
    std::vector<std::string> orphans;
    // The bundle that the record names, else the installed ones; then the orphans.
    std::vector<AppFlag> apps;
    // The processes of the helper, and those of them that are stopped.
    std::vector<pid_t> helpers;
    std::vector<pid_t> stopped;

    // Whether a record is stored, valid or not.
    [[nodiscard]] bool isStored() const {
        return file == StateFile::whole || file == StateFile::damaged;
    }

    // Whether a commitment is stored that has not run out.
    [[nodiscard]] bool isLive() const { return commitment && commitment->isLive(now); }
};

Observation observe(Machine& machine);

// Returns the check "lock": whether the record and the flag of `app`, one of `seen.apps`, agree.
// The advice is the remedy or, also where they agree, what happens next.
Check checkLock(const Machine& machine, const Observation& seen, const AppFlag& app);

// ------------------------------------------------------------------------------------ the commands

// Carries out the command line `words`, without the program's name. `machine`: the machine, or why
// there is none, as a sentence without a full stop; commands that need none still work. Throws
// only std::bad_alloc.
Outcome run(const std::vector<std::string>& words,
            const std::expected<Machine*, std::string>& machine);

// A failure with `status`, which `problem` describes in whole sentences.
inline Outcome failure(int status, const std::string& problem) {
    return {status, "", "halvoctl: " + problem + "\n"};
}

// The checks of `halvoctl doctor`; changes nothing. `app`: the bundle to check instead of those of
// observe().
Checks examine(Machine& machine, const std::optional<std::string>& app);

// Some of them: the helper's files at `paths`, which only root may be able to change, like all
// folders above them up to `top`, with the consequence if not (`risk`, a sentence); the state file
// `file` and its folder; the identity in the Info.plist of the bundle at `app`.
Check checkHelperFiles(const std::vector<std::string>& paths, const std::string& top,
                       const std::string& risk);
Check checkState(const std::string& file, StateFile condition);
Check checkIdentity(const std::string& app, const HelperIdentity& identity);

// The outcome of `halvoctl doctor`: `checks` as text, with advice for problems only, or as the JSON
// object that `halvoctl doctor --help` describes.
Outcome report(const Checks& checks, bool asJSON);

struct ReleaseOptions {
    // A bundle that is missing is gone for good, and its lock with it.
    bool isBundleGone{};
    // The helper stays stopped, and the app cannot call it.
    bool staysStopped{};
};

// halvoctl release: stops the helper, clears the lock that the record owes, deletes the record, and
// lets the app call the helper again. Can be interrupted at any point and repeated, since the
// record is deleted only after the lock was cleared. A failure keeps the record, and the outcome
// says what to do. Waits, at most a minute, for a release that already runs.
Outcome release(Machine& machine, const ReleaseOptions& options);

}  // namespace halvo::control
