// Everything that the commands look at and change, so that tests can hand them another machine.
#pragma once

#include <sys/types.h>

#include <expected>
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

namespace halvo::control {

// Waits for what the system does not announce. The virtual functions are the system's own, but for
// tests. One thread at a time.
class Waiter {
  public:
    virtual ~Waiter() = default;

    // Calls `isDone` every 10 milliseconds until it returns true or `limit` has passed; returns
    // what it returned last. Says `line` once, when a second has passed, unless it is empty.
    bool wait(const std::function<bool()>& isDone, Seconds limit, const std::string& line = "");

    // A clock of which only differences mean anything.
    virtual Seconds now();

  protected:
    virtual void pause(Seconds span);
    // Writes `line` to standard error.
    virtual void say(const std::string& line);
};

// The processes of one helper. One source per system.
class HelperProcesses {
  public:
    virtual ~HelperProcesses() = default;

    // Those of root that run the helper's executable as the service, in ascending order; also when
    // the executable was replaced since they started. On Linux not those in the open-as-user mode.
    virtual std::vector<pid_t> running() = 0;

    // Whether `process` is stopped, by SIGSTOP or a tracer, and so does nothing until SIGCONT.
    virtual bool isStopped(pid_t process) = 0;

    // Sends SIGTERM to `process`, if it is still one of those.
    virtual void terminate(pid_t process) = 0;
};

// The processes of the helper whose executable is at `executable`.
std::unique_ptr<HelperProcesses> liveProcesses(const std::string& executable);

// Asks all of `processes` to end, also those that start meanwhile, and waits for their end, at most
// ten seconds. Fails with sentences that say what to do.
std::expected<void, std::string> endAll(HelperProcesses& processes, Waiter& waiter);

enum class Verdict { ok, problem, notApplicable, needsRoot };

// One thing that doctor looked at.
struct Check {
    // What was looked at, in a word or two.
    std::string name;
    Verdict verdict{};
    // How it is, without a full stop. One line that a terminal shows and does not obey.
    std::string finding;
    // Of a problem: what to do. Else empty.
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

inline Check needsRoot(std::string name) {
    return {std::move(name), Verdict::needsRoot, "only root can look at it", ""};
}

// What a check may find wrong.
struct Flaw {
    bool isFound{};
    std::string finding;
    std::string advice;
};

// The problem of the first of `flaws` that is found; else all is well, which `finding` says.
Check firstOf(const std::string& name, const std::vector<Flaw>& flaws, const std::string& finding);

// The helper as the system runs it. One implementation per system: systemd's units, or the
// processes alone where systemd does not run; launchd's job.
class Service {
  public:
    virtual ~Service() = default;

    // What starts a helper when none runs, as a sentence without a full stop that begins with "it
    // starts" or "nothing starts".
    virtual std::string whatStarts() = 0;

    // The shell command that starts one now.
    [[nodiscard]] virtual std::string startCommand() const = 0;

    // The shell command that ends the one that runs and starts another; empty where one was started
    // by hand.
    [[nodiscard]] virtual std::string restartCommand() const = 0;

    // Sees to it that no helper runs and none is started, which leaves the stored commitment to the
    // caller. Takes no longer than a minute, together with resume(). Fails with sentences that say
    // what to do. Called once.
    virtual std::expected<void, std::string> stop() = 0;

    // Undoes what stop() has changed, however far it came, except that no helper is started.
    // Returns sentences on what is different now, or nothing; fails with what failed and what to
    // do.
    virtual std::expected<std::string, std::string> resume() = 0;

    // The folders called Applications, but the machine's first one, in which the helper may have
    // locked a bundle: those of the accounts' homes; on Linux with systemd those that the helper's
    // unit can write to. Not all need exist.
    virtual std::vector<std::string> otherApplications() = 0;

    // The part of doctor that concerns this system alone: the service, the bundle at `app` (as
    // `isRoot` or not), and the session of the user `uid`.
    virtual Checks examine() = 0;
    virtual Checks examineApp(const std::string& app, bool isRoot) = 0;
    virtual Checks examineSession(std::uint32_t uid) = 0;
};

// What a service is made of. Borrows the last two.
struct ServiceParts {
    HelperIdentity identity;
    // The path of the helper's own executable.
    std::string executable;
    HelperProcesses& processes;
    Waiter& waiter;
};

// The service of this system.
std::unique_ptr<Service> liveService(const ServiceParts& parts);

// The lock file (takeLockFile()) of the releases of `identity`, in a folder that a boot empties.
// One source per system.
std::string releaseLockPath(const HelperIdentity& identity);

// The shell command with which root clears the flag of the bundle at `path`. One source per system.
std::string clearCommand(const std::string& path);

// The files that must be root's alone for the helper to be what it is, the first folder above them
// that counts, and what may happen where they are not, as a sentence.
struct HelperFiles {
    std::vector<std::string> paths;
    std::string top;
    std::string risk = "Whoever can change the helper becomes root.";
};

// Those of the helper at `helper`. One source per system.
HelperFiles helperFiles(const std::string& helper);

// Borrows all, for as long as it is used. Main thread only.
struct Machine {
    HelperIdentity identity;
    // The path of the helper's own executable.
    std::string helper;
    // Where the store keeps its file.
    std::string stateFile;
    // releaseLockPath(), but for tests.
    std::string releaseLock;
    // The folder in which bundles are looked for.
    std::string applications = "/Applications";
    bool isRoot{};
    HelperClock& clock;
    FileFlags& flags;
    CommitmentStore& store;
    SessionProbe& session;
    HelperProcesses& processes;
    Service& service;
    Waiter& waiter;
    // The name of a user, if there is such a one.
    std::function<std::optional<std::string>(std::uint32_t uid)> userName;
};

// "pid 12", "pids 12 and 13".
std::string named(const std::vector<pid_t>& processes);

// `text` as one word for a shell: as it stands where every character is plain, else in single
// quotes. What a terminal would obey is escaped as elsewhere, and then no longer means the same.
std::string shellWord(const std::string& text);

// The folder of the item at the absolute path `path`; empty for one in the root folder.
inline std::string folderOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

// The folders called Applications in the accounts' homes. Not all need exist.
std::vector<std::string> homeApplications();

}  // namespace halvo::control
