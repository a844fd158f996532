// What the app does: the command line, what it says, what it learns from the system and leaves to
// it, and how it keeps the helper company.

#include "examples/SampleApp/SampleApp.hpp"

#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <utility>
#include <variant>

#include "HalvoHelperCore/HelperCommitment.hpp"
#include "HalvoShared/LaunchReason.hpp"

namespace halvo {
namespace {

// A system that ends a session does not wait long for each program.
constexpr Seconds farewellLimit{1};
// Long enough for a machine that is busy with the end of a session.
constexpr Seconds someBeats{10};
// The helper works an end out anew each time and may differ by this, which is no change.
constexpr Seconds hair{1.5};
// Past the year 9999. What a helper answers is shown, not believed.
constexpr Seconds beyondAllDates{253402300800.0};

// Back to the start of the line, and erase it; console_codes(4).
constexpr const char* clearLine = "\r\033[2K";

Deadline now() { return sinceBoot(); }

std::optional<Seconds> parseMinutes(const std::string& word) {
    // Plain decimals only: strtod(3) would also take "inf", "0x1p3", "1e3" and "5.".
    const bool isPlain = word.find_first_not_of("0123456789.") == std::string::npos &&
                         !word.starts_with('.') && !word.ends_with('.');
    char* end = nullptr;
    const Seconds span = Seconds{60} * std::strtod(word.c_str(), &end);
    const bool isTaken =
        isPlain && *end == '\0' && span > Seconds{0} && span <= HelperCommitment::maximum;
    return isTaken ? std::optional(span) : std::nullopt;
}

// "Fri 14:32:07" in the person's time zone.
std::string clockTime(WallDate date) {
    const Seconds since1970 = date.time_since_epoch();
    // Written so that not-a-number is none.
    if (!(std::chrono::abs(since1970) < beyondAllDates)) {
        return "an unknown time";
    }
    const std::time_t seconds = wholeSeconds(since1970);
    std::tm local{};
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%a %H:%M:%S", localtime_r(&seconds, &local));
    return text.data();
}

sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

// Waits for a signal until `until`. Zero when none came.
int waitForSignal(Deadline until) {
    const sigset_t signals = endSignals();
    const auto left = std::max(std::chrono::ceil<std::chrono::nanoseconds>(until - now()),
                               std::chrono::nanoseconds{0});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec span{seconds.count(), (left - seconds).count()};
    return std::max(sigtimedwait(&signals, nullptr, &span), 0);
}

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
    const auto of = [&session](auto ask) {
        return textOf([&](char** text) { return ask(session->c_str(), text); });
    };
    return session && of(sd_session_get_seat) ? of(sd_session_get_state) : std::nullopt;
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
        snapshot.phases.push_back({since, S::Block{{.name = name,
                                                    .names = {},
                                                    .look = look,
                                                    .start = since,
                                                    .end = status.until,
                                                    .level = S::Level::ultraHard,
                                                    .listNames = {},
                                                    .unlock = {}}}});
    }
    if (!status.holding || status.until) {
        snapshot.phases.push_back({status.until.value_or(since), S::NothingScheduled{}});
    }
    return snapshot;
}

}  // namespace

std::expected<Arguments, std::string> parseArguments(std::span<const std::string> words) {
    Arguments arguments;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help" || word == "-h") {
            arguments.help = true;
        } else if (word == LaunchReason::relaunchArgument) {
            ++i;
            arguments.broughtBack = i < words.size() && words[i] == "YES";
            if (!arguments.broughtBack) {
                return std::unexpected(word + " is followed by YES and nothing else.");
            }
        } else if (const auto minutes = parseMinutes(word); !minutes) {
            return std::unexpected("'" + word + "' is no number of minutes above 0, up to 1440.");
        } else if (std::exchange(arguments.commitment, minutes)) {
            return std::unexpected("One number of minutes is enough: there is " + word + " too.");
        }
    }
    return arguments;
}

std::optional<WallDate> laterEnd(const HelperStatus& held, WallDate wanted) {
    const bool keep = held.holding && held.until && *held.until >= wanted;
    return keep ? std::nullopt : std::optional(wanted);
}

std::string timeLeft(Seconds span) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    // Written so that not-a-number means none.
    const Seconds left = span > Seconds{0} ? std::min(span, beyondAllDates) : Seconds{0};
    const std::intmax_t seconds = wholeSeconds(Seconds{std::ceil(left.count())});
    std::array<char, 64> text{};
    if (seconds < hour) {
        std::snprintf(text.data(), text.size(), "%jd:%02jd", seconds / minute, seconds % minute);
    } else {
        std::snprintf(text.data(), text.size(), "%jd:%02jd:%02jd", seconds / hour,
                      seconds % hour / minute, seconds % minute);
    }
    return text.data();
}

std::string holding(const HelperStatus& status) {
    if (!status.holding) {
        return "Nothing holds";
    }
    return "Ultra Hard mode holds until " + (status.until ? clockTime(*status.until) : "?") +
           (status.locked ? ", the app is locked" : ", the app is not locked");
}

std::string advice(const HelperFailure& failure) {
    namespace F = HelperFailures;
    // One for each kind of failure, in the order of the variant.
    const std::array<const char*, std::variant_size_v<HelperFailure>> advices{
        "Is it installed, and is its service started?",
        "It serves only the app as an administrator installed it: owned by root and set-group-id. "
        "Install this bundle, start Halvo from there, and look into the helper's log for the "
        "reason.",
        "It may be stopped, or the machine may be very busy.",
        "If its version is not that of this app, update both.",
        "Close some programs and try again.",
    };
    const auto* refused = std::get_if<F::Refused>(&failure);
    const bool wasReplaced = refused != nullptr && refused->wasReplaced;
    return description(failure) + " " +
           (wasReplaced ? "Quit Halvo and start it anew." : advices.at(failure.index()));
}

void Display::show(const std::string& lasting, const std::string& passing) {
    const std::string text = terminal_ ? lasting + passing : lasting;
    if (text != shown_) {
        write(terminal_ ? clearLine + text : text + "\n");
        shown_ = text;
    }
}

void Display::say(const std::string& text) {
    if (!text.empty()) {
        write((terminal_ && !std::exchange(shown_, "").empty() ? clearLine : "") + text + "\n");
    }
}

void Display::write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream_);
    std::fflush(stream_);
    std::clearerr(stream_);
}

bool isClosing(const std::optional<std::string>& session,
               const std::optional<std::string>& person) {
    return (session ? session : person) == "closing";
}

bool isClosing() {
    return isClosing(stateOfSession(),
                     textOf([](char** text) { return sd_uid_get_state(getuid(), text); }));
}

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

Companion::Companion(HelperClient& client, Display& display, RecordKeeper& records,
                     std::string appPath, Pace pace)
    : client_(client),
      display_(display),
      records_(records),
      appPath_(std::move(appPath)),
      pace_(pace) {
    const sigset_t signals = endSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

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

// The status once the helper has taken the commitment; idle when it has not. What to ask for is
// decided in here only: the client asks what holds and sends the begin over one connection.
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
            if (const auto exitStatus = beat()) {
                display_.say(records_.end(wallNow()));
                return *exitStatus;
            }
            display_.say(records_.update(shown_, wallNow()));
        }
        const bool isCounting = shown_.holding && shown_.until;
        display_.show(holding(shown_),
                      isCounting ? ", " + timeLeft(*shown_.until - wallNow()) + " left" : "");
        // The clock on a terminal goes by seconds.
        const auto wake =
            display_.isTerminal() ? std::min(nextBeat, deadlineAfter(Seconds{1})) : nextBeat;
        if (const int signal = waitForSignal(wake); signal != 0) {
            leave(signal);
            display_.say(records_.end(wallNow()));
            return 0;
        }
    }
}

// One heartbeat, and what follows from its answer: the exit status when it is time to end.
std::optional<int> Companion::beat() {
    if (!isClosing()) {
        wasOpenUntil_ = deadlineAfter(someBeats);
    }
    const auto alive = client_.heartbeat(/*sessionEnding=*/false, pace_.heartbeatLimit);
    const auto status = alive ? client_.status(pace_.heartbeatLimit)
                              : HelperClient::Result<HelperStatus>(std::unexpected(alive.error()));
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
    return std::nullopt;
}

void Companion::holds(const HelperStatus& status) {
    const auto before = std::exchange(shown_, status).until;
    if (before && shown_.until && std::chrono::abs(*shown_.until - *before) < hair) {
        shown_.until = before;
    }
    // Without the helper, the app goes some time after the end that was last known.
    const Seconds left = shown_.until ? *shown_.until - wallNow() : Seconds{0};
    leavingAt_ = deadlineAfter(left + pace_.lingering);
    over_ = false;
}

std::optional<int> Companion::isOver() {
    if (!std::exchange(over_, true)) {
        display_.say("Ultra Hard mode is over. Halvo ends by itself in " +
                     std::to_string(wholeSeconds(pace_.lingering)) + " seconds.");
        leavingAt_ = deadlineAfter(pace_.lingering);
    }
    shown_ = HelperStatus::idle;
    return now() < leavingAt_ ? std::nullopt : std::optional(0);
}

std::optional<int> Companion::isInTrouble(const HelperFailure& failure) {
    const std::string text = advice(failure);
    if (text != std::exchange(trouble_, text)) {
        display_.say(text + " Halvo keeps trying.");
    }
    if (now() < leavingAt_) {
        return std::nullopt;
    }
    display_.say("Halvo ends: the helper has been away for too long.");
    return halvo::exitStatus(failure);
}

// Announces the end of the session where this is one, so that the helper does not open the app into
// a session that is going away. A session that was closing some seconds ago already does not count:
// a program that is left behind keeps it so, and the app could be started in it again and again
// only to have its end announced. Ctrl-C is never the session's end.
void Companion::leave(int signal) {
    const bool wasOpen = now() < wasOpenUntil_;
    if (signal != SIGINT && (isClosing() ? wasOpen : isShuttingDown(farewellLimit))) {
        const auto told = client_.heartbeat(/*sessionEnding=*/true, farewellLimit);
        display_.say(told ? "The session is ending; the helper knows." : advice(told.error()));
    } else if (shown_.holding) {
        display_.say("Halvo ends. As long as the commitment holds the helper opens it again.");
    }
}

}  // namespace halvo
