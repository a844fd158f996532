#include "examples/SampleApp/Companion.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <utility>

#include "HalvoPlatform/Fatal.hpp"
#include "examples/SampleApp/LaterEnd.hpp"
#include "examples/SampleApp/SessionEnding.hpp"
#include "examples/SampleApp/Wording.hpp"

namespace halvo {
namespace {

// A system that ends a session does not wait long for each program.
constexpr Seconds farewellLimit{1};
// Long enough for a machine that is busy with the end of a session.
constexpr Seconds someBeats{10};

// The clock on a terminal goes by seconds.
constexpr Seconds second{1};

Deadline now() { return Deadline::clock::now(); }

Descriptor takeSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, signal);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    Descriptor signals(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.isOpen()) {
        fatal("Halvo cannot receive signals");
    }
    return signals;
}

}  // namespace

Companion::Companion(HelperClient& client, Display& display, RecordKeeper& records,
                     std::string appPath, Pace pace)
    : client_(client),
      display_(display),
      records_(records),
      appPath_(std::move(appPath)),
      pace_(pace),
      signals_(takeSignals()) {}

int Companion::run(const Arguments& arguments) {
    if (arguments.broughtBack) {
        display_.say("The helper opened Halvo again after it was quit.");
    }
    const auto status = arguments.commitment ? begin(*arguments.commitment) : client_.status();
    if (!status && arguments.broughtBack) {
        leavingAt_ = deadlineAfter(pace_.searching);
        isInTrouble(status.error());
        return stay();
    }
    if (!status) {
        display_.say(advice(status.error()));
        return halvo::exitStatus(status.error());
    }
    if (!status->holding) {
        display_.say(
            arguments.commitment
                ? "The helper did not take the commitment. Another person's may hold, or " +
                      appPath_ + " is not where the helper sees this app."
                : "Nothing holds. Commit yourself with: Halvo MINUTES");
        return arguments.commitment ? 1 : 0;
    }
    holds(*status);
    return stay();
}

// The status once the helper has taken the commitment; idle when it has not.
HelperClient::Result<HelperStatus> Companion::begin(Seconds span) {
    HelperStatus before;
    std::optional<WallDate> until;
    const auto decide = [&](const HelperStatus& held) -> std::optional<CommitmentSpan> {
        const WallDate started = wallNow();
        before = held;
        until = laterEnd(held, started + span);
        return until ? std::optional(CommitmentSpan{*until, started}) : std::nullopt;
    };
    const auto taken = client_.begin(appPath_, decide);
    if (!taken) {
        return std::unexpected(taken.error());
    }
    if (!*taken) {
        return HelperStatus::idle;
    }
    if (!until) {
        display_.say("What holds already ends later; the later end stays.");
        return before;
    }
    const auto status = client_.status();
    const auto granted = status ? status->until : std::nullopt;
    constexpr Seconds hair{1.5};
    if (granted && *granted < *until - hair) {
        display_.say("The helper allows no later end: a day after the first beginning.");
    }
    return status;
}

int Companion::stay() {
    Deadline nextBeat = now();
    while (true) {
        if (now() >= nextBeat) {
            nextBeat = deadlineAfter(pace_.heartbeat);
            if (beat() == Next::Leave) {
                sayIfAny(records_.end(wallNow()));
                return exitStatus_;
            }
            sayIfAny(records_.update(shown_, wallNow()));
        }
        refresh();
        const auto wake =
            display_.isTerminal() ? std::min(nextBeat, deadlineAfter(second)) : nextBeat;
        if (const int signal = waitForSignal(wake); signal != 0) {
            leave(signal);
            sayIfAny(records_.end(wallNow()));
            return 0;
        }
    }
}

Companion::Next Companion::beat() {
    if (!isClosing()) {
        wasOpenUntil_ = deadlineAfter(someBeats);
    }
    const auto alive = client_.heartbeat(/*sessionEnding=*/false, pace_.heartbeatLimit);
    if (!alive) {
        return isInTrouble(alive.error());
    }
    const auto status = client_.status(pace_.heartbeatLimit);
    if (!status) {
        return isInTrouble(status.error());
    }
    if (!std::exchange(trouble_, "").empty()) {
        display_.say("The helper is back.");
    }
    if (!status->holding) {
        return isOver();
    }
    holds(*status);
    return Next::Stay;
}

void Companion::holds(const HelperStatus& status) {
    const auto before = std::exchange(shown_, status).until;
    if (before && shown_.until) {
        shown_.until = steadyEnd(*before, *shown_.until);
    }
    // Without the helper, the app goes some time after the end that was last known.
    const Seconds left = shown_.until ? *shown_.until - wallNow() : Seconds{0};
    leavingAt_ = deadlineAfter(left + pace_.lingering);
    over_ = false;
}

Companion::Next Companion::isOver() {
    if (!std::exchange(over_, true)) {
        display_.say("Ultra Hard mode is over. Halvo ends by itself in " +
                     std::to_string(wholeSeconds(pace_.lingering)) + " seconds.");
        leavingAt_ = deadlineAfter(pace_.lingering);
    }
    shown_ = HelperStatus::idle;
    exitStatus_ = 0;
    return now() < leavingAt_ ? Next::Stay : Next::Leave;
}

Companion::Next Companion::isInTrouble(const HelperFailure& failure) {
    const std::string text = advice(failure);
    if (text != trouble_) {
        display_.say(text + " Halvo keeps trying.");
        trouble_ = text;
    }
    if (now() >= leavingAt_) {
        display_.say("Halvo ends: the helper has been away for too long.");
        exitStatus_ = halvo::exitStatus(failure);
        return Next::Leave;
    }
    return Next::Stay;
}

void Companion::refresh() {
    if (shown_.holding && shown_.until) {
        display_.show(holding(shown_), ", " + timeLeft(*shown_.until - wallNow()) + " left");
    } else {
        display_.show(holding(shown_), "");
    }
}

void Companion::sayIfAny(const std::optional<std::string>& trouble) {
    if (trouble) {
        display_.say(*trouble);
    }
}

int Companion::waitForSignal(Deadline until) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now());
    pollfd waiting{signals_.get(), POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(std::max(left.count(), std::int64_t{0})));
    signalfd_siginfo info{};
    const bool came = read(signals_.get(), &info, sizeof info) == ssize_t{sizeof info};
    return came ? static_cast<int>(info.ssi_signo) : 0;
}

void Companion::leave(int signal) {
    if (signal != SIGINT &&
        isSessionEnding(readSessionFacts(farewellLimit), now() < wasOpenUntil_)) {
        // The helper then does not open the app into a session that is going away.
        const auto told = client_.heartbeat(/*sessionEnding=*/true, farewellLimit);
        display_.say(told ? "The session is ending; the helper knows." : advice(told.error()));
    } else if (shown_.holding) {
        display_.say("Halvo ends. As long as the commitment holds the helper opens it again.");
    }
}

}  // namespace halvo
