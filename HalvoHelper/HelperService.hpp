// The life of the service.
#pragma once

#include <cstdint>

#include "HalvoHelper/HelperListener.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// What the engine borrows. All must outlive the service.
struct Collaborators {
    HelperClock& clock;
    FileFlags& flags;
    CommitmentStore& store;
    SessionProbe& session;
    AppOpener& opener;
};

// Owns the engine, drives its periodic check, counts connections, ends the process when it has been
// idle long enough or is told to. One per process; main queue only, which each entry checks.
class HelperService {
  public:
    // How long the helper stays without a commitment and without a connection.
    static constexpr Seconds idleLimit{30};
    // How much later than due a tick may come, to wake the machine up less often.
    static constexpr Seconds tickLeeway{0.2};

    HelperService(HelperIdentity identity, Collaborators collaborators, HelperListener& listener,
                  MainQueue& queue);

    // Takes the stored commitment up, then serves: the engine has started up before any caller can
    // reach it. Called once.
    void start();

    // One periodic check: the engine's, then the idle rule, by which the process exits with 0.
    void tick();

    // Ends the process with the engine's word on it.
    void terminate();

    // Each connection that the listener admits is counted from the one call to the other.
    void connectionOpened();
    void connectionClosed();

    // What answers requests. May be asked for on any thread, and used on the main queue.
    [[nodiscard]] HelperEngine& engine() { return engine_; }

    [[nodiscard]] std::int64_t connections() const { return connections_; }

  private:
    HelperIdentity identity_;
    MainQueue& queue_;
    HelperEngine engine_;
    HelperListener& listener_;
    std::int64_t connections_ = 0;
    // When the helper was last known to have something to do, on the queue's clock.
    Seconds busySince_;
};

}  // namespace halvo
