// The helper as the system runs it: which processes it has, what starts it, how it is stopped.
#pragma once

#include <sys/types.h>

#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tools/Halvoctl/Programs.hpp"

namespace halvo::control {

// Takes a line, without its end, that says what is being waited for.
using Progress = std::function<void(const std::string& line)>;

// The processes of one helper. One source per system.
class HelperProcesses {
  public:
    virtual ~HelperProcesses() = default;

    // Those of root that run the helper's executable as the service, in ascending order; also when
    // the executable was replaced since they started. On Linux not those in the open-as-user mode.
    virtual std::vector<pid_t> running() = 0;

    // Whether `process` is stopped, by SIGSTOP or a tracer, and so does nothing until it is told to
    // go on.
    virtual bool isStopped(pid_t process) = 0;

    // Sends SIGTERM to `process`, if it is still one of those.
    virtual void terminate(pid_t process) = 0;

    // The clock by which their end is waited for, of which only differences mean anything, and the
    // waiting itself. Those of the system, but for tests.
    virtual Seconds now();
    virtual void pause(Seconds span);
};

// Asks all of `processes` to end, also those that come meanwhile, and waits until none runs. Gives
// those that run all the same when patience ends.
std::vector<pid_t> stopAll(HelperProcesses& processes, const Patience& patience);

// The same, for at most ten seconds. Fails with sentences that say what to do.
std::expected<void, std::string> endAll(HelperProcesses& processes, const Progress& progress);

// Those of `processes` that are stopped.
std::vector<pid_t> stoppedOf(HelperProcesses& processes);

// "pid 12", "pids 12 and 13".
std::string named(const std::vector<pid_t>& processes);

class Service {
  public:
    virtual ~Service() = default;

    // The helpers that run, in ascending order.
    virtual std::vector<pid_t> running() = 0;

    // Those of them that are stopped, in ascending order.
    virtual std::vector<pid_t> stopped() = 0;

    // What starts a helper when none runs, as a sentence without a full stop that begins with "it
    // starts" or "nothing starts".
    virtual std::string whatStarts() = 0;

    // The words that start one now, for a shell.
    [[nodiscard]] virtual std::string startCommand() const = 0;

    // The words that end the one that runs and start another; nothing where one was started by
    // hand.
    [[nodiscard]] virtual std::string restartCommand() const = 0;

    // Sees to it that no helper runs and none is started, which leaves the stored commitment to the
    // caller. Takes no longer than a minute, together with resume(). Fails with sentences that say
    // what to do. Called once.
    virtual std::expected<void, std::string> stop(const Progress& progress) = 0;

    // Undoes what stop() has changed, however far it came, except that no helper is started:
    // sentences for the person on what is different now, or nothing; or what failed and what to do.
    virtual std::expected<std::string, std::string> resume(const Progress& progress) = 0;
};

// The processes of the helper whose executable is at `executable`.
std::unique_ptr<HelperProcesses> liveProcesses(const std::string& executable);

// The service of this system. On Linux systemd's, where that runs and knows the helper's units;
// else the processes alone. On macOS launchd's. Both arguments must outlive it.
std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string& executable,
                                     HelperProcesses& processes, Programs& programs);

}  // namespace halvo::control
