#include "HalvoHelper/Linux/BusConnection.hpp"

#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <cstring>
#include <utility>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// Closes the connection below sd-bus, which then sends its Disconnected signal.
void disconnect(sd_bus* bus) { shutdown(sd_bus_get_fd(bus), SHUT_RDWR); }

// Receives nothing more from the peer, which sees the connection closed (EPIPE). What has been
// received is still read and answered; then sd-bus sees the end of file, too. shutdown(2), unix(7).
void hangUp(sd_bus* bus) { shutdown(sd_bus_get_fd(bus), SHUT_RD); }

// When the event loop's turn began, on the clock of its timers. No system call.
std::uint64_t loopTime(sd_bus* bus) {
    std::uint64_t time = 0;
    sd_event_now(sd_bus_get_event(bus), CLOCK_MONOTONIC, &time);
    return time;
}

// Replies with `values`, as sd_bus_message_append(3) takes them for the D-Bus signature `types`.
// Returns what a handler returns to sd-bus. Where memory ran out the caller is disconnected: it
// must not wait for the reply, nor be told that the request failed, which is done.
template <class... Values>
int reply(sd_bus_message* request, const char* types, Values... values) {
    if (sd_bus_reply_method_return(request, types, values...) < 0) {
        disconnect(sd_bus_message_get_bus(request));
    }
    return 1;
}

}  // namespace

// Each gets the BusConnection as userdata. sd-bus has checked the types of a request's arguments.
struct BusHandlers {
    static BusConnection& of(void* connection) { return *static_cast<BusConnection*>(connection); }

    static int begin(sd_bus_message* message, void* self, sd_bus_error* error) {
        const char* appPath = nullptr;
        double until = 0;
        double started = 0;
        const int result = sd_bus_message_read(message, "sdd", &appPath, &until, &started);
        if (result < 0) {
            return result;
        }
        if (std::strlen(appPath) > Limits::appPath) {
            return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                                    "appPath is longer than any path");
        }
        const auto ok =
            of(self).requests_.begin(resolvedPath(appPath), wallDate(until), wallDate(started));
        if (!ok) {
            return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, ok.error().c_str());
        }
        if (*ok) {
            of(self).begun_(of(self));
        }
        return reply(message, "b", int{*ok});
    }

    static int heartbeat(sd_bus_message* message, void* self, sd_bus_error*) {
        int sessionEnding = 0;
        const int result = sd_bus_message_read(message, "b", &sessionEnding);
        return result < 0
                   ? result
                   : reply(message, "b", int{of(self).requests_.heartbeat(sessionEnding != 0)});
    }

    static int end(sd_bus_message* message, void* self, sd_bus_error*) {
        return reply(message, "b", int{of(self).requests_.end()});
    }

    static int status(sd_bus_message* message, void* self, sd_bus_error*) {
        of(self).hasSentStatus_ = true;
        const HelperStatus status = of(self).requests_.status();
        // An optional is an array of length 0 or 1.
        return status.until ? reply(message, "badb", int{status.holding}, 1,
                                    secondsSince1970(*status.until), int{status.locked})
                            : reply(message, "badb", int{status.holding}, 0, int{status.locked});
    }

    // A filter, which sd-bus calls before the handler of the message.
    static int message(sd_bus_message*, void* self, sd_bus_error*) {
        sd_bus* bus = of(self).bus_;
        of(self).lastMessageAt_ = loopTime(bus);
        // A caller that does not read must not fill the helper's memory.
        std::uint64_t waiting = 0;
        if (sd_bus_get_n_queued_write(bus, &waiting) >= 0 && waiting > Limits::queuedReplies) {
            disconnect(bus);
        }
        return 0;
    }

    // libsystemd 252 forgets a first message that arrives together with the end of the
    // authentication: it has been read, so the socket never becomes readable for it. Processing by
    // hand finds it.
    static int connected(sd_bus_message*, void* self, sd_bus_error*) {
        of(self).lastMessageAt_ = loopTime(of(self).bus_);
        sd_event_source_set_enabled(of(self).firstMessages_, SD_EVENT_ON);
        return 0;
    }

    // One message per iteration of the event loop, so that a flood does not starve the other
    // connections.
    static int firstMessages(sd_event_source* source, void* self) {
        const int result = sd_bus_process(of(self).bus_, nullptr);
        if (result <= 0) {
            sd_event_source_set_enabled(source, SD_EVENT_OFF);
        }
        // As sd-bus does itself with a malformed message that comes later.
        if (result < 0) {
            disconnect(of(self).bus_);
        }
        return 0;
    }

    // A message does not re-arm the timer: that happens when it fires and there was one since.
    static int deadline(sd_event_source* source, std::uint64_t, void* self) {
        sd_bus* bus = of(self).bus_;
        const auto lastMessageAt = of(self).lastMessageAt_;
        const std::uint64_t end = lastMessageAt.value_or(0) + microseconds(Limits::silence);
        if (!lastMessageAt) {
            disconnect(bus);
        } else if (loopTime(bus) >= end) {
            hangUp(bus);
        } else {
            sd_event_source_set_time(source, end);
            sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
        }
        return 0;
    }

    static int disconnected(sd_bus_message*, void* self, sd_bus_error*) {
        sd_event_source_set_enabled(of(self).deadline_, SD_EVENT_OFF);
        sd_event_source_set_enabled(of(self).firstMessages_, SD_EVENT_OFF);
        of(self).gone_(of(self));
        return 0;
    }
};

namespace {

// The D-Bus interface, as introspection shows it.
// NOLINTNEXTLINE(*-avoid-c-arrays): what the macros make.
const sd_bus_vtable requestTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Begin", SD_BUS_ARGS("s", appPath, "d", until, "d", started),
                            SD_BUS_RESULT("b", ok), BusHandlers::begin, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Heartbeat", SD_BUS_ARGS("b", sessionEnding), SD_BUS_RESULT("b", ok),
                            BusHandlers::heartbeat, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("End", SD_BUS_NO_ARGS, SD_BUS_RESULT("b", ok), BusHandlers::end,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Status", SD_BUS_NO_ARGS,
                            SD_BUS_RESULT("b", holding, "ad", until, "b", locked),
                            BusHandlers::status, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

BusConnection::BusConnection(HelperConnection requests, Callback gone, Callback begun)
    : requests_(std::move(requests)), gone_(std::move(gone)), begun_(std::move(begun)) {}

BusConnection::~BusConnection() {
    sd_event_source_disable_unref(firstMessages_);
    sd_event_source_disable_unref(deadline_);
    sd_bus_close_unref(bus_);
}

bool BusConnection::start(Descriptor socket) {
    sd_event* loop = nullptr;
    sd_id128_t server{};
    if (sd_event_default(&loop) < 0 || sd_bus_new(&bus_) < 0 || sd_id128_randomize(&server) < 0 ||
        sd_bus_set_fd(bus_, socket.get(), socket.get()) < 0) {
        sd_event_unref(loop);
        return false;
    }
    [[maybe_unused]] const int owned = socket.release();  // by the bus
    constexpr const char* local = "org.freedesktop.DBus.Local";
    constexpr const char* path = "/org/freedesktop/DBus/Local";
    // Callers are checked when they are admitted: sd-bus need not check each call.
    const bool started =
        sd_bus_set_server(bus_, 1, server) >= 0 && sd_bus_set_trusted(bus_, 1) >= 0 &&
        sd_bus_negotiate_fds(bus_, 0) >= 0 && sd_bus_set_connected_signal(bus_, 1) >= 0 &&
        sd_bus_add_filter(bus_, nullptr, BusHandlers::message, this) >= 0 &&
        sd_bus_add_object_vtable(bus_, nullptr, HelperBus::object, HelperBus::interface,
                                 requestTable, this) >= 0 &&
        sd_bus_match_signal_async(bus_, nullptr, local, path, local, "Connected",
                                  BusHandlers::connected, nullptr, this) >= 0 &&
        sd_bus_match_signal_async(bus_, nullptr, local, path, local, "Disconnected",
                                  BusHandlers::disconnected, nullptr, this) >= 0 &&
        sd_event_add_time_relative(loop, &deadline_, CLOCK_MONOTONIC,
                                   microseconds(Limits::authentication), 0, BusHandlers::deadline,
                                   this) >= 0 &&
        sd_event_add_defer(loop, &firstMessages_, BusHandlers::firstMessages, this) >= 0 &&
        sd_event_source_set_enabled(firstMessages_, SD_EVENT_OFF) >= 0 && sd_bus_start(bus_) >= 0 &&
        sd_bus_attach_event(bus_, loop, SD_EVENT_PRIORITY_NORMAL) >= 0;
    sd_event_unref(loop);
    if (started) {
        // sd-bus asks the kernel for megabytes. Where the kernel refuses to shrink it, it stays.
        setsockopt(sd_bus_get_fd(bus_), SOL_SOCKET, SO_SNDBUF, &Limits::sendBuffer,
                   sizeof Limits::sendBuffer);
    }
    return started;
}

void BusConnection::outdate() {
    if (hasSentStatus_) {
        hangUp(bus_);
    }
}

}  // namespace halvo
