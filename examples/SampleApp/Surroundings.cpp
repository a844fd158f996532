// What the app learns from the system around it, and what it leaves to it.

#include <systemd/sd-login.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "examples/SampleApp/SampleApp.hpp"

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

// The state of the session that this process runs in, if that is one at a screen: a remote login
// that ends says nothing about the session that the helper keeps the app open in.
std::optional<std::string> stateOfSession() {
    const auto session = textOf([](char** text) { return sd_pid_get_session(0, text); });
    if (!session ||
        !textOf([&](char** text) { return sd_session_get_seat(session->c_str(), text); })) {
        return std::nullopt;
    }
    return textOf([&](char** text) { return sd_session_get_state(session->c_str(), text); });
}

std::optional<std::string> stateOfUser() {
    return textOf([](char** text) { return sd_uid_get_state(getuid(), text); });
}

// What the widgets show of a commitment that this app knows of since `since`, or of none.
WidgetSnapshot snapshotOf(const HelperStatus& status, WallDate since, WallDate now) {
    using S = WidgetSnapshot;
    constexpr Seconds aDay{86400};
    constexpr UUID block{{0x6F, 0x0A, 0x4B, 0x9E, 0x2D, 0x53, 0x4C, 0x6C, 0x9A, 0x57, 0x51, 0xC8,
                          0xD3, 0xE7, 0xA2, 0x10}};
    const std::string name = "Ultra Hard mode";
    const S::Look look{"red", "lock"};
    S snapshot;
    snapshot.writtenAt = now;
    snapshot.isRunning = status.holding;
    snapshot.blockCount = 1;
    snapshot.horizon = now + aDay;
    snapshot.breathe = {"box", 5};
    snapshot.focusMinutes = 25;
    snapshot.blocks = {{block, name, look, S::Level::ultraHard, true, status.holding}};
    if (status.holding) {
        const S::Running running{name,
                                 {},
                                 look,
                                 since,
                                 status.until,
                                 S::Level::ultraHard,
                                 /*listNames=*/{},
                                 /*unlock=*/{}};
        snapshot.phases.push_back({since, S::Block{running}});
    }
    if (!status.holding || status.until) {
        snapshot.phases.push_back({status.until.value_or(since), S::NothingScheduled{}});
    }
    return snapshot;
}

}  // namespace

bool isClosing(const std::optional<std::string>& session,
               const std::optional<std::string>& person) {
    return (session ? session : person) == "closing";
}

bool isClosing() { return isClosing(stateOfSession(), stateOfUser()); }

bool isShuttingDown(Seconds limit) {
    sd_bus* rawBus = nullptr;
    if (sd_bus_open_system(&rawBus) < 0) {
        return false;
    }
    const BusHandle bus(rawBus);
    sd_bus_message* rawRequest = nullptr;
    const int made = sd_bus_message_new_method_call(rawBus, &rawRequest, "org.freedesktop.login1",
                                                    "/org/freedesktop/login1",
                                                    "org.freedesktop.DBus.Properties", "Get");
    const BusMessage request(rawRequest);
    if (made < 0 || sd_bus_message_append(rawRequest, "ss", "org.freedesktop.login1.Manager",
                                          "PreparingForShutdown") < 0) {
        return false;
    }
    const auto reply = callWithin(deadlineAfter(limit), *bus, *request);
    int preparing = 0;
    return reply && sd_bus_message_read(reply->get(), "v", "b", &preparing) > 0 && preparing != 0;
}

RecordKeeper::RecordKeeper(SharedFile<KeepAliveState> keepAlive, SharedFile<WidgetSnapshot> widgets,
                           const std::string& appPath)
    : keepAliveFile_(std::move(keepAlive)), widgetsFile_(std::move(widgets)) {
    keepAlive_.pid = getpid();
    keepAlive_.appPath = appPath;
}

std::string RecordKeeper::update(const HelperStatus& status, WallDate now) {
    // Well below the two minutes of silence that count as a bypass.
    constexpr Seconds longestSilence{30};
    // A clock that was set back must not keep the record from being written.
    const bool isOld = !writtenAt_ || now - *writtenAt_ >= longestSilence || now < *writtenAt_;
    if (!isOld && status == status_) {
        return "";
    }
    if (!writtenAt_ || status.holding != status_.holding) {
        since_ = now;
    }
    status_ = status;
    keepAlive_.ultraHard = status.holding;
    keepAlive_.commitmentUntil = status.until;
    return write(now);
}

std::string RecordKeeper::end(WallDate now) {
    keepAlive_.clean = true;
    return writtenAt_ ? write(now) : "";
}

std::string RecordKeeper::write(WallDate now) {
    writtenAt_ = now;
    keepAlive_.updatedAt = now;
    std::string trouble;
    try {
        keepAliveFile_.write(keepAlive_);
        widgetsFile_.write(snapshotOf(status_, since_, now));
    } catch (const SharedFileError& error) {
        trouble = "What the widgets show could not be written: " + std::string(error.what()) + ".";
    }
    return trouble == std::exchange(trouble_, trouble) ? "" : trouble;
}

}  // namespace halvo
