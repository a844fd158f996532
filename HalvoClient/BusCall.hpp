// Peer-to-peer D-Bus over a Unix socket, on which nothing waits longer than its caller allows. A
// thin layer on sd-bus(3) for HelperClient and for programs that ask other things than it does.
// Each connection belongs to one thread and to the process that made it.
#pragma once

#include <systemd/sd-bus.h>

#include <expected>
#include <memory>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// An instant on the clock of sinceBoot(), which nobody can set and which counts while the machine
// sleeps, as std::chrono::steady_clock does not.
using Deadline = Seconds;

// The instant `limit` from now: at least now, at most a day ahead.
Deadline deadlineAfter(Seconds limit);

// Waits until `span` has passed, or until `deadline` if that comes first. Says whether time is
// left.
bool waitBefore(Deadline deadline, Seconds span);

// Closes its connection without sending what is still queued.
struct BusClose {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

using BusHandle = std::unique_ptr<sd_bus, BusClose>;

struct BusMessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using BusMessage = std::unique_ptr<sd_bus_message, BusMessageRelease>;

// A stream socket, closed on exec and never blocking, connected to the one at `path` with the
// private group in effect at that moment, if the process has one. Fails with the errno of
// socket(2) or connect(2), with ENAMETOOLONG when the path does not fit (unix(7)), and with
// ETIMEDOUT when the listener's queue had no place until `deadline`.
std::expected<Descriptor, int> connectAsApp(const std::string& path, Deadline deadline);

// A connection on `socket`, which it owns from now on, also on failure. Authentication is only
// begun here; callWithin() carries it on. Takes no descriptors from the other side. Fails with an
// errno, ENOMEM when that is the reason.
std::expected<BusHandle, int> openBus(Descriptor socket);

// Sends `request` and waits for its reply, which may be an error reply. Once `deadline` has passed,
// nothing is sent any more and no reply is taken for one in time, also when this process was
// stopped or the machine slept meanwhile. Fails with EPERM when the other side closed the
// connection, or said no, before authentication was finished; with ECONNRESET when the connection
// broke later: the request may have been carried out or not; with ETIMEDOUT when nothing came
// before the deadline: it may still be carried out. After a failure the connection is of no more
// use, and a late reply to it is lost.
std::expected<BusMessage, int> callWithin(Deadline deadline, sd_bus& bus, sd_bus_message& request);

}  // namespace halvo
