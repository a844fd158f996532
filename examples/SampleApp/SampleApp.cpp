// A small app that uses the helper the way the real one does. From the end: main(), then the
// Companion, which keeps the helper company, and above it what that needs.

#include <sysexits.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
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
commitment holds Halvo stays, shows the time left, and tells the helper every
2 seconds that it is alive. It ends by itself 10 seconds after the commitment.

There is no word to end a commitment early. If one holds that ends later than
MINUTES from now, the later end stays.

Examples:
  Halvo 25        keep the app for 25 minutes
  Halvo 0.5       ... for half a minute, to try it
  Halvo           how long is it still?

Other words:
  -halvoRelaunchedAfterQuit YES   the helper opened Halvo again; not for people
  --help                          show this text

Exit status: 0 when nothing holds (any more) or a signal told it to end,
1 when the helper did not take the commitment, 64 for wrong words, 65 when the
helper rejects the request, 69 when it is not running, 71 when this process has
no descriptors or memory left, 75 when it does not answer, 77 when it refuses
this program, 78 when this program lies in no app bundle.
)";

// A helper that is slower than this is tried again at the next heartbeat.
constexpr Seconds heartbeatLimit{2};
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

// ----------------------------------------------------------------------------------- command line

struct Arguments {
    // How long a commitment to begin; without it the app only shows what holds.
    std::optional<Seconds> commitment;
    // The helper opened the app again after it was quit.
    bool broughtBack = false;
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

// The words that follow the program's own name. Fails with what is wrong with them, as a sentence.
std::expected<Arguments, std::string> parseArguments(const std::vector<std::string>& words) {
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

// ------------------------------------------------------------------------- what the person is told

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

// "1:02:03", or "2:03" below an hour. Counts the second that has begun, so that 0:00 means over.
std::string timeLeft(Seconds span) {
    // Written so that not-a-number means none.
    const Seconds left = span > Seconds{0} ? std::min(span, beyondAllDates) : Seconds{0};
    const std::chrono::hh_mm_ss time(std::chrono::ceil<std::chrono::seconds>(left));
    std::array<char, 64> text{};
    const auto hours = static_cast<int>(time.hours().count());
    const auto minutes = static_cast<int>(time.minutes().count());
    const auto seconds = static_cast<int>(time.seconds().count());
    hours > 0 ? std::snprintf(text.data(), text.size(), "%d:%02d:%02d", hours, minutes, seconds)
              : std::snprintf(text.data(), text.size(), "%d:%02d", minutes, seconds);
    return text.data();
}

// What holds, without the time left, which changes all the time.
std::string holding(const HelperStatus& status) {
    if (!status.holding) {
        return "Nothing holds";
    }
    return "Ultra Hard mode holds until " + (status.until ? clockTime(*status.until) : "?") +
           (status.locked ? ", the app is locked" : ", the app is not locked");
}

// What is the matter with the helper and what to do about it.
std::string advice(const HelperFailure& failure) {
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
    const auto* refused = std::get_if<HelperFailures::Refused>(&failure);
    const bool wasReplaced = refused != nullptr && refused->wasReplaced;
    return description(failure) + " " +
           (wasReplaced ? "Quit Halvo and start it anew." : advices.at(failure.index()));
}

// Borrows a stream. A write that fails is ignored, since the app must outlive its terminal.
class Display {
  public:
    Display(std::FILE* stream, bool isTerminal) : stream_(stream), isTerminal_(isTerminal) {}

    [[nodiscard]] bool isTerminal() const { return isTerminal_; }

    // Shows how things stand: on a terminal as one line that is written over, with `passing`, which
    // may change with every call; elsewhere as a new line each time that `lasting` changes.
    void show(const std::string& lasting, const std::string& passing) {
        const std::string text = isTerminal_ ? lasting + passing : lasting;
        if (text != std::exchange(shown_, text)) {
            write(isTerminal_ ? clearLine + text : text + "\n");
        }
    }

    // Says something once, on a line of its own that stays. An empty text is left out.
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

// What an sd-login function answers, which hands out memory of malloc(3).
template <class Ask>
std::optional<std::string> textOf(const Ask& ask) {
    char* raw = nullptr;
    const int result = ask(&raw);
    const std::unique_ptr<char, decltype(&std::free)> text(raw, &std::free);
    return result < 0 || text == nullptr ? std::nullopt : std::optional<std::string>(text.get());
}

// For what logind says of the session and of the person, each absent where it cannot be learned.
bool isClosing(const std::optional<std::string>& session,
               const std::optional<std::string>& person) {
    return (session ? session : person) == "closing";
}

// Whether the session of this process is closing, if that is one at a screen: a remote login that
// ends says nothing about the session that the helper keeps the app open in. Without one, whether
// that is all that the person is doing. Reads logind's files only, sd-login(3).
bool isClosing() {
    const auto session = textOf([](char** text) { return sd_pid_get_session(0, text); });
    const auto of = [&session](auto ask) {
        return textOf([&](char** text) { return ask(session->c_str(), text); });
    };
    return isClosing(session && of(sd_session_get_seat) ? of(sd_session_get_state) : std::nullopt,
                     textOf([](char** text) { return sd_uid_get_state(getuid(), text); }));
}

// Whether a reboot or shutdown has begun. Asks logind, org.freedesktop.login1(5), and waits for it
// at most `limit`; false when it does not say.
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

// ---------------------------------------------------------------------------------------- records

// What the widgets show of a commitment that this app knows of since `since`, or of none.
WidgetSnapshot snapshotOf(const HelperStatus& status, WallDate since, WallDate now) {
    using S = WidgetSnapshot;
    constexpr UUID block{{0x6F, 0x0A, 0x4B, 0x9E, 0x2D, 0x53, 0x4C, 0x6C, 0x9A, 0x57, 0x51, 0xC8,
                          0xD3, 0xE7, 0xA2, 0x10}};
    const std::string name = "Ultra Hard mode";
    const S::Look look{"red", "lock"};
    S snapshot;
    snapshot.writtenAt = now;
    snapshot.isRunning = status.holding;
    snapshot.blockCount = 1;
    snapshot.horizon = now + std::chrono::days{1};
    snapshot.breathe = {"box", 5};
    snapshot.focusMinutes = 25;
    snapshot.blocks = {{block, name, look, S::Level::ultraHard, true, status.holding}};
    if (status.holding) {
        const S::Running running{name, {}, look, since, status.until, S::Level::ultraHard, {}, {}};
        snapshot.phases.push_back({since, S::Block{running}});
    }
    if (!status.holding || status.until) {
        snapshot.phases.push_back({status.until.value_or(since), S::NothingScheduled{}});
    }
    return snapshot;
}

// Keeps the records that the app's other processes read: what its widgets show, and what is to be
// done when it is found gone.
class RecordKeeper {
  public:
    // For the app in the bundle `appPath`. Writes nothing yet.
    RecordKeeper(SharedFile<KeepAliveState> keepAlive, SharedFile<WidgetSnapshot> widgets,
                 std::string appPath)
        : keepAlive_(std::move(keepAlive)),
          widgets_(std::move(widgets)),
          appPath_(std::move(appPath)) {}

    // The app lives, and the helper says `status`. Writes both when something has changed since
    // the last call, and at least every half minute. Gives a sentence for the person when a file
    // cannot be written, once for as long as the reason stays the same; else an empty one.
    std::string update(const HelperStatus& status, WallDate now) {
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
        return write(now, /*clean=*/false);
    }

    // The app ends as it should. As update(), if that ever wrote anything.
    std::string end(WallDate now) { return writtenAt_ ? write(now, /*clean=*/true) : ""; }

  private:
    std::string write(WallDate now, bool clean) {
        writtenAt_ = now;
        std::string problem;
        try {
            keepAlive_.write({.pid = getpid(),
                              .appPath = appPath_,
                              .clean = clean,
                              .commitmentUntil = status_.until,
                              .ultraHard = status_.holding,
                              .updatedAt = now});
            widgets_.write(snapshotOf(status_, since_, now));
        } catch (const SharedFileError& error) {
            problem =
                "What the widgets show could not be written: " + std::string(error.what()) + ".";
        }
        return problem == std::exchange(trouble_, problem) ? "" : problem;
    }

    SharedFile<KeepAliveState> keepAlive_;
    SharedFile<WidgetSnapshot> widgets_;
    std::string appPath_;

    // What was written last, and when; absent when nothing was yet.
    HelperStatus status_;
    std::optional<WallDate> writtenAt_;
    // Since when something holds, or nothing.
    WallDate since_;
    // What was last said.
    std::string trouble_;
};

// ------------------------------------------------------------------------------------ the
// companion

Deadline now() { return sinceBoot(); }

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

// How fast the app lives.
struct Pace {
    // Well below the silence after which the helper looks whether the app runs.
    Seconds heartbeat{2};
    // How long the app stays when nothing holds any more, so that what it says can be read.
    Seconds lingering{10};
    // How long it looks for a helper of which it knows nothing yet.
    Seconds searching{60};
};

// The app while it runs: begins a commitment if asked to, then sends heartbeats, shows what holds
// and keeps the records. It has no way to end a commitment. Borrows the client, the display and the
// records.
class Companion {
  public:
    Companion(HelperClient& client, Display& display, RecordKeeper& records, std::string appPath,
              Pace pace = {})
        : client_(client),
          display_(display),
          records_(records),
          appPath_(std::move(appPath)),
          pace_(pace) {}

    // Returns the process's exit status once nothing holds any more, a signal came, or the helper
    // could not be asked to begin with. Blocks SIGINT, SIGTERM and SIGHUP in its thread, so it is
    // called before there is another.
    int run(const Arguments& arguments) {
        const sigset_t signals = endSignals();
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        if (arguments.broughtBack) {
            display_.say("The helper opened Halvo again after it was quit.");
        }
        const auto status = arguments.commitment ? begin(*arguments.commitment) : client_.status();
        if (!status && !arguments.broughtBack) {
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
            holds(*status);
        } else {
            leavingAt_ = deadlineAfter(pace_.searching);
            isInTrouble(status.error());
        }
        const int exitStatus = stay();
        display_.say(records_.end(wallNow()));
        return exitStatus;
    }

  private:
    // The status once the helper has taken the commitment; idle when it has not. What to ask for is
    // decided in here only: the client asks what holds and sends the begin over one connection.
    HelperClient::Result<HelperStatus> begin(Seconds span) {
        std::optional<WallDate> until;
        const auto decide = [&](const HelperStatus& held) -> std::optional<CommitmentSpan> {
            const WallDate started = wallNow();
            // The rule that the app keeps for the person: a commitment never gets shorter. The
            // helper itself would take an earlier end.
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
        } else if (status && status->until.value_or(*until) < *until - hair) {
            display_.say("The helper allows no later end: a day after the first beginning.");
        }
        return status;
    }

    int stay() {
        Deadline nextBeat = now();
        while (true) {
            if (now() >= nextBeat) {
                nextBeat = deadlineAfter(pace_.heartbeat);
                if (const auto exitStatus = beat()) {
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
                return 0;
            }
        }
    }

    // One heartbeat, and what follows from its answer: the exit status when it is time to end.
    std::optional<int> beat() {
        if (!isClosing()) {
            wasOpenUntil_ = deadlineAfter(someBeats);
        }
        const auto alive = client_.heartbeat(/*sessionEnding=*/false, heartbeatLimit);
        const auto status =
            alive ? client_.status(heartbeatLimit)
                  : HelperClient::Result<HelperStatus>(std::unexpected(alive.error()));
        if (!status) {
            return isInTrouble(status.error());
        }
        if (!std::exchange(trouble_, "").empty()) {
            display_.say("The helper is back.");
        }
        if (status->holding) {
            holds(*status);
            return std::nullopt;
        }
        display_.say("Ultra Hard mode is over. Halvo ends by itself in " +
                     std::to_string(wholeSeconds(pace_.lingering)) + " seconds.");
        display_.say(records_.update(HelperStatus::idle, wallNow()));
        display_.show(holding(HelperStatus::idle), "");
        waitForSignal(deadlineAfter(pace_.lingering));
        return 0;
    }

    void holds(const HelperStatus& status) {
        const auto before = std::exchange(shown_, status).until;
        if (before && shown_.until && std::chrono::abs(*shown_.until - *before) < hair) {
            shown_.until = before;
        }
        // Without the helper, the app goes some time after the end that was last known.
        const Seconds left = shown_.until ? *shown_.until - wallNow() : Seconds{0};
        leavingAt_ = deadlineAfter(left + pace_.lingering);
    }

    std::optional<int> isInTrouble(const HelperFailure& failure) {
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

    // Announces the end of the session where this is one, so that the helper does not open the app
    // into a session that is going away. A session that was closing some seconds ago already does
    // not count: a program that is left behind keeps it so, and the app could be started in it
    // again and again only to have its end announced. Ctrl-C is never the session's end.
    void leave(int signal) {
        const bool wasOpen = now() < wasOpenUntil_;
        if (signal != SIGINT && (isClosing() ? wasOpen : isShuttingDown(farewellLimit))) {
            const auto told = client_.heartbeat(/*sessionEnding=*/true, farewellLimit);
            display_.say(told ? "The session is ending; the helper knows." : advice(told.error()));
        } else if (shown_.holding) {
            display_.say("Halvo ends. As long as the commitment holds the helper opens it again.");
        }
    }

    HelperClient& client_;
    Display& display_;
    RecordKeeper& records_;
    std::string appPath_;
    Pace pace_;

    HelperStatus shown_;
    // What is the matter with the helper, as it was last said.
    std::string trouble_;
    // For how long a session that closes counts as one that was open just now.
    Deadline wasOpenUntil_{};
    // When the app ends by itself, unless the helper says that something holds.
    Deadline leavingAt_{};
};

}  // namespace
}  // namespace halvo

int main(int count, char** arguments) {
    using namespace halvo;
    PrivateGroup::setAside();
    // The app must outlive the reader of its output.
    std::signal(SIGPIPE, SIG_IGN);
    const auto parsed = parseArguments({arguments + (count > 0 ? 1 : 0), arguments + count});
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
            "Halvo: this program must lie in its app bundle, whose Info.plist names its helper.\n",
            stderr);
        return EX_CONFIG;
    }
    HelperClient client(bundle->identity);
    Display display(stdout, isatty(STDOUT_FILENO) == 1);
    RecordKeeper records(KeepAliveState::file(), WidgetSnapshot::file(), bundle->path);
    return Companion(client, display, records, bundle->path).run(*parsed);
}
