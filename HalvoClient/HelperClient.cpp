#include "HalvoClient/HelperClient.hpp"

#include <sysexits.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

using namespace HelperFailures;

// The link to the executable of this process; proc_pid_exe(5).
constexpr const char* ownExecutable = "/proc/self/exe";

// Time for a helper that was killed while it accepted to be restarted.
constexpr Seconds pauseAfterRefusal{0.1};

Refused refused() {
    std::error_code error;
    const std::string path = std::filesystem::read_symlink(ownExecutable, error);
    return {path.ends_with(" (deleted)")};
}

HelperFailure failureOf(int code) {
    switch (code) {
        case EACCES:
        case EPERM:
            return refused();
        case ETIMEDOUT:
            return TimedOut{};
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            return NoResources{code};
        default:
            return NotRunning{code};
    }
}

// Connects, unless `bus` is connected.
std::expected<void, int> connectIfNeeded(BusHandle& bus, const std::string& path,
                                         Deadline deadline) {
    if (bus != nullptr) {
        return {};
    }
    auto socket = connectToHelper(path, deadline);
    auto made = socket ? openBus(*std::move(socket)) : std::unexpected(socket.error());
    if (made) {
        bus = std::move(*made);
        return {};
    }
    // A helper that closes at once may already fail the first bytes that are sent.
    const int code = made.error();
    return std::unexpected(code == EPIPE || code == ECONNRESET ? EPERM : code);
}

// Calls `member` once, over this connection; the arguments are those of sd_bus_message_append(3).
template <class... Arguments>
std::expected<BusMessage, int> attemptOn(sd_bus& bus, Deadline deadline, const char* member,
                                         const char* types, Arguments... arguments) {
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_call(&bus, &raw, nullptr, HelperBus::object,
                                                HelperBus::interface, member);
    const BusMessage request(raw);
    result = result >= 0 ? sd_bus_message_append(raw, types, arguments...) : result;
    return result < 0 ? std::unexpected(-result) : callWithin(deadline, bus, *request);
}

HelperFailure notUnderstood(const char* member) {
    return Rejected{SD_BUS_ERROR_INCONSISTENT_MESSAGE,
                    std::string("The helper answered ") + member + " in an unknown form"};
}

// An error reply is a failure.
std::expected<BusMessage, HelperFailure> answerOf(BusMessage reply) {
    const sd_bus_error* error = sd_bus_message_get_error(reply.get());
    if (error == nullptr) {
        return reply;
    }
    return std::unexpected(Rejected{error->name, error->message == nullptr ? "" : error->message});
}

HelperClient::Result<bool> yesOrNo(const char* member,
                                   const std::expected<BusMessage, HelperFailure>& reply) {
    if (!reply) {
        return std::unexpected(reply.error());
    }
    int yes = 0;
    if (sd_bus_message_has_signature(reply->get(), "b") <= 0 ||
        sd_bus_message_read(reply->get(), "b", &yes) <= 0) {
        return std::unexpected(notUnderstood(member));
    }
    return yes != 0;
}

}  // namespace

std::string description(const HelperFailure& failure) {
    if (const auto* gone = std::get_if<NotRunning>(&failure)) {
        return "The helper is not running: " + errorText(gone->code) + ".";
    }
    if (const auto* refused = std::get_if<Refused>(&failure)) {
        return refused->wasReplaced
                   ? "The helper refused the connection: this app was replaced since it started."
                   : "The helper refused the connection before reading a request.";
    }
    if (const auto* rejected = std::get_if<Rejected>(&failure)) {
        return "The helper rejected the request: " + rejected->message + " (" + rejected->name +
               ").";
    }
    if (const auto* resources = std::get_if<NoResources>(&failure)) {
        return "The helper cannot be asked: " + errorText(resources->code) + ".";
    }
    return "The helper did not answer in time.";
}

int exitStatus(const HelperFailure& failure) {
    // In the order of the variant.
    constexpr std::array<int, std::variant_size_v<HelperFailure>> statuses{
        EX_UNAVAILABLE, EX_NOPERM, EX_TEMPFAIL, EX_DATAERR, EX_OSERR};
    return statuses.at(failure.index());
}

std::optional<OwnBundle> bundleOf(const std::string& executable) {
    const auto real = canonicalPath(executable);
    auto path = real ? AppLocation::bundlePath(*real) : std::nullopt;
    auto identity = path ? HelperIdentity::ofBundle(Bundle(*path).info()) : std::nullopt;
    if (!path || !identity) {
        return std::nullopt;
    }
    return OwnBundle{*std::move(path), *std::move(identity)};
}

std::optional<OwnBundle> ownBundle() { return bundleOf(ownExecutable); }

HelperClient::HelperClient(const HelperIdentity& identity)
    : HelperClient(HelperBus::socketPath(identity.helperBundleID())) {}

HelperClient::HelperClient(std::string socketPath) : socketPath_(std::move(socketPath)) {}

template <class... Arguments>
HelperClient::Result<BusMessage> HelperClient::ask(Deadline deadline, const char* member,
                                                   const char* types, Arguments... arguments) {
    bool refusedBefore = false;
    bool brokenBefore = false;
    while (true) {
        const auto connected = connectIfNeeded(bus_, socketPath_, deadline);
        auto reply = connected ? attemptOn(*bus_, deadline, member, types, arguments...)
                               : std::unexpected(connected.error());
        if (reply) {
            return answerOf(std::move(*reply));
        }
        bus_.reset();
        const int code = reply.error();
        // Try again, once for each reason.
        const bool isFirst = (code == EPERM && !std::exchange(refusedBefore, true)) ||
                             (code == ECONNRESET && !std::exchange(brokenBefore, true));
        if (!isFirst) {
            return std::unexpected(failureOf(code));
        }
        if (code == EPERM && !waitBefore(deadline, pauseAfterRefusal)) {
            return std::unexpected(TimedOut{});
        }
    }
}

HelperClient::Result<bool> HelperClient::begin(const std::string& appPath, const Decision& decide,
                                               Seconds limit) {
    if (!isUTF8(appPath) || hasZeroByte(appPath)) {
        return std::unexpected(
            Rejected{SD_BUS_ERROR_INVALID_ARGS, "The app's path is no text that D-Bus can carry"});
    }
    constexpr const char* member = "Begin";
    const Deadline deadline = deadlineAfter(std::min(limit, usualLimit));
    while (true) {
        const auto held = status(deadline - sinceBoot());
        if (!held) {
            return std::unexpected(held.error());
        }
        const auto span = decide(*held);
        if (!span) {
            return held->holding;
        }
        auto reply = attemptOn(*bus_, deadline, member, "sdd", appPath.c_str(),
                               secondsSince1970(span->until), secondsSince1970(span->started));
        if (reply) {
            return yesOrNo(member, answerOf(std::move(*reply)));
        }
        bus_.reset();
        // ECONNRESET: an authenticated connection was closed. The pause is for a helper that closes
        // every connection.
        if (reply.error() != ECONNRESET) {
            return std::unexpected(failureOf(reply.error()));
        }
        if (!waitBefore(deadline, pauseAfterRefusal)) {
            return std::unexpected(TimedOut{});
        }
    }
}

HelperClient::Result<bool> HelperClient::heartbeat(bool sessionEnding, Seconds limit) {
    constexpr const char* member = "Heartbeat";
    return yesOrNo(member, ask(deadlineAfter(limit), member, "b", int{sessionEnding}));
}

HelperClient::Result<bool> HelperClient::end(Seconds limit) {
    constexpr const char* member = "End";
    return yesOrNo(member, ask(deadlineAfter(limit), member, ""));
}

HelperClient::Result<HelperStatus> HelperClient::status(Seconds limit) {
    constexpr const char* member = "Status";
    const auto reply = ask(deadlineAfter(limit), member, "");
    if (!reply) {
        return std::unexpected(reply.error());
    }
    int holding = 0;
    const void* dates = nullptr;
    std::size_t size = 0;
    int locked = 0;
    if (sd_bus_message_has_signature(reply->get(), "badb") <= 0 ||
        sd_bus_message_read(reply->get(), "b", &holding) <= 0 ||
        sd_bus_message_read_array(reply->get(), 'd', &dates, &size) < 0 ||
        sd_bus_message_read(reply->get(), "b", &locked) <= 0 || size > sizeof(double)) {
        return std::unexpected(notUnderstood(member));
    }
    HelperStatus status{holding != 0, std::nullopt, locked != 0};
    if (size == sizeof(double)) {
        status.until = wallDate(*static_cast<const double*>(dates));
    }
    return status;
}

}  // namespace halvo
