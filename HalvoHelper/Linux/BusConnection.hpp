// The wire of one admitted connection: peer-to-peer D-Bus.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "HalvoHelper/HelperConnection.hpp"
#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {

// Speaks D-Bus with one caller: hands its requests to a HelperConnection and sends the replies. A
// caller that takes too long to authenticate, or leaves too many replies unread, is disconnected;
// see Limits.hpp. Main queue only.
class BusConnection {
  public:
    // Will serve requests of the caller with `requests`. `gone` is called once, from the event
    // loop, when the caller went away or was disconnected; it must destroy the connection later,
    // not from within.
    BusConnection(std::unique_ptr<HelperConnection> requests, std::function<void()> gone);

    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    // Disconnects without calling `gone`. Replies to requests under way go nowhere.
    ~BusConnection();

    // Serves the connected `socket` on the main thread's event loop. False when the system has no
    // memory or descriptors for it, or what the caller has sent already is no authentication; the
    // connection is then of no use. Called once.
    bool start(Descriptor socket);

    [[nodiscard]] HelperConnection& requests() { return *requests_; }

  private:
    bool prepare(Descriptor socket);
    bool listenToSignals();
    bool startTimer(sd_event* loop);

    static int onConnected(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onDisconnected(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onFirstMessages(sd_event_source* source, void* self);
    static int onTooLate(sd_event_source* source, std::uint64_t time, void* self);

    std::unique_ptr<HelperConnection> requests_;
    std::function<void()> gone_;
    sd_bus* bus_ = nullptr;
    sd_event_source* firstMessages_ = nullptr;
    sd_event_source* tooLate_ = nullptr;
};

}  // namespace halvo
