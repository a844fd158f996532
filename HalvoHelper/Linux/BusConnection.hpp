// The wire of one admitted connection: peer-to-peer D-Bus.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <optional>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {

// Speaks D-Bus with one caller: hands its requests to a HelperConnection and sends the replies. A
// caller that takes too long to authenticate, says nothing for too long, or leaves too many replies
// unread, is disconnected; see Limits.hpp. Main queue only.
class BusConnection {
  public:
    using Callback = std::function<void(BusConnection&)>;

    // Will serve requests of the caller with `requests`. `gone` is called once, from the event
    // loop, when the caller went away or was disconnected; it must destroy the connection later,
    // not from within. `begun` is called when a begin of this caller was taken, before the reply.
    BusConnection(HelperConnection requests, Callback gone, Callback begun);

    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    // Disconnects without calling `gone`.
    ~BusConnection();

    // Serves the connected `socket` on the main thread's event loop. False when the system has no
    // memory or descriptors for it, or what the caller has sent already is no authentication; the
    // connection is then of no use. Called once.
    bool start(Descriptor socket);

    // The user of the caller.
    [[nodiscard]] std::uint32_t uid() const { return requests_.peer().uid; }

    // What a status has told this caller is no longer so: disconnects it, unless it was told
    // nothing. Requests that have come are answered, but nothing that the caller sends from now on
    // arrives: a begin that it has decided on has to start with another status.
    void outdate();

  private:
    // What sd-bus and sd-event call.
    friend struct BusHandlers;

    HelperConnection requests_;
    Callback gone_;
    Callback begun_;
    bool toldStatus_ = false;
    // When the last message came, as the event loop counts; nothing before authentication.
    std::optional<std::uint64_t> heardAt_;
    sd_bus* bus_ = nullptr;
    sd_event_source* firstMessages_ = nullptr;
    // Of the authentication, then of each silence.
    sd_event_source* deadline_ = nullptr;
};

}  // namespace halvo
