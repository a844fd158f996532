// How intents inside the app's process reach the app.
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

// The operations that the app implements for its intents; nothing in this module calls them. Not
// copyable; shared ownership. Each operation is synchronous, called on the main queue, and returns
// whether it was carried out (true) or refused. None throws.
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

    // Turns the block with the identifier `block` on or off; idempotent. Refused for an unknown
    // block, or one that may not be turned off now.
    virtual bool setBlock(const std::string& block, bool on) = 0;
};

// Holds the host that the app registers once it is ready; intents that start earlier wait for it.
// One per process, shared(); tests make their own. Main queue only, except isAppProcess() and
// current().
class IntentHosting {
  public:
    using Clock = std::function<WallDate()>;

    // Receives the host; null when there is none.
    using Completion = std::function<void(std::shared_ptr<HalvoIntentHost>)>;

    // Waits on `queue` and by `clock`, which is called on the main queue. `queue` and this object
    // must outlive every pending current().
    IntentHosting(MainQueue& queue, bool isAppProcess, Clock clock = wallNow);

    IntentHosting(const IntentHosting&) = delete;
    IntentHosting& operator=(const IntentHosting&) = delete;

    // The process's own, on liveMainQueue(); created by the first call, which must come from the
    // main thread, and never destroyed.
    static IntentHosting& shared();

    // Whether a process of `bundle` is the app: the bundle's path has the extension "app".
    static bool isApp(const Bundle& bundle);

    // Replaces the host; null removes it.
    void registerHost(std::shared_ptr<HalvoIntentHost> host);

    // The host; null when none is registered.
    [[nodiscard]] const std::shared_ptr<HalvoIntentHost>& host() const { return host_; }

    // Whether this process is the app, and not one of its extensions. Any thread.
    [[nodiscard]] bool isAppProcess() const { return isAppProcess_; }

    // Calls `completion` with the host as soon as there is one; with null once `waitingUpTo` has
    // passed on the wall clock (setting that clock shortens or lengthens the wait), and at once
    // outside the app's process. Any thread.
    //
    // Polls on the main queue, first as soon as possible and then every 50 ms (also while the
    // machine sleeps, see MainQueue::after()); the first poll at or after the deadline is the last.
    // A span that is zero, negative or not-a-number means one poll, an infinite one no deadline.
    //
    // `completion`, which must not be empty, is called exactly once, on the main queue, after the
    // work that called this has returned. There is deliberately no way to cancel.
    void current(Seconds waitingUpTo, Completion completion);

  private:
    void look(WallDate deadline, Completion completion);

    MainQueue& queue_;
    bool isAppProcess_;
    Clock clock_;
    std::shared_ptr<HalvoIntentHost> host_;
};

}  // namespace halvo
