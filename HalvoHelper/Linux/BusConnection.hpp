// One admitted connection: peer-to-peer D-Bus.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <optional>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {

// Speaks D-Bus with one caller: passes its requests to a HelperConnection and sends the replies. A
// caller that takes too long to authenticate, is silent for too long, or leaves too many replies
// unread, is disconnected; see Limits.hpp. Main queue only.
class BusConnection {
  public:
    using Callback = std::function<void(BusConnection&)>;

    // Serves the caller's requests with `requests`. `gone` is called once, from the event loop,
    // when the caller has closed the connection or was disconnected; it must destroy the connection
    // later, not from within. `begun` is called when a begin of this caller succeeded, before the
    // reply.
    BusConnection(HelperConnection requests, Callback gone, Callback begun);

    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    // Disconnects without calling `gone`.
    ~BusConnection();

    // Serves the connected `socket`. Called once. Returns false when memory or file descriptors ran
    // out, or the caller has already sent what is not D-Bus authentication; the connection is then
    // unusable. Serves on the main thread's event loop.
    bool start(Descriptor socket);

    // The user of the caller.
    [[nodiscard]] std::uint32_t uid() const { return requests_.peer().uid; }

    // Disconnects the caller if it was sent a status, which is out of date now. Requests that have
    // arrived are answered, but nothing that the caller sends from now on arrives: before a begin
    // that it has decided on it must ask for a status again.
    void outdate();

  private:
    // What sd-bus and sd-event call.
    friend struct BusHandlers;

    HelperConnection requests_;
    Callback gone_;
    Callback begun_;
    bool hasSentStatus_ = false;
    // When the last message arrived, on the event loop's clock; nothing before authentication.
    std::optional<std::uint64_t> lastMessageAt_;
    sd_bus* bus_ = nullptr;
    sd_event_source* firstMessages_ = nullptr;
    // Ends the authentication, then a silence.
    sd_event_source* deadline_ = nullptr;
};

}  // namespace halvo
