// Peer-to-peer D-Bus over a Unix socket with deadlines; on sd-bus(3). A connection belongs to one
// thread and to the process that made it.
#pragma once

#include <systemd/sd-bus.h>

#include <expected>
#include <memory>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// An instant of sinceBoot(), which, other than std::chrono::steady_clock, counts while the machine
// sleeps.
using Deadline = Seconds;

// The instant `limit` from now: at least now, at most a day ahead.
Deadline deadlineAfter(Seconds limit);

// Sleeps for `span`, at most until `deadline`. Returns whether the deadline has not passed.
bool waitBefore(Deadline deadline, Seconds span);

// Closes the connection without flushing it.
struct BusClose {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

using BusHandle = std::unique_ptr<sd_bus, BusClose>;

struct BusMessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using BusMessage = std::unique_ptr<sd_bus_message, BusMessageRelease>;

// A stream socket, close-on-exec and non-blocking, connected to `path` with the private group in
// effect, if the process has one. Fails with the errno of socket(2) or connect(2), with
// ENAMETOOLONG when the path is too long (unix(7)), and with ETIMEDOUT when the listener's queue
// was full until `deadline`.
std::expected<Descriptor, int> connectToHelper(const std::string& path, Deadline deadline);

// A connection on `socket`, of which it takes ownership, also on failure. Only begins
// authentication; callWithin() continues it. Refuses file descriptors from the peer. Fails with an
// errno.
std::expected<BusHandle, int> openBus(Descriptor socket);

// Sends `request` and returns its reply, which may be an error reply. After `deadline` nothing is
// sent and no reply accepted, also when this process was stopped or the machine slept meanwhile.
// Fails with EPERM when the peer rejected the authentication or closed the connection before that
// was finished; with ECONNRESET when the connection broke later: the request may have been carried
// out or not; with ETIMEDOUT at the deadline: it may still be carried out. After a failure the
// connection must not be used again.
std::expected<BusMessage, int> callWithin(Deadline deadline, sd_bus& bus, sd_bus_message& request);

}  // namespace halvo
