// The app of the benchmarks: speaks with the helper, or with what answers like it, as it is told.
// One order a line on standard input, one answer a line on standard output:
//
//     reply SOCKET                  connects as soon as it can and asks for the status once;
//                                   answers with the time of the reply, CLOCK_MONOTONIC in ns
//     compare CALLS SOCKET SOCKET   asks each CALLS times, over connections that it keeps; answers
//                                   with the median of the round trips of each, in ns
//     begin SOCKET BUNDLE SECONDS   commits to BUNDLE; answers "held" or "refused"
//     close                         closes the connections that it kept; answers "closed"

#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Time.hpp"

namespace {

using Bus = std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)>;
using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

void check(int result, const char* call) {
    if (result < 0) {
        halvo::fatal(std::string(call) + ": " + std::strerror(-result));
    }
}

std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

// Tries in a tight loop: whoever is measured must not be charged for our sleep.
Bus connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    halvo::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    constexpr std::int64_t patience = 20'000'000'000;
    const std::int64_t start = now();
    while (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
           0) {
        if (now() - start > patience) {
            halvo::fatal("nobody listens at " + path);
        }
        sched_yield();
    }
    sd_bus* raw = nullptr;
    check(sd_bus_new(&raw), "sd_bus_new");
    Bus bus(raw, &sd_bus_flush_close_unref);
    check(sd_bus_set_fd(raw, socket.get(), socket.get()), "sd_bus_set_fd");
    [[maybe_unused]] const int owned = socket.release();  // by the bus
    check(sd_bus_start(raw), "sd_bus_start");
    return bus;
}

Message callMethod(sd_bus* bus, sd_bus_message* request) {
    sd_bus_message* raw = nullptr;
    check(sd_bus_call(bus, request, 0, nullptr, &raw), "sd_bus_call");
    return {raw, &sd_bus_message_unref};
}

Message newRequest(sd_bus* bus, const char* member) {
    sd_bus_message* raw = nullptr;
    check(sd_bus_message_new_method_call(bus, &raw, nullptr, halvo::HelperBus::object,
                                         halvo::HelperBus::interface, member),
          "sd_bus_message_new_method_call");
    return {raw, &sd_bus_message_unref};
}

void askStatus(sd_bus* bus) {
    const Message request = newRequest(bus, "Status");
    const Message reply = callMethod(bus, request.get());
    int holding = 0;
    int locked = 0;
    const void* until = nullptr;
    std::size_t size = 0;
    check(sd_bus_message_read(reply.get(), "b", &holding), "sd_bus_message_read");
    check(sd_bus_message_read_array(reply.get(), 'd', &until, &size), "sd_bus_message_read_array");
    check(sd_bus_message_read(reply.get(), "b", &locked), "sd_bus_message_read");
}

bool begin(sd_bus* bus, const std::string& bundle, double seconds) {
    const Message request = newRequest(bus, "Begin");
    const double started = halvo::secondsSince1970(halvo::wallNow());
    check(sd_bus_message_append(request.get(), "sdd", bundle.c_str(), started + seconds, started),
          "sd_bus_message_append");
    const Message reply = callMethod(bus, request.get());
    int held = 0;
    check(sd_bus_message_read(reply.get(), "b", &held), "sd_bus_message_read");
    return held != 0;
}

std::int64_t medianRoundTrip(sd_bus* bus, std::size_t calls) {
    std::vector<std::int64_t> spans;
    spans.reserve(calls);
    for (std::size_t i = 0; i < calls; ++i) {
        const std::int64_t start = now();
        askStatus(bus);
        spans.push_back(now() - start);
    }
    const auto middle = spans.begin() + static_cast<std::ptrdiff_t>(calls / 2);
    std::ranges::nth_element(spans, middle);
    return *middle;
}

class Connections {
  public:
    sd_bus* to(const std::string& path) {
        auto found = open_.find(path);
        if (found == open_.end()) {
            found = open_.emplace(path, connectTo(path)).first;
        }
        return found->second.get();
    }

    void close() { open_.clear(); }

  private:
    std::map<std::string, Bus> open_;
};

void obey(const std::string& order, Connections& connections) {
    if (order == "reply") {
        std::string path;
        std::cin >> path;
        const Bus bus = connectTo(path);
        askStatus(bus.get());
        std::cout << now() << std::endl;
    } else if (order == "compare") {
        std::size_t calls = 0;
        std::string first;
        std::string second;
        std::cin >> calls >> first >> second;
        const std::int64_t of = medianRoundTrip(connections.to(first), calls);
        std::cout << of << " " << medianRoundTrip(connections.to(second), calls) << std::endl;
    } else if (order == "begin") {
        std::string path;
        std::string bundle;
        double seconds = 0;
        std::cin >> path >> bundle >> seconds;
        const Bus bus = connectTo(path);
        std::cout << (begin(bus.get(), bundle, seconds) ? "held" : "refused") << std::endl;
    } else if (order == "close") {
        connections.close();
        std::cout << "closed" << std::endl;
    } else {
        halvo::fatal("unknown order: " + order);
    }
}

}  // namespace

int main() {
    Connections connections;
    std::string order;
    while (std::cin >> order) {
        obey(order, connections);
    }
}
