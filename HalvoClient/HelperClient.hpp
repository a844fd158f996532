// The app's side of the helper on Linux: its own bundle, and the four requests, one at a time.
#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "HalvoClient/BusCall.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

namespace HelperFailures {

// No process listens on the socket (ENOENT, ECONNREFUSED), or the helper closed the connection
// twice during one request (ECONNRESET), which may then have been carried out or not.
struct NotRunning {
    // The errno of the call that failed.
    int code{};

    bool operator==(const NotRunning&) const = default;
};

// The helper closed the connection before authentication was finished, twice: this process is not
// the installed app, or the helper serves as many as it can. Or connect(2) was denied (EACCES).
struct Refused {
    // The executable of this process is no longer at its path, as after an upgrade: the helper
    // serves only the installed one. The app must be restarted.
    bool wasReplaced = false;

    bool operator==(const Refused&) const = default;
};

// No reply came in time. The request may still be carried out, unless the time was over before it
// was sent.
struct TimedOut {
    bool operator==(const TimedOut&) const = default;
};

// The helper replied with a D-Bus error, or with another signature than this client expects
// ("org.freedesktop.DBus.Error.InconsistentMessage"): the two are of different versions.
struct Rejected {
    std::string name;
    std::string message;

    bool operator==(const Rejected&) const = default;
};

// This process has no descriptors or no memory left (EMFILE, ENFILE, ENOBUFS, ENOMEM).
struct NoResources {
    int code{};

    bool operator==(const NoResources&) const = default;
};

}  // namespace HelperFailures

using HelperFailure =
    std::variant<HelperFailures::NotRunning, HelperFailures::Refused, HelperFailures::TimedOut,
                 HelperFailures::Rejected, HelperFailures::NoResources>;

// The failure as a sentence for a person.
std::string description(const HelperFailure& failure);

// The exit status of sysexits.h(3head) for it: 69 not running, 77 refused, 75 timed out, 65
// rejected, 71 no resources.
int exitStatus(const HelperFailure& failure);

// The app bundle that a process runs from.
struct OwnBundle {
    // The canonical path of the bundle, which is the path to commit: the helper derives the same
    // for its caller.
    std::string path;
    // Names the helper: "CFBundleIdentifier" and "HalvoTeamID" of the bundle's Info.plist.
    HelperIdentity identity;

    bool operator==(const OwnBundle&) const = default;
};

// The bundle in whose "Contents/MacOS" folder the file at `executable` lies, links resolved.
// Nothing when there is no such file, it lies elsewhere, or the Info.plist is missing or breaks a
// rule of HelperIdentity.
std::optional<OwnBundle> bundleOf(const std::string& executable);

// The bundle of this process: bundleOf() its executable, which must not have been removed or
// replaced since the process started, so this is called early.
std::optional<OwnBundle> ownBundle();

// The span of a commitment to ask for.
struct CommitmentSpan {
    WallDate until;
    WallDate started;
};

// A connection to the helper, made with the first request and kept, so that the helper does not
// exit for idleness while the app sends requests; the helper closes one that is silent for 30 s.
// Each request takes at most `limit`, also when the helper is stopped, does not reply or has a full
// queue. The limit counts while this process is stopped or the machine sleeps; a request is not
// sent after it.
//
// When a connection turns out to be broken (the helper was restarted or has closed it) the request
// is sent again over a new one, once, within the same limit. So the helper may receive a request
// twice: all are idempotent, but an end whose first reply was lost returns false. A begin is never
// sent again: it starts over, see there. A refusal is returned only after a second attempt, because
// a helper that is killed while it accepts looks the same. A time-out closes the connection.
//
// One thread at a time, and only the process that made the object, not a child of fork(2).
// Descriptors are close-on-exec; no SIGPIPE is raised. The private group is in effect only during
// connect(2), see PrivateGroup.hpp.
class HelperClient {
  public:
    template <class Value>
    using Result = std::expected<Value, HelperFailure>;

    static constexpr Seconds usualLimit{5};

    // For the helper of the app `identity`.
    explicit HelperClient(const HelperIdentity& identity);

    // For the helper that listens on the socket at `socketPath`.
    explicit HelperClient(std::string socketPath);

    // Returns the commitment to begin, given the status; nothing to leave that as it is.
    using Decision = std::function<std::optional<CommitmentSpan>(const HelperStatus& held)>;

    // Commits the person to keep the caller's own bundle `appPath`: asks for the status, calls
    // `decide` with it, and sends the begin over the same connection. True when a commitment is
    // held then. The helper itself lets an end in the past end a running commitment, and an earlier
    // end shorten it: `decide` is where the app rules that out.
    //
    // A decision is sent over the connection of its status only. Otherwise a person could stop the
    // process between the two, begin a longer commitment with another, and continue the first to
    // shorten it. When the helper takes a begin it closes the other connections of that person that
    // were told a status; here everything then starts over with a new status. So `decide` may be
    // called more than once, and must not depend on an earlier status. `limit`, at most
    // `usualLimit`, is for all of it.
    //
    // A path that is not UTF-8 or has a NUL byte is rejected
    // ("org.freedesktop.DBus.Error.InvalidArgs") without asking the helper.
    Result<bool> begin(const std::string& appPath, const Decision& decide,
                       Seconds limit = usualLimit);

    // Reports that the app is alive, or that the session is ending. True while a commitment of this
    // person is held.
    Result<bool> heartbeat(bool sessionEnding, Seconds limit = usualLimit);

    // Ends the person's commitment. True when there was one.
    Result<bool> end(Seconds limit = usualLimit);

    // The status of this person's commitment.
    Result<HelperStatus> status(Seconds limit = usualLimit);

  private:
    template <class... Arguments>
    Result<BusMessage> ask(Deadline deadline, const char* member, const char* types,
                           Arguments... arguments);

    std::string socketPath_;
    BusHandle bus_;
};

}  // namespace halvo
