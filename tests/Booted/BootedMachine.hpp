// A machine with systemd as process 1 that a test switches on and off: the one that
// scripts/booted-machine keeps beside it. What happens inside reaches no other machine.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// Where things are once the packages are installed, as paths of the machine.
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

// What the state file holds.
struct State {
    double remaining{};
    bool locked{};
};

// One entry of the journal; systemd.journal-fields(7).
using Entry = std::map<std::string, std::string>;

class BootedMachine {
  public:
    // Two people with accounts.
    static constexpr uid_t alice = 1000;
    static constexpr uid_t bob = 1001;

    // Switched on, with nothing of ours installed and nobody logged in.
    BootedMachine();
    ~BootedMachine();
    BootedMachine(const BootedMachine&) = delete;
    BootedMachine& operator=(const BootedMachine&) = delete;

    // --- Power. Each throws when it takes longer than a minute or two, which ends the test.

    void switchOn();
    // An orderly shutdown.
    void shutDown();
    void restart();
    // As when the plug is pulled.
    void cutPower();

    // --- Commands inside. One that takes longer than two minutes fails the test.

    using Words = std::vector<std::string>;

    [[nodiscard]] ChildResult run(const Words& words) const { return handle({"run"}, words); }

    // Within a session.
    [[nodiscard]] ChildResult runIn(const std::string& session, const Words& words) const {
        return handle({"run", "--session", session}, words);
    }

    // As root; fails the test unless it ends with 0. What it wrote.
    std::string must(const Words& words) const;

    // The same for a line of shell.
    std::string sh(const std::string& line) const { return must({"sh", "-c", line}); }

    // Starts the unit; a second time where systemd had removed its control group meanwhile, which
    // it may do on a busy machine to a unit that was stopped shortly before.
    void start(const std::string& unit) const;

    // Starts a program within the session and does not wait for it; its output goes to the file
    // "output" of the person's home.
    void startIn(const std::string& session, const Words& words) const;

    // --- Files, also while the machine is off, but for those in /run and /tmp.

    // The path on the real machine.
    [[nodiscard]] std::string path(const std::string& inside) const;
    [[nodiscard]] bool exists(const std::string& inside) const;
    [[nodiscard]] std::string read(const std::string& inside) const;
    void write(const std::string& inside, const std::string& bytes) const;
    // Whether the item carries the immutable flag.
    [[nodiscard]] bool isLocked(const std::string& inside = Place::app) const;
    // What the helper has stored; nothing when there is no whole record.
    [[nodiscard]] std::optional<State> state() const;

    // --- People at the screen.

    // A session on seat0 that has the screen when this returns: its id.
    [[nodiscard]] std::string logIn(const std::string& person) const;
    // The login screen has it.
    [[nodiscard]] std::string showLoginScreen() const;
    // Ends a session and all that runs in it. Returns when it is gone.
    void logOut(const std::string& session) const;
    // Gives the screen to a session, as a switch of users does.
    void activate(const std::string& session) const;

    // --- What runs. Processes are known by their ids on the real machine, whose /proc shows them.

    [[nodiscard]] static std::vector<pid_t> running(const std::string& executable) {
        return processesRunning(executable);
    }

    // Waits for one to run that is none of `except`. Fails the test without, and gives -1.
    [[nodiscard]] pid_t waitFor(const std::string& executable, Seconds limit,
                                const std::vector<pid_t>& except = {}) const;
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
    // How many lines the helper has logged, since the machine was made, that are `line`, or begin
    // with it when it ends in "*".
    [[nodiscard]] int count(const std::string& line) const;
    [[nodiscard]] bool says(const std::string& line, Seconds limit = Seconds{20}) const;

    // --- The packages.

    // Installs the packages, both in one run of dpkg.
    void install(const Words& files = {HALVO_BOOTED_HELPER, HALVO_BOOTED_SAMPLE_APP}) const;

    // Begins a commitment of the person of that session with the app, which goes on to run. Returns
    // when it is held and the app is locked.
    void commit(const std::string& session, const std::string& minutes = "25") const;

  private:
    void power(const std::string& word);
    [[nodiscard]] ChildResult handle(const Words& words, const Words& more = {}) const;
    [[nodiscard]] std::string startSession(const std::string& unit,
                                           const std::string& person) const;
    bool isOn_ = false;
};

// Below the machine's own root.
std::string controlGroup(pid_t process);

// What a link in /proc/PID/ns points to.
std::string processNamespace(pid_t process, const std::string& kind);

bool isAlive(pid_t process);

}  // namespace halvo::testing
