// The app's side of the helper on Linux: its four requests, asked one after the other.
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

// Nobody listens on the socket (ENOENT, ECONNREFUSED), or the helper went away twice during one
// call (ECONNRESET): then the request may have been carried out or not.
struct NotRunning {
    // The errno of the call that showed it.
    int code{};

    bool operator==(const NotRunning&) const = default;
};

// The helper closed the connection before authentication was finished, twice: this process is not
// the installed app, or the helper has no place left. Or the socket itself may not be connected to.
struct Refused {
    // The file that this process runs is no longer at its path, as after an upgrade: the helper
    // serves only what is installed now. Start the app anew.
    bool wasReplaced = false;

    bool operator==(const Refused&) const = default;
};

// No answer came in time, or the time was over before the request was sent. If it was sent it may
// still be carried out.
struct TimedOut {
    bool operator==(const TimedOut&) const = default;
};

// The helper answered with a D-Bus error, or with something that this client does not understand
// ("org.freedesktop.DBus.Error.InconsistentMessage"): the two are of different versions.
struct Rejected {
    std::string name;
    std::string message;

    bool operator==(const Rejected&) const = default;
};

// This process has no descriptors or no memory left (EMFILE, ENFILE, ENOMEM, ...).
struct NoResources {
    int code{};

    bool operator==(const NoResources&) const = default;
};

}  // namespace HelperFailures

using HelperFailure =
    std::variant<HelperFailures::NotRunning, HelperFailures::Refused, HelperFailures::TimedOut,
                 HelperFailures::Rejected, HelperFailures::NoResources>;

// What is the matter, as a sentence for a person.
std::string description(const HelperFailure& failure);

// The status of sysexits.h with which a program on the command line reports it: 69 not running, 77
// refused, 75 timed out, 65 rejected, 71 no resources.
int exitStatus(const HelperFailure& failure);

// The span of a commitment to ask for.
struct CommitmentSpan {
    WallDate until;
    WallDate started;
};

// Connects at the first request and keeps the connection, so that the helper does not stop for want
// of work while this object speaks; the helper disconnects who says nothing for 30 s. Each request
// takes at most `limit`, whatever the helper does: stopped, silent, or with a full queue. The limit
// counts while this process is stopped or the machine sleeps; what it finds over is not sent.
//
// When the helper was restarted or has disconnected this process, a request finds the old
// connection broken, connects anew and is sent again, once, within the same limit. So the helper
// may see a request twice. None of them minds, but an end whose first reply was lost answers false.
// A begin is never sent again: it starts over, see there. A refusal is believed after a second try
// shortly after, because a helper that is killed just as it accepts looks the same. After a
// time-out the connection is closed and the next request starts with a new one.
//
// One thread at a time, and only the process that made the object, not a child of fork(2).
// Descriptors are closed on exec; no SIGPIPE is raised. The private group is put in effect just to
// connect, see PrivateGroup.hpp.
class HelperClient {
  public:
    template <class Value>
    using Result = std::expected<Value, HelperFailure>;

    static constexpr Seconds usualLimit{5};

    // For the helper of the app `identity`.
    explicit HelperClient(const HelperIdentity& identity);

    // For the helper that listens on the socket at `socketPath`.
    explicit HelperClient(std::string socketPath);

    // Says what to ask for when `held` is what holds; nothing when that shall stay as it is.
    using Decision = std::function<std::optional<CommitmentSpan>(const HelperStatus& held)>;

    // Commits the person to keep the caller's own bundle `appPath`. True when a commitment is now
    // held. An end in the past ends a running commitment, and one earlier than what holds shortens
    // it: what may be shortened is the app's to decide, and `decide` is where it does.
    //
    // Asks for the status, has `decide` look at it, and sends the begin at once, over the same
    // connection and no other. For whoever stops a process between the two can begin a longer
    // commitment elsewhere, and lets the old decision end it later. When the helper takes a begin
    // of this person it disconnects the processes that it told something else before; what they
    // had decided then is not sent but decided anew, on what holds now. So `decide` may be called
    // more than once; it must depend on nothing that an earlier status said. The limit is for all
    // of it, at most `usualLimit`.
    //
    // A path that is not UTF-8 or has a zero byte is rejected
    // ("org.freedesktop.DBus.Error.InvalidArgs") without asking the helper.
    Result<bool> begin(const std::string& appPath, const Decision& decide,
                       Seconds limit = usualLimit);

    // Shows that the app is alive, or announces that the session is ending. True while a commitment
    // of this person holds.
    Result<bool> heartbeat(bool sessionEnding, Seconds limit = usualLimit);

    // Lets the person's commitment go. True when there was one.
    Result<bool> end(Seconds limit = usualLimit);

    // What holds for this person.
    Result<HelperStatus> status(Seconds limit = usualLimit);

  private:
    template <class... Arguments>
    Result<BusMessage> ask(Deadline deadline, const char* member, const char* types,
                           Arguments... arguments);
    Result<HelperStatus> statusBefore(Deadline deadline);

    std::string socketPath_;
    BusHandle bus_;
};

}  // namespace halvo
