// The least that replies to a status call over peer-to-peer D-Bus: sd-bus and nothing else. Without
// authorisation or state, one connection at a time, until it is killed. Usage: BareBusServer SOCKET

#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/FakeHelper.hpp"

namespace {

void check(int result) {
    if (result < 0) {
        std::abort();
    }
}

// The reply of a helper that holds nothing.
int onStatus(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "badb", 0, 0, 0);
}

// NOLINTNEXTLINE(*-avoid-c-arrays): what the macros make.
const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Status", SD_BUS_NO_ARGS,
                            SD_BUS_RESULT("b", holding, "ad", until, "b", locked), onStatus,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// Until the other side closes.
void serve(int socket) {
    check(socket);
    sd_bus* bus = halvo::testing::newServerBus(socket);
    check(sd_bus_set_trusted(bus, 1));
    check(sd_bus_add_object_vtable(bus, nullptr, halvo::HelperBus::object,
                                   halvo::HelperBus::interface, table, nullptr));
    check(sd_bus_start(bus));
    for (int progress = 0; progress >= 0; progress = sd_bus_process(bus, nullptr)) {
        if (progress == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
    sd_bus_close_unref(bus);
}

}  // namespace

int main(int argc, char** argv) {
    const auto address = halvo::socketAddress(argc == 2 ? argv[1] : "");
    if (argc != 2 || !address) {
        return EXIT_FAILURE;
    }
    unlink(argv[1]);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(listener);
    // All users may connect.
    umask(0);
    check(bind(listener, halvo::generic(*address), sizeof *address));
    constexpr int backlog = 16;
    check(listen(listener, backlog));
    while (true) {
        serve(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    }
}
