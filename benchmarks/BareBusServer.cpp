// The least that answers a status call over peer-to-peer D-Bus: sd-bus and nothing else. It checks
// no caller, keeps nothing, and does not end by itself. Usage: BareBusServer SOCKET

#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

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

// libsystemd 252 needs it; see BusConnection in the helper. A one-shot event source would be less
// to run, but nothing runs less often than this.
int onConnected(sd_bus_message* signal, void*, sd_bus_error*) {
    sd_event_add_defer(
        sd_bus_get_event(sd_bus_message_get_bus(signal)), nullptr,
        [](sd_event_source*, void* bus) {
            while (sd_bus_process(static_cast<sd_bus*>(bus), nullptr) > 0) {
            }
            return 0;
        },
        sd_bus_message_get_bus(signal));
    return 0;
}

int onDisconnected(sd_bus_message* signal, void*, sd_bus_error*) {
    sd_bus_close(sd_bus_message_get_bus(signal));
    return 0;
}

int onIncoming(sd_event_source* source, int listening, std::uint32_t, void*) {
    const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    check(socket);
    sd_bus* bus = halvo::testing::newServerBus(socket);
    check(sd_bus_set_trusted(bus, 1));
    check(sd_bus_set_connected_signal(bus, 1));
    check(sd_bus_add_object_vtable(bus, nullptr, halvo::HelperBus::object,
                                   halvo::HelperBus::interface, table, nullptr));
    const auto match = [bus](const char* member, sd_bus_message_handler_t handler) {
        constexpr const char* local = "org.freedesktop.DBus.Local";
        check(sd_bus_match_signal_async(bus, nullptr, local, "/org/freedesktop/DBus/Local", local,
                                        member, handler, nullptr, nullptr));
    };
    match("Connected", onConnected);
    match("Disconnected", onDisconnected);
    check(sd_bus_start(bus));
    check(sd_bus_attach_event(bus, sd_event_source_get_event(source), 0));
    return 0;
}

}  // namespace

int main(int count, char** words) {
    const auto address = halvo::socketAddress(count == 2 ? words[1] : "");
    if (count != 2 || !address) {
        return EXIT_FAILURE;
    }
    unlink(words[1]);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(socket);
    // Everybody may connect.
    umask(0);
    check(bind(socket, halvo::generic(*address), sizeof *address));
    constexpr int backlog = 16;
    check(listen(socket, backlog));
    sd_event* loop = nullptr;
    check(sd_event_default(&loop));
    check(sd_event_add_io(loop, nullptr, socket, EPOLLIN, onIncoming, nullptr));
    return sd_event_loop(loop);
}
