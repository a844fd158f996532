// A caller that makes several calls on one connection, installed beside the app like TestCaller.
//
//     Talker WORD...
//
// Each word is a method with the signature of its arguments behind a colon: "Status", "End:b",
// "Begin:sdd". The strings are "x", the numbers 1. With "!" in front nothing is to reply to it. One
// line for each: the signature of the reply, the name of the error, "sent", or "disconnected". "~2"
// waits for 2 seconds.
//
//     Talker --at-once
//
// Sends its authentication and a status request in one write, before anything has come back, and
// says "answered" when the reply comes.

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "HalvoClient/BusCall.hpp"
#include "HalvoClient/OwnBundle.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"

namespace {

using namespace halvo;

constexpr Seconds patience{10};

struct Word {
    bool wantsReply;
    std::string method;
    std::string signature;
};

Word parse(std::string word) {
    const bool wantsReply = !word.starts_with('!');
    word.erase(0, wantsReply ? 0 : 1);
    const std::size_t colon = word.find(':');
    return {wantsReply, word.substr(0, colon),
            colon == std::string::npos ? "" : word.substr(colon + 1)};
}

BusMessage messageFor(sd_bus& bus, const Word& word) {
    sd_bus_message* raw = nullptr;
    sd_bus_message_new_method_call(&bus, &raw, nullptr, HelperBus::object, HelperBus::interface,
                                   word.method.c_str());
    for (const char type : word.signature) {
        const double real = 1;
        const std::uint64_t number = 1;
        const void* value = type == 'd' ? static_cast<const void*>(&real) : &number;
        sd_bus_message_append_basic(raw, type, type == 's' ? "x" : value);
    }
    sd_bus_message_set_expect_reply(raw, word.wantsReply ? 1 : 0);
    return BusMessage(raw);
}

std::string outcome(sd_bus& bus, const Word& word) {
    const BusMessage message = messageFor(bus, word);
    if (!word.wantsReply) {
        return sd_bus_send(&bus, message.get(), nullptr) < 0 ? "disconnected" : "sent";
    }
    const auto reply = callWithin(deadlineAfter(patience), bus, *message);
    if (!reply) {
        return "disconnected";
    }
    const sd_bus_error* error = sd_bus_message_get_error(reply->get());
    return error == nullptr ? sd_bus_message_get_signature(reply->get(), 1) : error->name;
}

void put32(std::string& bytes, std::uint32_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
}

// A status request as it goes over the wire: a header of four fixed numbers and an array of fields,
// each of which begins at a multiple of 8.
std::string statusRequest() {
    std::string fields;
    const auto add = [&fields](char code, char type, std::string_view value) {
        fields.resize((fields.size() + 7) / 8 * 8);
        fields.append({code, 1, type, 0});
        put32(fields, static_cast<std::uint32_t>(value.size()));
        fields.append(value) += '\0';
    };
    add(1, 'o', HelperBus::object);
    add(2, 's', HelperBus::interface);
    add(3, 's', "Status");
    std::string message{'l', 1, 0, 1};
    put32(message, 0);
    put32(message, 1);
    put32(message, static_cast<std::uint32_t>(fields.size()));
    message += fields;
    message.resize((message.size() + 7) / 8 * 8);
    return message;
}

int talkAtOnce(const Descriptor& socket) {
    std::string bytes(1, '\0');
    bytes += "AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n" + statusRequest();
    if (send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
        return 1;
    }
    const Deadline end = deadlineAfter(Seconds{3});
    std::string received;
    do {
        std::array<char, 4096> buffer{};
        const ssize_t count = recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        received.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        // The signature of the reply.
        if (received.find("badb") != std::string::npos) {
            std::puts("answered");
            return 0;
        }
    } while (waitBefore(end, Seconds{0.01}));
    std::puts("not answered");
    return 1;
}

}  // namespace

int main(int count, char** words) {
    PrivateGroup::setAside();
    const auto bundle = ownBundle();
    if (!bundle) {
        return 1;
    }
    const std::string path = HelperBus::socketPath(bundle->identity.helperBundleID());
    auto socket = connectAsApp(path, deadlineAfter(patience));
    if (!socket) {
        return 1;
    }
    if (count == 2 && std::string_view(words[1]) == "--at-once") {
        return talkAtOnce(*socket);
    }
    auto bus = openBus(std::move(*socket));
    if (!bus) {
        return 1;
    }
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        if (word.starts_with('~')) {
            waitBefore(deadlineAfter(patience), Seconds{std::atof(word.c_str() + 1)});
            continue;
        }
        std::puts(outcome(**bus, parse(word)).c_str());
        std::fflush(stdout);
    }
    return 0;
}
