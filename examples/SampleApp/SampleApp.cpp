// A small app that uses the helper the way the real one does. Best read from the end: main(), then
// AppSession, which sends the heartbeats, then what that needs.

#include <sysexits.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoClient/BusCall.hpp"
#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoHelperCore/HelperCommitment.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo {
namespace {

constexpr const char* helpText =
    R"(Usage: Halvo [MINUTES]

With MINUTES, commits you to keep this app for that long: above 0, up to 1440,
fractions as in 0.5. Without it, shows what you are committed to. While a
commitment holds Halvo keeps running, shows the time left, and sends the helper
a heartbeat every 2 seconds. It exits 10 seconds after the commitment has ended.

No option ends a commitment early. If one holds that ends later than MINUTES
from now, the later end stays.

Examples:
  Halvo 25        keep the app for 25 minutes
  Halvo 0.5       ... for half a minute, to try it
  Halvo           how long is it still?

Options:
  -halvoRelaunchedAfterQuit YES   the helper opened Halvo again; not for people
  --help                          show this text

Exit status: 0 when nothing holds (any more) or a signal ended it, 1 when the
helper did not take the commitment, 64 after a usage error, 65 when the helper
rejects the request, 69 when it is not running, 71 when this process has no
descriptors or memory left, 75 when the helper does not answer, 77 when it
refuses this program, 78 when this program is not in an app bundle.
)";

// A heartbeat that takes longer is given up; the next one follows at its usual time.
constexpr Seconds heartbeatLimit{2};
// At the end of a session each program has little time before SIGKILL.
constexpr Seconds announcementLimit{1};
// How recently a session must have been open for its closing to be announced: some heartbeats, on
// a machine that is busy with the logout.
constexpr Seconds recentlyOpen{10};
// The helper computes the end anew for each status; a smaller difference is not a change.
constexpr Seconds endTolerance{1.5};
// Past the year 9999. Dates from the helper are not trusted to be within the calendar.
constexpr Seconds beyondAllDates{253402300800.0};

// Carriage return, then erase the line; console_codes(4).
constexpr const char* clearLine = "\r\033[2K";

// ----------------------------------------------------------------------------------- command line

struct Arguments {
    // The length of the commitment to begin; absent: only show what holds.
    std::optional<Seconds> commitment;
    // The helper opened the app again after it was quit.
    bool isReopened = false;
    bool help = false;

    bool operator==(const Arguments&) const = default;
};

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

// `words` are the arguments without the program's name. Fails with the usage error, a sentence.
std::expected<Arguments, std::string> parseArguments(const std::vector<std::string>& words) {
    Arguments arguments;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help" || word == "-h") {
            arguments.help = true;
        } else if (word == LaunchReason::relaunchArgument) {
            ++i;
            arguments.isReopened = i < words.size() && words[i] == "YES";
            if (!arguments.isReopened) {
                return std::unexpected(word + " must be followed by YES.");
            }
        } else if (const auto minutes = parseMinutes(word); !minutes) {
            return std::unexpected("'" + word +
                                   "' is not a number of minutes above 0, up to 1440.");
        } else if (std::exchange(arguments.commitment, minutes)) {
            return std::unexpected("Only one number of minutes is allowed, not " + word +
                                   " as well.");
        }
    }
    return arguments;
}

// -------------------------------------------------------------------------------- messages

// "Fri 14:32:07" in the person's time zone.
std::string clockTime(WallDate date) {
    const Seconds since1970 = date.time_since_epoch();
    // Also true of not-a-number.
    if (!(std::chrono::abs(since1970) < beyondAllDates)) {
        return "an unknown time";
    }
    const std::time_t seconds = wholeSeconds(since1970);
    std::tm local{};
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%a %H:%M:%S", localtime_r(&seconds, &local));
    return text.data();
}

// "1:02:03", or "2:03" below an hour. Rounded up, so that 0:00 means over.
std::string timeLeft(Seconds span) {
    // Not-a-number is not positive either.
    const Seconds left = span > Seconds{0} ? std::min(span, beyondAllDates) : Seconds{0};
    const std::intmax_t seconds = wholeSeconds(std::chrono::ceil<std::chrono::seconds>(left));
    const std::intmax_t hours = seconds / 3600;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), hours > 0 ? "%02jd:%02jd" : "%jd:%02jd",
                  seconds / 60 % 60, seconds % 60);
    return (hours > 0 ? std::to_string(hours) + ":" : "") + text.data();
}

// What holds, without the time left, which changes every second.
std::string holding(const HelperStatus& status) {
    if (!status.holding) {
        return "Nothing holds";
    }
    return "Ultra Hard mode holds until " + (status.until ? clockTime(*status.until) : "?") +
           (status.locked ? ", the app is locked" : ", the app is not locked");
}

// Why the helper did not answer, and what to do about it.
std::string advice(const HelperFailure& failure) {
    // In the order of the variant.
    const std::array<const char*, std::variant_size_v<HelperFailure>> advices{
        "Is it installed, and is its service started?",
        "It serves only the app as an administrator installed it: owned by root and set-group-id. "
        "Install this bundle and start Halvo from there; the helper's log has the reason.",
        "It may be stopped, or the machine may be very busy.",
        "If its version is not that of this app, update both.",
        "Close some programs and try again.",
    };
    const auto* refused = std::get_if<HelperFailures::Refused>(&failure);
    const bool wasReplaced = refused != nullptr && refused->wasReplaced;
    return description(failure) + " " +
           (wasReplaced ? "Quit Halvo and start it again." : advices.at(failure.index()));
}

// Writes to a borrowed stream. Write errors are ignored, since the app must outlive its terminal.
class Display {
  public:
    Display(std::FILE* stream, bool isTerminal) : stream_(stream), isTerminal_(isTerminal) {}

    // Shows the state: on a terminal as one line that is overwritten, followed by `passing`, which
    // may change with every call; elsewhere as a new line whenever `state` changes.
    void show(const std::string& state, const std::string& passing) {
        const std::string text = isTerminal_ ? state + passing : state;
        if (text != std::exchange(shown_, text)) {
            write(isTerminal_ ? clearLine + text : text + "\n");
        }
    }

    // Prints `text` on a line of its own; nothing when it is empty.
    void say(const std::string& text) {
        if (!text.empty()) {
            write((isTerminal_ && !std::exchange(shown_, "").empty() ? clearLine : "") + text +
                  "\n");
        }
    }

  private:
    void write(const std::string& text) const {
        std::fputs(text.c_str(), stream_);
        std::fflush(stream_);
        std::clearerr(stream_);
    }

    std::FILE* stream_;
    bool isTerminal_;
    std::string shown_;
};

// ------------------------------------------------------------------------- the end of the session

// The string that `ask`, a function of sd-login(3), has for `key`; empty when it fails.
template <class Key>
std::string fromLogin(int (*ask)(Key, char**), Key key) {
    char* text = nullptr;
    const int result = ask(key, &text);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return result < 0 || text == nullptr ? "" : text;
}

// Whether logind is closing the session of this process, if that has a seat: a remote login that
// ends says nothing about the session in which the helper keeps the app open. Else, whether it is
// closing all sessions of the user. Reads logind's files only.
bool isClosing() {
    // To sd_session_get_seat(3) and its like, the session of the calling process.
    constexpr const char* own = nullptr;
    const std::string state =
        fromLogin(sd_session_get_seat, own).empty() ? "" : fromLogin(sd_session_get_state, own);
    return (state.empty() ? fromLogin(sd_uid_get_state, getuid()) : state) == "closing";
}

// Whether a reboot or shutdown has begun, by logind's PreparingForShutdown,
// org.freedesktop.login1(5). Waits at most `limit`; false without an answer.
bool isShuttingDown(Seconds limit) {
    sd_bus* rawBus = nullptr;
    sd_bus_message* rawRequest = nullptr;
    const bool isMade =
        sd_bus_open_system(&rawBus) >= 0 &&
        sd_bus_message_new_method_call(rawBus, &rawRequest, "org.freedesktop.login1",
                                       "/org/freedesktop/login1", "org.freedesktop.DBus.Properties",
                                       "Get") >= 0 &&
        sd_bus_message_append(rawRequest, "ss", "org.freedesktop.login1.Manager",
                              "PreparingForShutdown") >= 0;
    const BusHandle bus(rawBus);
    const BusMessage request(rawRequest);
    if (!isMade) {
        return false;
    }
    const auto reply = callWithin(deadlineAfter(limit), *bus, *request);
    int preparing = 0;
    return reply && sd_bus_message_read(reply->get(), "v", "b", &preparing) > 0 && preparing != 0;
}

// ---------------------------------------------------------------------------------------- records

// What the widgets show of the commitment in `state`, or of none; so since `since`.
WidgetSnapshot snapshotOf(const KeepAliveState& state, WallDate since) {
    using S = WidgetSnapshot;
    constexpr UUID block{{0x6F, 0x0A, 0x4B, 0x9E, 0x2D, 0x53, 0x4C, 0x6C, 0x9A, 0x57, 0x51, 0xC8,
                          0xD3, 0xE7, 0xA2, 0x10}};
    const std::string name = "Ultra Hard mode";
    const S::Look look{"red", "lock"};
    const auto& until = state.commitmentUntil;
    S snapshot;
    snapshot.writtenAt = state.updatedAt;
    snapshot.isRunning = state.ultraHard;
    snapshot.blockCount = 1;
    snapshot.horizon = state.updatedAt + std::chrono::days{1};
    snapshot.breathe = {"box", 5};
    snapshot.focusMinutes = 25;
    snapshot.blocks = {{block, name, look, S::Level::ultraHard, true, state.ultraHard}};
    if (state.ultraHard) {
        const S::Running running{name, {}, look, since, until, S::Level::ultraHard, {}, {}};
        snapshot.phases.push_back({since, S::Block{running}});
    }
    if (!state.ultraHard || until) {
        snapshot.phases.push_back({until.value_or(since), S::NothingScheduled{}});
    }
    return snapshot;
}

// Writes the two records of the app group: what the widgets show, and what decides whether the app
// is opened again when it is found gone.
class RecordKeeper {
  public:
    // For the app in the bundle `appPath`. Writes nothing yet.
    explicit RecordKeeper(std::string appPath) {
        state_.pid = getpid();
        state_.appPath = std::move(appPath);
    }

    // The app is alive and `status` holds. Writes both records when the commitment has changed
    // since the last call, and at least every half minute. Returns a sentence for the person when a
    // file cannot be written, once for as long as the reason stays the same; else an empty one.
    std::string update(const HelperStatus& status, WallDate now) {
        // Well below the two minutes of silence that count as a bypass. The wall clock may have
        // been set in either direction.
        constexpr Seconds longestSilence{30};
        const bool isSame =
            status.holding == state_.ultraHard && status.until == state_.commitmentUntil;
        if (isSame && std::chrono::abs(now - state_.updatedAt) < longestSilence) {
            return "";
        }
        if (status.holding != state_.ultraHard) {
            since_ = now;
        }
        state_.ultraHard = status.holding;
        state_.commitmentUntil = status.until;
        return write(now);
    }

    // The app exits as it should. Writes both records; returns what update() does.
    std::string end(WallDate now) {
        state_.clean = true;
        return write(now);
    }

  private:
    std::string write(WallDate now) {
        state_.updatedAt = now;
        std::string problem;
        try {
            KeepAliveState::file().write(state_);
            WidgetSnapshot::file().write(snapshotOf(state_, since_));
        } catch (const SharedFileError& error) {
            problem =
                "What the widgets show could not be written: " + std::string(error.what()) + ".";
        }
        return problem == std::exchange(problem_, problem) ? "" : problem;
    }

    // As it was written last.
    KeepAliveState state_;
    // When the present commitment, or the time without one, began.
    WallDate since_ = wallNow();
    // As it was last returned.
    std::string problem_;
};

// ------------------------------------------------------------------------------------- the app

// Blocks the signals that end the app, so that sigtimedwait(2) can wait for them, and returns them.
sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Returns the first of `signals` that comes within `span`, else zero.
int waitForSignal(const sigset_t& signals, Seconds span) {
    constexpr std::chrono::seconds second{1};
    const auto whole = std::chrono::ceil<std::chrono::nanoseconds>(span);
    const timespec limit{whole / second, (whole % second).count()};
    return std::max(sigtimedwait(&signals, nullptr, &limit), 0);
}

// The time limits of AppSession, shorter in tests.
struct Pace {
    // Well below the silence after which the helper looks whether the app runs.
    Seconds heartbeat{2};
    // From the end of the commitment to the exit, so that the last line can be read.
    Seconds lingering{10};
    // For how long an app that was opened again looks for the helper.
    Seconds searching{60};
};

// The app while it runs: begins a commitment if asked to, then sends heartbeats, shows what holds
// and writes the records. It never ends a commitment. Borrows the client and the display. Blocks
// SIGINT, SIGTERM and SIGHUP in its thread, so it is made before there is another.
class AppSession {
  public:
    // The app's bundle is at `appPath`.
    AppSession(HelperClient& client, Display& display, std::string appPath, Pace pace = {})
        : client_(client),
          display_(display),
          records_(appPath),
          appPath_(std::move(appPath)),
          pace_(pace) {}

    // Returns the exit status once nothing holds any more, a signal came, or the helper could not
    // be asked to begin with.
    int run(const Arguments& arguments) {
        if (arguments.isReopened) {
            display_.say("The helper opened Halvo again after it was quit.");
        }
        const auto status = arguments.commitment ? begin(*arguments.commitment) : client_.status();
        if (!status && !arguments.isReopened) {
            display_.say(advice(status.error()));
            return halvo::exitStatus(status.error());
        }
        if (status && !status->holding) {
            display_.say(
                arguments.commitment
                    ? "The helper did not take the commitment. Another person's may hold, or " +
                          appPath_ + " is not where the helper sees this app."
                    : "Nothing holds. Commit yourself with: Halvo MINUTES");
            return arguments.commitment ? 1 : 0;
        }
        if (status) {
            noteHolding(*status);
        } else {
            givingUpAt_ = deadlineAfter(pace_.searching);
            noteFailure(status.error());
        }
        const int exitStatus = stay();
        display_.say(records_.end(wallNow()));
        return exitStatus;
    }

  private:
    // The status once the helper has taken the commitment; idle when it has not. Everything is
    // decided in `decide`: the client sends the begin over the connection that carried the status.
    HelperClient::Result<HelperStatus> begin(Seconds span) {
        std::optional<WallDate> until;
        const auto decide = [&](const HelperStatus& held) -> std::optional<CommitmentSpan> {
            const WallDate started = wallNow();
            // A rule of the app, not of the helper: a commitment never gets shorter.
            const bool endsLater = held.holding && held.until >= started + span;
            until = endsLater ? std::nullopt : std::optional(started + span);
            return until ? std::optional(CommitmentSpan{*until, started}) : std::nullopt;
        };
        const auto taken = client_.begin(appPath_, decide);
        if (!taken) {
            return std::unexpected(taken.error());
        }
        if (!*taken) {
            return HelperStatus::idle;
        }
        const auto status = client_.status();
        if (!until) {
            display_.say("What holds already ends later; the later end stays.");
        } else if (status && status->until.value_or(*until) < *until - endTolerance) {
            display_.say("The helper allows no later end: a day after the first beginning.");
        }
        return status;
    }

    int stay() {
        Deadline nextBeat = sinceBoot();
        while (true) {
            if (sinceBoot() >= nextBeat) {
                nextBeat = deadlineAfter(pace_.heartbeat);
                if (const auto exitStatus = beat()) {
                    return *exitStatus;
                }
                display_.say(records_.update(shown_, wallNow()));
            }
            const bool isCounting = shown_.holding && shown_.until;
            display_.show(holding(shown_),
                          isCounting ? ", " + timeLeft(*shown_.until - wallNow()) + " left" : "");
            // Half a heartbeat is a second: the time left counts down in seconds.
            if (const int signal = waitForSignal(endSignals_, pace_.heartbeat / 2); signal != 0) {
                leave(signal);
                return 0;
            }
        }
    }

    // One heartbeat and its consequences. Returns the exit status when it is time to exit.
    std::optional<int> beat() {
        if (!isClosing()) {
            closingCountsUntil_ = deadlineAfter(recentlyOpen);
        }
        const auto alive = client_.heartbeat(/*sessionEnding=*/false, heartbeatLimit);
        const auto status =
            alive ? client_.status(heartbeatLimit)
                  : HelperClient::Result<HelperStatus>(std::unexpected(alive.error()));
        if (!status) {
            return noteFailure(status.error());
        }
        if (!std::exchange(failure_, "").empty()) {
            display_.say("The helper is back.");
        }
        if (status->holding) {
            noteHolding(*status);
            return std::nullopt;
        }
        display_.say("Ultra Hard mode is over. Halvo exits in " +
                     std::to_string(wholeSeconds(pace_.lingering)) + " seconds.");
        display_.say(records_.update(HelperStatus::idle, wallNow()));
        display_.show(holding(HelperStatus::idle), "");
        waitForSignal(endSignals_, pace_.lingering);
        return 0;
    }

    void noteHolding(const HelperStatus& status) {
        const auto before = std::exchange(shown_, status).until;
        if (before && shown_.until && std::chrono::abs(*shown_.until - *before) < endTolerance) {
            shown_.until = before;
        }
        // While the helper is away, the last known end decides.
        const Seconds left = shown_.until ? *shown_.until - wallNow() : Seconds{0};
        givingUpAt_ = deadlineAfter(left + pace_.lingering);
    }

    // Returns the exit status when it is time to give up.
    std::optional<int> noteFailure(const HelperFailure& failure) {
        const std::string text = advice(failure);
        if (text != std::exchange(failure_, text)) {
            display_.say(text + " Halvo keeps trying.");
        }
        if (sinceBoot() < givingUpAt_) {
            return std::nullopt;
        }
        display_.say("Halvo exits: the helper has been away for too long.");
        return halvo::exitStatus(failure);
    }

    // Announces the end of the session if this is one, so that the helper does not open the app in
    // a session that is going away. Ctrl-C never is. Nor is a session that has been closing for
    // some time: a process that is left behind keeps it in that state, and the app could be started
    // there over and over, each time only to announce the end.
    void leave(int signal) {
        const bool wasOpen = sinceBoot() < closingCountsUntil_;
        if (signal != SIGINT && (isClosing() ? wasOpen : isShuttingDown(announcementLimit))) {
            const auto told = client_.heartbeat(/*sessionEnding=*/true, announcementLimit);
            display_.say(told ? "The session is ending; the helper knows." : advice(told.error()));
        } else if (shown_.holding) {
            display_.say("Halvo exits. As long as the commitment holds the helper opens it again.");
        }
    }

    HelperClient& client_;
    Display& display_;
    RecordKeeper records_;
    std::string appPath_;
    Pace pace_;
    sigset_t endSignals_ = blockEndSignals();

    HelperStatus shown_;
    // The failure that was last shown; empty after an answer.
    std::string failure_;
    // Until when a closing session counts as one that was open just now.
    Deadline closingCountsUntil_{};
    // When the app exits without an answer from the helper.
    Deadline givingUpAt_{};
};

}  // namespace
}  // namespace halvo

int main(int argc, char** argv) {
    using namespace halvo;
    PrivateGroup::setAside();
    // The app must outlive a closed pipe.
    std::signal(SIGPIPE, SIG_IGN);
    const auto parsed = parseArguments({argv + (argc > 0 ? 1 : 0), argv + argc});
    if (!parsed) {
        std::fprintf(stderr, "Halvo: %s See Halvo --help.\n", parsed.error().c_str());
        return EX_USAGE;
    }
    if (parsed->help) {
        std::fputs(helpText, stdout);
        return EX_OK;
    }
    const auto bundle = ownBundle();
    if (!bundle) {
        std::fputs(
            "Halvo: this program must be in its app bundle, whose Info.plist names its helper.\n",
            stderr);
        return EX_CONFIG;
    }
    HelperClient client(bundle->identity);
    Display display(stdout, isatty(STDOUT_FILENO) == 1);
    return AppSession(client, display, bundle->path).run(*parsed);
}
