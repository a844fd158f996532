// A machine with systemd as process 1 that a test switches on and off: a container of
// scripts/booted-machine. Nothing inside affects another machine.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// Installed paths, inside the machine.
namespace Place {

inline const std::string appID = HALVO_BOOTED_APP;
inline const std::string app = "/Applications/" HALVO_BOOTED_APP ".app";
inline const std::string appExecutable = app + "/Contents/MacOS/Halvo";
inline const std::string libexec = "/usr/libexec/" + appID + ".helper";
inline const std::string helper = libexec + "/HalvoHelper";
inline const std::string stateFolder = "/Library/Application Support/" + appID + ".helper";
inline const std::string stateFile = stateFolder + "/commitment.json";
inline const std::string socket = "/run/" + appID + ".helper.sock";

}  // namespace Place

// The units of the helper.
namespace Unit {

inline const std::string socket = Place::appID + ".helper.socket";
inline const std::string service = Place::appID + ".helper.service";
inline const std::string resume = Place::appID + ".helper-resume.service";

}  // namespace Unit

// The contents of the state file.
struct State {
    double remaining{};
    bool locked{};
};

// One entry of the journal; systemd.journal-fields(7).
using Entry = std::map<std::string, std::string>;

class BootedMachine {
  public:
    // Two users with accounts.
    static constexpr uid_t alice = 1000;
    static constexpr uid_t bob = 1001;

    // Switched on, without the packages and without a session.
    BootedMachine();
    ~BootedMachine();
    BootedMachine(const BootedMachine&) = delete;
    BootedMachine& operator=(const BootedMachine&) = delete;

    // --- Power. Each throws when it takes longer than a minute or two, which ends the test.

    void switchOn();
    // An orderly shutdown.
    void shutDown();
    void restart();
    // SIGKILL for everything inside, without a shutdown.
    void cutPower();

    // --- Commands inside. One that takes longer than two minutes fails the test.

    using Words = std::vector<std::string>;

    [[nodiscard]] ChildResult run(const Words& words) const { return handle({"run"}, words); }

    // Within a session.
    [[nodiscard]] ChildResult runIn(const std::string& session, const Words& words) const {
        return handle({"run", "--session", session}, words);
    }

    // As root; fails the test unless it exits with 0. Its output.
    std::string must(const Words& words) const;

    // The same for a line of shell.
    std::string sh(const std::string& line) const { return must({"sh", "-c", line}); }

    // Starts the unit; once more when systemd had just removed its control group, which on a busy
    // machine happens to a unit that was stopped shortly before.
    void start(const std::string& unit) const;

    // Starts a program in the session without waiting for it; its output goes to ~/output.
    void startIn(const std::string& session, const Words& words) const;

    // --- Files, also while the machine is off, but for those in /run and /tmp.

    // The path on the real machine.
    [[nodiscard]] std::string path(const std::string& inside) const;
    [[nodiscard]] bool exists(const std::string& inside) const;
    [[nodiscard]] std::string read(const std::string& inside) const;
    void write(const std::string& inside, const std::string& bytes) const;
    // Whether the item carries the immutable flag.
    [[nodiscard]] bool isLocked(const std::string& inside = Place::app) const;
    // The stored state; nothing without a record that can be parsed.
    [[nodiscard]] std::optional<State> state() const;

    // --- Sessions.

    // Logs the user in on seat0, with a session that is active when this returns; its id.
    [[nodiscard]] std::string logIn(const std::string& person) const;
    // A session of class "greeter", active; its id.
    [[nodiscard]] std::string showLoginScreen() const;
    // Terminates a session and its processes; returns when it is gone.
    void logOut(const std::string& session) const;
    // Makes a session the active one of its seat, as fast user switching does.
    void activate(const std::string& session) const;

    // --- Processes, by their ids outside the machine.

    [[nodiscard]] static std::vector<pid_t> running(const std::string& executable) {
        return processesRunning(executable);
    }

    // Waits for a process other than `except`; fails the test without one, and returns -1.
    [[nodiscard]] pid_t waitFor(const std::string& executable, Seconds limit,
                                const std::vector<pid_t>& except = {}) const;
    // Waits until the helper has admitted that app of alice's, and told it that a commitment holds:
    // then the app says so in its record. Whether it does within `timeLimit`.
    [[nodiscard]] bool serves(pid_t app) const;
    // A unit's property, from systemctl show.
    [[nodiscard]] std::string property(const std::string& unit, const std::string& name) const;

    [[nodiscard]] std::string activeState(const std::string& unit) const {
        return property(unit, "ActiveState");
    }

    // The units that failed, a line each, but for those that systemd starts for itself at boot: on
    // a busy machine the kernel now and then refuses to move one into its control group (status
    // 219).
    [[nodiscard]] std::string failedUnits() const;

    // --- The journal.

    // The entries that match, words as journalctl(1) takes them, oldest first.
    [[nodiscard]] std::vector<Entry> journal(const Words& matches) const;
    // The number of the helper's log lines, in all boots of the machine, that equal `line`, or
    // begin with it when it ends in "*".
    [[nodiscard]] int count(const std::string& line) const;
    [[nodiscard]] bool says(const std::string& line, Seconds limit = Seconds{20}) const;

    // --- The packages.

    // Installs the packages in one run of dpkg(1).
    void install(const Words& files = {HALVO_BOOTED_HELPER, HALVO_BOOTED_SAMPLE_APP}) const;

    // Begins a commitment with the app in that session; the app keeps running. Returns once it is
    // stored and the app is locked.
    void commit(const std::string& session, const std::string& minutes = "25") const;
    // The same for alice, whom it logs in first; the id of the session.
    std::string logInAndCommit(const std::string& minutes = "25") const;

  private:
    void power(const std::string& word);
    [[nodiscard]] ChildResult handle(const Words& words, const Words& more = {}) const;
    [[nodiscard]] std::string startSession(const std::string& unit,
                                           const std::string& person) const;
    bool isOn_ = false;
};

// The control group, relative to the machine's root.
std::string controlGroup(pid_t process);

// The target of /proc/PID/ns/`kind`.
std::string processNamespace(pid_t process, const std::string& kind);

bool isAlive(pid_t process);

// The id of the process inside the machine.
pid_t idInside(pid_t process);

}  // namespace halvo::testing
