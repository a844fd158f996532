#include "HalvoClient/BusCall.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

using Microseconds = std::chrono::microseconds;

// The time left, rounded up; none once the deadline has passed.
Microseconds timeLeft(Deadline deadline) {
    return std::max(std::chrono::ceil<Microseconds>(deadline - sinceBoot()), Microseconds{0});
}

// Sets the time-out of a blocking connect(2), socket(7). It must block: only blocked callers are
// queued for a place in a full listener; a non-blocking socket would have to poll. False on
// failure.
bool setConnectTimeout(int socket, Deadline deadline) {
    // Zero means no time-out.
    const Microseconds left = std::max(timeLeft(deadline), Microseconds{1});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timeval limit{.tv_sec = seconds.count(), .tv_usec = (left - seconds).count()};
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

// Returns 0 or the errno; EAGAIN when the listener's queue was full until the time-out.
int tryToConnect(int socket, const sockaddr_un& address) {
    const PrivateGroup::InEffect group;
    return connect(socket, generic(address), sizeof address) == 0 ? 0 : errno;
}

// Returns 0 or a negative errno, as sd-bus does.
int waitForInput(sd_bus& bus, Deadline deadline) {
    const int result = sd_bus_wait(&bus, static_cast<std::uint64_t>(timeLeft(deadline).count()));
    return result == -EINTR ? 0 : std::min(result, 0);
}

}  // namespace

Deadline deadlineAfter(Seconds limit) {
    constexpr Seconds longest = std::chrono::hours{24};
    // Not-a-number means zero.
    return sinceBoot() + (limit > Seconds{0} ? std::min(limit, longest) : Seconds{0});
}

bool waitBefore(Deadline deadline, Seconds span) {
    std::this_thread::sleep_for(
        std::min(timeLeft(deadline), std::chrono::ceil<Microseconds>(span)));
    return sinceBoot() < deadline;
}

std::expected<Descriptor, int> connectToHelper(const std::string& path, Deadline deadline) {
    const auto address = socketAddress(path);
    if (!address) {
        return std::unexpected(ENAMETOOLONG);
    }
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen()) {
        return std::unexpected(errno);
    }
    int code = EAGAIN;
    do {
        if (!setConnectTimeout(socket.get(), deadline)) {
            return std::unexpected(errno);
        }
        code = tryToConnect(socket.get(), *address);
    } while ((code == EAGAIN || code == EINTR) && sinceBoot() < deadline);
    if (code == EAGAIN || code == EINTR) {
        return std::unexpected(ETIMEDOUT);
    }
    if (code != 0 || fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) {
        return std::unexpected(code != 0 ? code : errno);
    }
    return socket;
}

std::expected<BusHandle, int> openBus(Descriptor socket) {
    sd_bus* raw = nullptr;
    int result = sd_bus_new(&raw);
    BusHandle bus(raw);
    result = result >= 0 ? sd_bus_negotiate_fds(raw, 0) : result;
    result = result >= 0 ? sd_bus_set_fd(raw, socket.get(), socket.get()) : result;
    if (result >= 0) {
        [[maybe_unused]] const int owned = socket.release();
        result = sd_bus_start(raw);
    }
    if (result < 0) {
        return std::unexpected(-result);
    }
    return bus;
}

std::expected<BusMessage, int> callWithin(Deadline deadline, sd_bus& bus, sd_bus_message& request) {
    bool authenticated = sd_bus_is_ready(&bus) > 0;
    const auto broken = [&authenticated] {
        return std::unexpected(authenticated ? ECONNRESET : EPERM);
    };
    // libsystemd 252: sd_bus_call() has no time limit for authentication.
    if (sinceBoot() >= deadline) {
        return std::unexpected(ETIMEDOUT);
    }
    std::uint64_t cookie = 0;
    if (sd_bus_send(&bus, &request, &cookie) < 0) {
        return broken();
    }
    // Checked also while there is progress, since a peer may send without end, and before
    // sd_bus_process(), which sends the request once authentication is finished.
    while (sinceBoot() < deadline) {
        sd_bus_message* raw = nullptr;
        const int progress = sd_bus_process(&bus, &raw);
        BusMessage message(raw);
        authenticated = authenticated || sd_bus_is_ready(&bus) > 0;
        std::uint64_t answered = 0;
        if (message != nullptr && sd_bus_message_get_reply_cookie(raw, &answered) >= 0 &&
            answered == cookie) {
            return message;
        }
        if (progress < 0 || (progress == 0 && waitForInput(bus, deadline) < 0)) {
            return broken();
        }
    }
    return std::unexpected(ETIMEDOUT);
}

}  // namespace halvo
