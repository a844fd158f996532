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
#include "HalvoShared/GregorianCalendar.hpp"

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

// The processes of one helper: those of root that run its executable as the service. The virtual
// functions are the system's own, but for tests; one source per system.
class HelperProcesses {
  public:
    // `executable`: the path of the helper's own.
    explicit HelperProcesses(std::string executable) : executable_(std::move(executable)) {}

    virtual ~HelperProcesses() = default;

    // In ascending order; also those whose executable was replaced since they started. On Linux not
    // those in the open-as-user mode.
    virtual std::vector<pid_t> running();

    // Whether `process` is stopped, by SIGSTOP or a tracer, and so does nothing until SIGCONT.
    virtual bool isStopped(pid_t process);

    // Sends SIGTERM to `process`, if it is still one of those.
    virtual void terminate(pid_t process);

  private:
    [[nodiscard]] bool isHelper(pid_t process) const;

    std::string executable_;
};

// Asks all of `processes` to end, also those that start meanwhile, and waits for their end, at most
// ten seconds. Fails with sentences that say what to do.
std::expected<void, std::string> endAll(HelperProcesses& processes, Waiter& waiter);

enum class Verdict { ok, problem, notApplicable, needsRoot };

// One thing that was looked at.
struct Check {
    // What was looked at, in a word or two.
    std::string name;
    Verdict verdict{};
    // How it is, without a full stop. One line that a terminal shows and does not obey.
    std::string finding;
    // Of a problem: what to do. Else what comes next, or nothing.
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

// What a check says where `isSo`.
struct Case {
    bool isSo{};
    std::string finding;
    std::string advice;
    Verdict verdict = Verdict::problem;
};

// The first of `cases` that is so; else all is well, which `finding` says.
Check firstOf(const std::string& name, const std::vector<Case>& cases, const std::string& finding);

// The helper as the system runs it. One implementation per system: systemd's units, or the
// processes alone where systemd does not run; launchd's job.
class Service {
  public:
    virtual ~Service() = default;

    // What starts a helper when none runs, as a sentence without a full stop that begins with "it
    // starts" or "nothing starts".
    virtual std::string whatStarts() = 0;

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
    virtual std::vector<std::string> otherApplications();

    // The part of doctor that concerns this system alone: the service, the bundle at `app`, and the
    // session of the user `uid`.
    virtual Checks examine() = 0;

    virtual Checks examineApp(const std::string& /*app*/) { return {}; }

    virtual Checks examineSession(std::uint32_t /*uid*/) { return {}; }

    // The shell command that starts a helper now, and the one that ends the one that runs and
    // starts another; empty where one was started by hand.
    std::string startCommand;
    std::string restartCommand;
};

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
    // Whose clocks the dates are told on.
    GregorianCalendar calendar;
    FileFlags& flags;
    CommitmentStore& store;
    SessionProbe& session;
    HelperProcesses& processes;
    Waiter& waiter;
    // The name of a user, if there is such a one.
    std::function<std::optional<std::string>(std::uint32_t uid)> userName;
    Service* service{};
};

// The service of this system, which borrows `machine`. One source per system, like the others here.
std::unique_ptr<Service> liveService(const Machine& machine);

// The lock file (takeLockFile()) of the releases of `identity`, in a folder that a boot empties.
std::string releaseLockPath(const HelperIdentity& identity);

// The shell command with which root clears the flag of the bundle at `path`.
std::string clearCommand(const std::string& path);

// The files that must be root's alone for the helper to be what it is, the first folder above them
// that counts, and what may happen where they are not, as a sentence.
struct HelperFiles {
    std::vector<std::string> paths;
    std::string top;
    std::string risk = "Whoever can change the helper becomes root.";
};

// Those of the helper at `helper`.
HelperFiles helperFiles(const std::string& helper);

// "pid 12", "pids 12 and 13".
std::string named(const std::vector<pid_t>& processes);

// `text` as one word for a shell: as it stands where every character is plain, else in single
// quotes. What a terminal would obey is escaped as elsewhere, and then no longer means the same.
std::string shellWord(const std::string& text);

// The folder of the item at the absolute path `path`; empty for one in the root folder.
inline std::string folderOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

}  // namespace halvo::control
