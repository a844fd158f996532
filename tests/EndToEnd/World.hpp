// The machine of one end-to-end test: the installed app, the stored state, the console session. It
// is a scripts/private-machine, so a test may change anything.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// Installed paths.
namespace Place {

inline const std::string applications = "/Applications";
inline const std::string app = applications + "/Halvo.app";
// The executable that the helper opens, and whose processes it looks for.
inline const std::string appExecutable = app + "/Contents/MacOS/Halvo";
// The test caller (tests/Support/TestApp.cpp), in the same bundle.
inline const std::string caller = app + "/Contents/MacOS/TestCaller";

inline const std::string support = "/Library/Application Support";
inline const std::string stateFolder = support + "/" HALVO_APP_BUNDLE_ID ".helper";
inline const std::string stateFile = stateFolder + "/commitment.json";
inline const std::string socket = "/run/" HALVO_APP_BUNDLE_ID ".helper.sock";
inline const std::string lock = socket + ".lock";

inline const std::string helper = "/Library/PrivilegedHelperTools/HalvoHelper";
inline const std::string control = "/Library/PrivilegedHelperTools/halvoctl";
inline const std::string helperInfoPlist = "/Library/PrivilegedHelperTools/Info.plist";

}  // namespace Place

// Exit statuses of the test caller.
namespace Reply {

inline constexpr int yes = 0;
inline constexpr int no = 1;
inline constexpr int rejected = 65;
// After authentication.
inline constexpr int disconnected = 76;
inline constexpr int refused = 77;

}  // namespace Reply

// The contents of the state file.
struct State {
    std::string appPath;
    uid_t uid{};
    double startedWall{};
    double remaining{};
    double capRemaining{};
    double wall{};
    bool locked{};
};

// The reply to a status request.
struct Status {
    bool holding{};
    std::optional<double> until;
    bool locked{};
};

class World {
  public:
    // Resets the machine, also after another test in it: the helper and the app are installed and
    // not running, no commitment is stored, `user` is the console user.
    World();

    // The console user, and another user.
    uid_t user;
    uid_t other;
    std::string userName;
    std::string home;
    // The app's private group.
    gid_t appGroup;

    // Installs a bundle like the app's at `path`.
    void installApp(const std::string& path) const;

    // Runs the test caller with `words` to its end, as `person` or else as `user`.
    [[nodiscard]] ChildResult ask(const std::vector<std::string>& words,
                                  std::optional<uid_t> person = {}) const;

    // The same, without waiting for it.
    [[nodiscard]] TestProcess startCaller(const std::vector<std::string>& words,
                                          std::optional<uid_t> person = {}) const;

    // Runs `words` as `user` to their end.
    [[nodiscard]] ChildResult run(const std::vector<std::string>& words,
                                  const std::vector<std::string>& environment = {}) const;

    // Starts the app as `user`.
    [[nodiscard]] TestProcess startApp() const;

    // Begins a commitment of the app for `span` from now; the caller's exit status.
    [[nodiscard]] int begin(Seconds span) const;

    [[nodiscard]] int end() const { return ask({"end"}).status; }

    // Fails the test when there is no reply.
    [[nodiscard]] Status status() const;

    // The contents of the state file; nothing without one. Fails the test when it cannot be parsed.
    [[nodiscard]] std::optional<State> state() const;

    // Ends the console session.
    void leaveConsole() const;
};

// Whether the item has the immutable flag.
bool isLocked(const std::string& path = Place::app);

// Sets or clears the immutable flag, as chattr(1) does.
void setLockedByHand(bool locked, const std::string& path = Place::app);

bool exists(const std::string& path);

// Replaces the file at `path` with one of root's, with these contents and this mode.
void put(const std::string& path, const std::string& bytes, mode_t mode = 0644);

// Copies a file; the copy has this group, mode and owner.
void copyFile(const std::string& from, const std::string& to, gid_t group, mode_t mode,
              uid_t owner = 0);

// The permission bits of the item itself, including set-user-id and set-group-id.
mode_t modeOf(const std::string& path);

}  // namespace halvo::testing
