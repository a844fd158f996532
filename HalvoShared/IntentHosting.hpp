// How an intent inside the app's process finds the app, and what the app does for it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/HalvoLink.hpp"

namespace halvo {

// The app's side of its intents, which reach it through IntentHosting. The app implements it;
// nothing in this module calls it. An object has an identity and is never copied; whoever holds it
// shares in owning it. Every operation is called on the main queue, has been carried out or refused
// when it returns, and gives whether it was carried out. None throws.
class HalvoIntentHost {
  public:
    HalvoIntentHost() = default;
    HalvoIntentHost(const HalvoIntentHost&) = delete;
    HalvoIntentHost& operator=(const HalvoIntentHost&) = delete;
    virtual ~HalvoIntentHost() = default;

    // Starts a focus run of `length`, or of the app's usual length. Refused while one runs.
    virtual bool startFocus(std::optional<Seconds> length) = 0;

    // Ends the focus run. Refused when none runs, or when it may not be ended yet.
    virtual bool endFocus() = 0;

    // Shows the breathing exercise and starts it, as a link to it would. Refused for a style that
    // the app does not know.
    virtual bool startBreathing(const HalvoLink::Breathe& exercise) = 0;

    // Turns the block that the app knows as `block` on or off; carried out also when it is so
    // already. Refused for an unknown block, or one that may not be turned off now.
    virtual bool setBlock(const std::string& block, bool on) = 0;
};

// Holds the host that the app registers once it is ready, and lets intents that start before that
// wait for it. There is one for the process, shared(); tests make their own. Main queue only, but
// for isAppProcess() and current().
class IntentHosting {
  public:
    using Clock = std::function<WallDate()>;

    // Receives the host; null when there is none.
    using Completion = std::function<void(std::shared_ptr<HalvoIntentHost>)>;

    // Waits on `queue` and measures the waiting with `clock`, which is asked on the main queue.
    // `queue`, and this object itself, must outlive every waiting.
    IntentHosting(MainQueue& queue, bool isAppProcess, Clock clock = wallNow);

    IntentHosting(const IntentHosting&) = delete;
    IntentHosting& operator=(const IntentHosting&) = delete;

    // The process's own, on liveMainQueue(); made at the first call, which must come from the main
    // thread, and never destroyed.
    static IntentHosting& shared();

    // Whether `bundle`, as a process's own, makes it the app: its path has the extension "app".
    static bool isApp(const Bundle& bundle);

    // Keeps `host`, in the place of any earlier one, until another takes its place. Null takes the
    // host away.
    void registerHost(std::shared_ptr<HalvoIntentHost> host);

    // The host; null when none is registered.
    [[nodiscard]] const std::shared_ptr<HalvoIntentHost>& host() const { return host_; }

    // Whether this process is the app, and not one of its extensions. Any thread.
    [[nodiscard]] bool isAppProcess() const { return isAppProcess_; }

    // Hands `completion` the host, as soon as there is one. Absent when `waitingUpTo` has passed
    // without one on the wall clock (somebody who sets that clock shortens or lengthens the
    // waiting), and at once outside the app's process, whatever is registered there. Any thread.
    //
    // It looks when the main queue gets to it and then every 50 ms (asleep or awake, see
    // MainQueue::after()), for the last time with the first look at or after the deadline. A span
    // that is zero, negative or not-a-number means one look; an infinite one waits for ever.
    //
    // `completion`, which must not be empty, is always called exactly once, on the main queue, and
    // never before that queue has returned from the work that called this. There is no cancelling,
    // on purpose: a caller that has lost interest is called all the same, at the latest when its
    // time is out.
    void current(Seconds waitingUpTo, Completion completion);

  private:
    void look(WallDate deadline, Completion completion);

    MainQueue& queue_;
    bool isAppProcess_;
    Clock clock_;
    std::shared_ptr<HalvoIntentHost> host_;
};

}  // namespace halvo
