#include "HalvoHelper/Linux/BusConnection.hpp"

#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// Ends the conversation from below: sd-bus sees its socket closed, and says so in its own time.
void disconnect(sd_bus* bus) { shutdown(sd_bus_get_fd(bus), SHUT_RDWR); }

// Takes nothing more from the other side, to whom it looks like the end; what has been received is
// still read and answered, and then sd-bus sees the end, too. shutdown(2), unix(7).
void hangUp(sd_bus* bus) { shutdown(sd_bus_get_fd(bus), SHUT_RD); }

constexpr std::uint64_t microseconds(Seconds span) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(span).count());
}

// When the event loop's turn began, on the clock of its timers. No system call.
std::uint64_t loopTime(sd_bus* bus) {
    std::uint64_t time = 0;
    sd_event_now(sd_bus_get_event(bus), CLOCK_MONOTONIC, &time);
    return time;
}

// A reply may find the caller gone, which is no concern of the helper's. One that is there but does
// not read must not fill its memory. What a handler returns to sd-bus.
int sent(sd_bus_message* request) {
    sd_bus* bus = sd_bus_message_get_bus(request);
    std::uint64_t waiting = 0;
    if (sd_bus_get_n_queued_write(bus, &waiting) >= 0 && waiting > Limits::queuedReplies) {
        disconnect(bus);
    }
    return 1;
}

int reply(sd_bus_message* request, bool ok) {
    sd_bus_reply_method_return(request, "b", static_cast<int>(ok));
    return sent(request);
}

int replyInvalid(sd_bus_message* request, const std::string& problem) {
    sd_bus_reply_method_errorf(request, SD_BUS_ERROR_INVALID_ARGS, "%s", problem.c_str());
    return sent(request);
}

int reply(sd_bus_message* request, const HelperStatus& status) {
    const int holding = static_cast<int>(status.holding);
    const int locked = static_cast<int>(status.locked);
    // An optional is an array of none or one.
    if (status.until) {
        sd_bus_reply_method_return(request, "badb", holding, 1, secondsSince1970(*status.until),
                                   locked);
    } else {
        sd_bus_reply_method_return(request, "badb", holding, 0, locked);
    }
    return sent(request);
}

BusConnection& connectionOf(void* connection) { return *static_cast<BusConnection*>(connection); }

// The four below are called with arguments that argumentProblem() has let through.

int onBegin(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* appPath = nullptr;
    double until = 0;
    double started = 0;
    const int result = sd_bus_message_read(message, "sdd", &appPath, &until, &started);
    if (result < 0) {
        return result;
    }
    if (std::strlen(appPath) > Limits::appPath) {
        return replyInvalid(message, "appPath is longer than any path");
    }
    const BusConnection& connection = connectionOf(self);
    const auto ok =
        connection.requests().begin(resolvedPath(appPath), wallDate(until), wallDate(started));
    if (!ok) {
        return replyInvalid(message, ok.error());
    }
    if (*ok) {
        connection.noteBegin();
    }
    return reply(message, *ok);
}

int onHeartbeat(sd_bus_message* message, void* self, sd_bus_error*) {
    int sessionEnding = 0;
    const int result = sd_bus_message_read(message, "b", &sessionEnding);
    return result < 0 ? result
                      : reply(message, connectionOf(self).requests().heartbeat(sessionEnding != 0));
}

int onEnd(sd_bus_message* message, void* self, sd_bus_error*) {
    return reply(message, connectionOf(self).requests().end());
}

int onStatus(sd_bus_message* message, void* self, sd_bus_error*) {
    connectionOf(self).noteStatus();
    return reply(message, connectionOf(self).requests().status());
}

// The wire. Introspection shows it, and argumentProblem() names its arguments.
// NOLINTNEXTLINE(*-avoid-c-arrays): what the macros make.
const sd_bus_vtable requestTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Begin", SD_BUS_ARGS("s", appPath, "d", until, "d", started),
                            SD_BUS_RESULT("b", ok), onBegin, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Heartbeat", SD_BUS_ARGS("b", sessionEnding), SD_BUS_RESULT("b", ok),
                            onHeartbeat, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("End", SD_BUS_NO_ARGS, SD_BUS_RESULT("b", ok), onEnd,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Status", SD_BUS_NO_ARGS,
                            SD_BUS_RESULT("b", holding, "ad", until, "b", locked), onStatus,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// The method of the table that is called `member`, or null.
const sd_bus_vtable* methodCalled(std::string_view member) {
    const auto* found = std::ranges::find_if(requestTable, [member](const sd_bus_vtable& row) {
        return row.type == _SD_BUS_VTABLE_METHOD && member == row.x.method.member;
    });
    return found == std::ranges::end(requestTable) ? nullptr : found;
}

// The types of the arguments of `method`; SD_BUS_NO_ARGS makes them null.
std::string_view typesOf(const sd_bus_vtable& method) {
    return method.x.method.signature == nullptr ? "" : method.x.method.signature;
}

// The name of the argument `index` of `method`: its names follow one another, each with a zero
// byte.
std::string argumentName(const sd_bus_vtable& method, std::size_t index) {
    const char* name = method.x.method.names;
    for (; index > 0; --index) {
        name += std::strlen(name) + 1;
    }
    return name;
}

// As "Begin(s appPath, d until, d started)".
std::string described(const sd_bus_vtable& method) {
    const std::string_view types = typesOf(method);
    std::string text = method.x.method.member + std::string("(");
    for (std::size_t i = 0; i < types.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::string(1, types[i]) + " " + argumentName(method, i);
    }
    return text + ")";
}

// Answers a request with the wrong arguments by naming the first wrong one, before sd-bus answers
// with the two signatures only.
int checkArguments(sd_bus_message* message) {
    if (sd_bus_message_is_method_call(message, HelperBus::interface, nullptr) <= 0) {
        return 0;
    }
    const auto problem = argumentProblem(sd_bus_message_get_member(message),
                                         sd_bus_message_get_signature(message, 1));
    return problem ? replyInvalid(message, *problem) : 0;
}

}  // namespace

std::optional<std::string> argumentProblem(std::string_view member, std::string_view signature) {
    const sd_bus_vtable* method = methodCalled(member);
    if (method == nullptr) {
        return std::nullopt;
    }
    // Every expected type is one character, so up to the first difference characters are arguments.
    const std::string_view expected = typesOf(*method);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (i >= signature.size()) {
            return argumentName(*method, i) + " is missing: " + described(*method);
        }
        if (signature[i] != expected[i]) {
            return argumentName(*method, i) + " has the wrong type: " + described(*method) +
                   " was called with \"" + std::string(signature) + "\"";
        }
    }
    if (signature.size() > expected.size()) {
        return "there are more arguments than " + described(*method) + " takes: \"" +
               std::string(signature) + "\"";
    }
    return std::nullopt;
}

BusConnection::BusConnection(HelperConnection requests, std::function<void()> gone,
                             std::function<void()> begun)
    : requests_(std::move(requests)), gone_(std::move(gone)), begun_(std::move(begun)) {}

BusConnection::~BusConnection() {
    sd_event_source_disable_unref(firstMessages_);
    sd_event_source_disable_unref(deadline_);
    if (bus_ != nullptr) {
        sd_bus_detach_event(bus_);
        sd_bus_close_unref(bus_);
    }
}

bool BusConnection::start(Descriptor socket) {
    sd_event* loop = nullptr;
    if (sd_event_default(&loop) < 0) {
        return false;
    }
    const bool started = prepare(std::move(socket)) && listenToSignals() && startTimer(loop) &&
                         sd_bus_start(bus_) >= 0 &&
                         sd_bus_attach_event(bus_, loop, SD_EVENT_PRIORITY_NORMAL) >= 0;
    sd_event_unref(loop);
    if (started) {
        // sd-bus asks the kernel for megabytes. Where it will not take them back they stay.
        setsockopt(sd_bus_get_fd(bus_), SOL_SOCKET, SO_SNDBUF, &Limits::sendBuffer,
                   sizeof Limits::sendBuffer);
    }
    return started;
}

bool BusConnection::prepare(Descriptor socket) {
    sd_id128_t server{};
    if (sd_bus_new(&bus_) < 0 || sd_id128_randomize(&server) < 0 ||
        sd_bus_set_fd(bus_, socket.get(), socket.get()) < 0) {
        return false;
    }
    [[maybe_unused]] const int owned = socket.release();  // by the bus
    // Who may call was decided when the caller was admitted, so sd-bus need not ask again.
    return sd_bus_set_server(bus_, 1, server) >= 0 && sd_bus_set_trusted(bus_, 1) >= 0 &&
           sd_bus_negotiate_fds(bus_, 0) >= 0 && sd_bus_set_connected_signal(bus_, 1) >= 0 &&
           sd_bus_add_filter(bus_, nullptr, onMessage, this) >= 0 &&
           sd_bus_add_object_vtable(bus_, nullptr, HelperBus::object, HelperBus::interface,
                                    requestTable, this) >= 0;
}

bool BusConnection::listenToSignals() {
    constexpr const char* local = "org.freedesktop.DBus.Local";
    constexpr const char* path = "/org/freedesktop/DBus/Local";
    return sd_bus_match_signal_async(bus_, nullptr, local, path, local, "Connected", onConnected,
                                     nullptr, this) >= 0 &&
           sd_bus_match_signal_async(bus_, nullptr, local, path, local, "Disconnected",
                                     onDisconnected, nullptr, this) >= 0;
}

bool BusConnection::startTimer(sd_event* loop) {
    return sd_event_add_time_relative(loop, &deadline_, CLOCK_MONOTONIC,
                                      microseconds(Limits::authentication), 0, onDeadline,
                                      this) >= 0 &&
           sd_event_add_defer(loop, &firstMessages_, onFirstMessages, this) >= 0 &&
           sd_event_source_set_enabled(firstMessages_, SD_EVENT_OFF) >= 0;
}

void BusConnection::outdate() {
    if (toldStatus_) {
        hangUp(bus_);
    }
}

int BusConnection::onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* connection = static_cast<BusConnection*>(self);
    connection->heardAt_ = loopTime(connection->bus_);
    return checkArguments(message);
}

// libsystemd 252 forgets a first message that arrives together with the end of the authentication:
// it has been read, so the socket never becomes readable for it. Processing by hand finds it.
int BusConnection::onConnected(sd_bus_message*, void* self, sd_bus_error*) {
    auto* connection = static_cast<BusConnection*>(self);
    connection->heardAt_ = loopTime(connection->bus_);
    sd_event_source_set_enabled(connection->firstMessages_, SD_EVENT_ON);
    return 0;
}

// One message at a turn, so that a flood leaves the other connections theirs.
int BusConnection::onFirstMessages(sd_event_source* source, void* self) {
    sd_bus* bus = static_cast<BusConnection*>(self)->bus_;
    const int result = sd_bus_process(bus, nullptr);
    if (result <= 0) {
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
    }
    // As sd-bus does itself with what is no message when it comes later.
    if (result < 0) {
        disconnect(bus);
    }
    return 0;
}

// A message costs the timer nothing: it is set anew only when it fires and finds that there was
// one.
int BusConnection::onDeadline(sd_event_source* source, std::uint64_t, void* self) {
    const auto* connection = static_cast<BusConnection*>(self);
    if (!connection->heardAt_) {
        disconnect(connection->bus_);
        return 0;
    }
    const std::uint64_t end = *connection->heardAt_ + microseconds(Limits::silence);
    if (loopTime(connection->bus_) >= end) {
        hangUp(connection->bus_);
        return 0;
    }
    sd_event_source_set_time(source, end);
    sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    return 0;
}

int BusConnection::onDisconnected(sd_bus_message*, void* self, sd_bus_error*) {
    auto* connection = static_cast<BusConnection*>(self);
    sd_event_source_set_enabled(connection->deadline_, SD_EVENT_OFF);
    sd_event_source_set_enabled(connection->firstMessages_, SD_EVENT_OFF);
    connection->gone_();
    return 0;
}

}  // namespace halvo
