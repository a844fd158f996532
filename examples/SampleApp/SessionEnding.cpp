#include "examples/SampleApp/SessionEnding.hpp"

#include <systemd/sd-login.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "HalvoClient/BusCall.hpp"

namespace halvo {
namespace {

// What an sd-login function answers, which hands out memory of malloc(3).
template <class Ask>
std::optional<std::string> textOf(const Ask& ask) {
    char* raw = nullptr;
    const int result = ask(&raw);
    const std::unique_ptr<char, decltype(&std::free)> text(raw, &std::free);
    return result < 0 || text == nullptr ? std::nullopt : std::optional<std::string>(text.get());
}

// The session that this process runs in, if it is one at a screen: a remote login that ends says
// nothing about the session that the helper keeps the app open in.
std::optional<std::string> ownSession() {
    auto session = textOf([](char** text) { return sd_pid_get_session(0, text); });
    const auto seat =
        session ? textOf([&](char** text) { return sd_session_get_seat(session->c_str(), text); })
                : std::nullopt;
    return seat ? session : std::nullopt;
}

std::optional<std::string> stateOf(const std::string& session) {
    return textOf([&](char** text) { return sd_session_get_state(session.c_str(), text); });
}

std::optional<std::string> stateOfUser() {
    return textOf([](char** text) { return sd_uid_get_state(getuid(), text); });
}

SessionFacts readStates() {
    SessionFacts facts;
    if (const auto session = ownSession()) {
        facts.sessionState = stateOf(*session);
    }
    facts.userState = stateOfUser();
    return facts;
}

bool isClosing(const SessionFacts& facts) {
    return (facts.sessionState ? facts.sessionState : facts.userState) == "closing";
}

std::optional<bool> askPreparingForShutdown(Seconds limit) {
    sd_bus* rawBus = nullptr;
    if (sd_bus_open_system(&rawBus) < 0) {
        return std::nullopt;
    }
    const BusHandle bus(rawBus);
    sd_bus_message* rawRequest = nullptr;
    const int made = sd_bus_message_new_method_call(rawBus, &rawRequest, "org.freedesktop.login1",
                                                    "/org/freedesktop/login1",
                                                    "org.freedesktop.DBus.Properties", "Get");
    const BusMessage request(rawRequest);
    if (made < 0 || sd_bus_message_append(rawRequest, "ss", "org.freedesktop.login1.Manager",
                                          "PreparingForShutdown") < 0) {
        return std::nullopt;
    }
    const auto reply = callWithin(deadlineAfter(limit), *bus, *request);
    int preparing = 0;
    if (!reply || sd_bus_message_read(reply->get(), "v", "b", &preparing) <= 0) {
        return std::nullopt;
    }
    return preparing != 0;
}

}  // namespace

bool isSessionEnding(const SessionFacts& facts, bool wasOpen) {
    return (isClosing(facts) && wasOpen) || facts.preparingForShutdown == true;
}

bool isClosing() { return isClosing(readStates()); }

SessionFacts readSessionFacts(Seconds limit) {
    SessionFacts facts = readStates();
    // The files that answer the above cost nothing, a question on the bus does.
    if (!isClosing(facts)) {
        facts.preparingForShutdown = askPreparingForShutdown(limit);
    }
    return facts;
}

}  // namespace halvo
