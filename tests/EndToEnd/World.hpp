// The machine of one end-to-end test: the installed app, its state, who sits at the console. It is
// the private one that scripts/private-machine makes, so a test does with it what it likes.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// Where things are once installed.
namespace Place {

inline const std::string applications = "/Applications";
inline const std::string app = applications + "/Halvo.app";
// What the helper opens and looks for.
inline const std::string appExecutable = app + "/Contents/MacOS/Halvo";
// A program of the same bundle that asks the helper what a test wants it to.
inline const std::string caller = app + "/Contents/MacOS/TestCaller";
inline const std::string infoPlist = app + "/Contents/Info.plist";

inline const std::string support = "/Library/Application Support";
inline const std::string stateFolder = support + "/" HALVO_APP_BUNDLE_ID ".helper";
inline const std::string stateFile = stateFolder + "/commitment.json";
inline const std::string socket = "/run/" HALVO_APP_BUNDLE_ID ".helper.sock";
inline const std::string lock = socket + ".lock";

inline const std::string helper = "/Library/PrivilegedHelperTools/HalvoHelper";
// The administrator's program.
inline const std::string control = "/Library/PrivilegedHelperTools/halvoctl";
inline const std::string helperInfoPlist = "/Library/PrivilegedHelperTools/Info.plist";

}  // namespace Place

// The caller's exit statuses.
namespace Reply {

inline constexpr int yes = 0;
inline constexpr int no = 1;
inline constexpr int rejected = 65;
// After it was let in.
inline constexpr int disconnected = 76;
inline constexpr int refused = 77;

}  // namespace Reply

// What the state file holds.
struct State {
    std::string appPath;
    uid_t uid{};
    double startedWall{};
    double remaining{};
    double capRemaining{};
    double wall{};
    bool locked{};
};

// What the caller was told by a status request.
struct Told {
    bool holding{};
    std::optional<double> until;
    bool locked{};
};

class World {
  public:
    // Puts everything in its place, also after a test before this one in the same machine: the
    // helper and the app are installed and do not run, nothing is committed, `user` is at the
    // console.
    World();

    // The person at the console, and another one.
    uid_t user;
    uid_t other;
    std::string userName;
    std::string home;
    // The app's private group.
    gid_t appGroup;

    // Installs a bundle like the app's at `path`.
    void installApp(const std::string& path) const;

    // Runs the caller with `words` as `person` (`user` without) to its end.
    [[nodiscard]] ChildResult ask(const std::vector<std::string>& words,
                                  std::optional<uid_t> person = {}) const;

    // The same, to run beside the test.
    [[nodiscard]] TestProcess startCaller(const std::vector<std::string>& words,
                                          std::optional<uid_t> person = {}) const;

    // Runs `words` as `user` to their end.
    [[nodiscard]] ChildResult run(const std::vector<std::string>& words,
                                  const std::vector<std::string>& environment = {}) const;

    // Starts the app as a person does.
    [[nodiscard]] TestProcess startApp() const;

    // The exit status of a begin for the app, from now until `span` from now.
    [[nodiscard]] int begin(Seconds span, std::optional<uid_t> person = {}) const;

    [[nodiscard]] int end() const { return ask({"end"}).status; }

    // Fails the test when there is no reply.
    [[nodiscard]] Told status(std::optional<uid_t> person = {}) const;

    // What the state file holds. Nothing when there is none; fails the test when it is not whole.
    [[nodiscard]] std::optional<State> state() const;

    // Nobody sits at the console from now on.
    void leaveConsole() const;
};

// Whether the folder carries the flag that makes it immutable.
bool isLocked(const std::string& path = Place::app);

// Sets or clears the flag as root does by hand.
void setLockedByHand(bool locked, const std::string& path = Place::app);

bool exists(const std::string& path);

// Makes the file at `path` hold `bytes`, as a file of root's with mode `mode`.
void put(const std::string& path, const std::string& bytes, mode_t mode = 0644);

// Copies the file, as a file of `owner` and the group `group` with mode `mode`.
void copyFile(const std::string& from, const std::string& to, gid_t group, mode_t mode,
              uid_t owner = 0);

// Permissions of the item itself, with the bits for set-user-id and set-group-id.
mode_t modeOf(const std::string& path);

}  // namespace halvo::testing
