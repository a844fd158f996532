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

// Lets connect(2) wait for a place in the listener's queue until `deadline` and no longer;
// socket(7). Only who waits in it has a turn there: a socket that never blocks has to come back by
// chance. Says whether the kernel took it.
bool limitWait(int socket, Deadline deadline) {
    // Zero would be no limit.
    const Microseconds left = std::max(timeLeft(deadline), Microseconds{1});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timeval limit{.tv_sec = seconds.count(), .tv_usec = (left - seconds).count()};
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

// Gives 0 or the errno; EAGAIN when the queue had no place in time.
int tryToConnect(int socket, const sockaddr_un& address) {
    const PrivateGroup::InEffect group;
    return connect(socket, generic(address), sizeof address) == 0 ? 0 : errno;
}

// Gives 0 or a negative errno, as sd-bus does.
int waitForMore(sd_bus& bus, Deadline deadline) {
    const int result = sd_bus_wait(&bus, static_cast<std::uint64_t>(timeLeft(deadline).count()));
    return result == -EINTR ? 0 : std::min(result, 0);
}

}  // namespace

Deadline deadlineAfter(Seconds limit) {
    constexpr Seconds longest = std::chrono::hours{24};
    // Written so that not-a-number means at once.
    return sinceBoot() + (limit > Seconds{0} ? std::min(limit, longest) : Seconds{0});
}

bool waitBefore(Deadline deadline, Seconds span) {
    std::this_thread::sleep_for(
        std::min(timeLeft(deadline), std::chrono::ceil<Microseconds>(span)));
    return sinceBoot() < deadline;
}

std::expected<Descriptor, int> connectAsApp(const std::string& path, Deadline deadline) {
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
        if (!limitWait(socket.get(), deadline)) {
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
    if (result >= 0) {
        result = sd_bus_negotiate_fds(raw, 0);
    }
    if (result >= 0) {
        result = sd_bus_set_fd(raw, socket.get(), socket.get());
    }
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
    // sd_bus_call() would wait without a limit for authentication to finish, so it is done in
    // steps, and the time limit is kept here alone.
    if (sinceBoot() >= deadline) {
        return std::unexpected(ETIMEDOUT);
    }
    std::uint64_t cookie = 0;
    if (sd_bus_send(&bus, &request, &cookie) < 0) {
        return broken();
    }
    // The clock is looked at also while there is progress: a peer that never stops sending must not
    // hold us. And before it: authentication that ends too late must send nothing.
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
        if (progress < 0 || (progress == 0 && waitForMore(bus, deadline) < 0)) {
            return broken();
        }
    }
    return std::unexpected(ETIMEDOUT);
}

}  // namespace halvo
