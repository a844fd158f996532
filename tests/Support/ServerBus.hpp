// The other end of a peer-to-peer D-Bus connection.
#pragma once

#include <systemd/sd-bus.h>

namespace halvo::testing {

// A bus that serves the client behind the socket `connection`, which it owns; not started.
inline sd_bus* newServerBus(int connection) {
    sd_bus* bus = nullptr;
    sd_id128_t id{};
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, connection, connection);
    sd_bus_set_server(bus, 1, id);
    return bus;
}

}  // namespace halvo::testing
