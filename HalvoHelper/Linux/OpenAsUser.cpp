#include "HalvoHelper/OpenAsUser.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "HalvoHelper/Linux/UnitSuffix.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::OpenAsUser {
namespace {

// How long the user's manager may take to answer. One that is stuck must not keep the app closed.
constexpr std::chrono::seconds managerPatience{2};

// Connects without waiting; the kernel says at once when nobody listens.
Descriptor connectTo(const std::string& path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!socket.isOpen() || path.size() >= sizeof address.sun_path) {
        return {};
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return connect(socket.get(), generic, sizeof address) == 0 ? std::move(socket) : Descriptor{};
}

// Whether the manager is well; nothing while it has not replied.
using Answer = std::optional<bool>;

// Notes the reply in the Answer `userdata`. A connection that breaks replies too, with an error
// that sd-bus makes up.
int onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    *static_cast<Answer*>(userdata) = sd_bus_message_is_method_error(reply, nullptr) == 0;
    return 0;
}

// Serves `bus` until the reply to the ping sets `answer`, or patience ends.
void waitForAnswer(sd_bus* bus, const Answer& answer) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + managerPatience;
    while (!answer) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0) {
            return;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
        if (left.count() <= 0 ||
            (processed == 0 && sd_bus_wait(bus, static_cast<std::uint64_t>(left.count())) < 0)) {
            return;
        }
    }
}

// Whether the user's own systemd manager really answers on the socket that systemd-run(1) would
// use. A manager that is gone may leave the socket's file behind, and one that is stuck still
// accepts.
bool managerAnswers(const User& user) {
    Descriptor socket = connectTo("/run/user/" + std::to_string(user.uid) + "/systemd/private");
    sd_bus* bus = nullptr;
    if (!socket.isOpen() || sd_bus_new(&bus) < 0) {
        return false;
    }
    Answer answer;
    const int descriptor = socket.get();
    if (sd_bus_set_fd(bus, descriptor, descriptor) >= 0) {
        [[maybe_unused]] const int owned = socket.release();  // by the bus
        if (sd_bus_start(bus) >= 0 &&
            sd_bus_call_method_async(bus, nullptr, nullptr, "/org/freedesktop/systemd1",
                                     "org.freedesktop.DBus.Peer", "Ping", onReply, &answer,
                                     "") >= 0) {
            waitForAnswer(bus, answer);
        }
    }
    sd_bus_close_unref(bus);
    return answer.value_or(false);
}

}  // namespace

Command commandFor(const Request& request, const User& user) {
    const Bundle bundle(request.appPath);
    const std::string executable =
        bundle.executablePath().value_or(request.appPath + "/Contents/MacOS/Halvo");
    if (request.directly || !managerAnswers(user)) {
        return directCommand(request, user, executable);
    }
    const auto info = bundle.info();
    const auto identifier = info ? infoString(*info, "CFBundleIdentifier") : std::nullopt;
    return managerCommand(request, user, executable, identifier.value_or("app"),
                          randomUnitSuffix());
}

}  // namespace halvo::OpenAsUser
