// A caller that makes several calls on one connection, installed beside the app like TestCaller.
//
//     Talker WORD...
//
// Each word is a method with the signature of its arguments behind a colon: "Status", "End:b",
// "Begin:sdd". The strings are "x", the numbers 1. With "!" in front nothing is to reply to it. One
// line for each: the signature of the reply, the name of the error, "sent", or "disconnected". "~2"
// waits for 2 seconds.

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

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
