// What the sample app does, apart from the process that it runs in. Each object belongs to one
// thread.
#pragma once

#include <cstdio>
#include <expected>
#include <optional>
#include <span>
#include <string>

#include "HalvoClient/BusCall.hpp"
#include "HalvoClient/HelperClient.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo {

struct Arguments {
    // How long a commitment to begin; without it the app only shows what holds.
    std::optional<Seconds> commitment;
    // The helper opened the app again after it was quit.
    bool broughtBack = false;
    bool help = false;

    bool operator==(const Arguments&) const = default;
};

// The words that follow the program's own name. Fails with what is wrong with them, as a sentence.
std::expected<Arguments, std::string> parseArguments(std::span<const std::string> words);

// The rule that the app keeps for the person: a commitment never gets shorter. The end to ask the
// helper for when `held` is what holds and the person wants `wanted`; nothing when what holds ends
// no earlier. The helper itself would take an earlier end.
std::optional<WallDate> laterEnd(const HelperStatus& held, WallDate wanted);

// "1:02:03", or "2:03" below an hour. Counts the second that has begun, so that 0:00 means over.
std::string timeLeft(Seconds span);

// What holds, without the time left, which changes all the time. The end in the person's time zone.
std::string holding(const HelperStatus& status);

// What is the matter with the helper and what to do about it.
std::string advice(const HelperFailure& failure);

// Whether the session of this process is closing; for a process that belongs to no session at a
// screen, whether that is all that the person is doing. Reads logind's files only, sd-login(3).
bool isClosing();

// The same for what logind says of the session and of the person, each absent where it cannot be
// learned.
bool isClosing(const std::optional<std::string>& session, const std::optional<std::string>& person);

// Whether a reboot or shutdown has begun. Asks logind, org.freedesktop.login1(5), and waits for it
// at most `limit`; false when it does not say.
bool isShuttingDown(Seconds limit);

// Where the app shows how things stand. Borrows a stream; a write that fails is ignored, since the
// app must outlive its terminal.
class Display {
  public:
    // On a terminal the state of things is one line that is written over; elsewhere it is one new
    // line each time it changes.
    Display(std::FILE* stream, bool terminal) : stream_(stream), terminal_(terminal) {}

    [[nodiscard]] bool isTerminal() const { return terminal_; }

    // Shows how things stand: `lasting`, followed on a terminal by `passing`, which may change with
    // every call.
    void show(const std::string& lasting, const std::string& passing);

    // Says something once, on a line of its own that stays. An empty text is left out.
    void say(const std::string& text);

  private:
    void write(const std::string& text);

    std::FILE* stream_;
    bool terminal_;
    std::string shown_;
};

// Keeps the records that the app's other processes read: what its widgets show, and what is to be
// done when it is found gone.
class RecordKeeper {
  public:
    // For the app in the bundle `appPath`. Writes nothing yet.
    RecordKeeper(SharedFile<KeepAliveState> keepAlive, SharedFile<WidgetSnapshot> widgets,
                 const std::string& appPath);

    // The app lives, and the helper says `status`. Writes both when something has changed since the
    // last call, and at least every half minute. Gives a sentence for the person when a file cannot
    // be written, once for as long as the reason stays the same; else an empty one.
    std::string update(const HelperStatus& status, WallDate now);

    // The app ends as it should. As update(), if that ever wrote anything.
    std::string end(WallDate now);

  private:
    std::string write(WallDate now);

    SharedFile<KeepAliveState> keepAliveFile_;
    SharedFile<WidgetSnapshot> widgetsFile_;
    KeepAliveState keepAlive_;
    HelperStatus status_;
    // Since when something holds, or nothing.
    WallDate since_;
    // When both files were last written; absent when they are yet to be.
    std::optional<WallDate> writtenAt_;
    // What was last said.
    std::string trouble_;
};

// How fast the app lives.
struct Pace {
    // Well below the silence after which the helper looks whether the app runs.
    Seconds heartbeat{2};
    // A helper that is slower than this is tried again at the next heartbeat.
    Seconds heartbeatLimit{2};
    // How long the app stays when nothing holds any more, so that what it says can be read.
    Seconds lingering{10};
    // How long it looks for a helper of which it knows nothing yet.
    Seconds searching{60};
};

// The app while it runs: begins a commitment if asked to, then sends heartbeats, shows what holds
// and keeps the records. It has no way to end a commitment. Borrows the client, the display and the
// records. Blocks SIGINT, SIGTERM and SIGHUP in its thread, so it is made before any other thread.
class Companion {
  public:
    Companion(HelperClient& client, Display& display, RecordKeeper& records, std::string appPath,
              Pace pace = {});

    // Returns the process's exit status once nothing holds any more, a signal came, or the helper
    // could not be asked to begin with.
    int run(const Arguments& arguments);

  private:
    HelperClient::Result<HelperStatus> begin(Seconds span);
    int stay();
    std::optional<int> beat();
    void holds(const HelperStatus& status);
    std::optional<int> isOver();
    std::optional<int> isInTrouble(const HelperFailure& failure);
    void leave(int signal);

    HelperClient& client_;
    Display& display_;
    RecordKeeper& records_;
    std::string appPath_;
    Pace pace_;

    HelperStatus shown_;
    // What is the matter with the helper, as it was last said.
    std::string trouble_;
    // Nothing holds any more, and the person has been told.
    bool over_ = false;
    // For how long a session that closes counts as one that was open just now.
    Deadline wasOpenUntil_{};
    // When the app ends by itself, unless the helper says that something holds.
    Deadline leavingAt_{};
};

}  // namespace halvo
