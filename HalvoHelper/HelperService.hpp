// The life cycle of the service, and the requests that it answers.
#pragma once

#include <cstdint>
#include <expected>
#include <string>

#include "HalvoHelper/HelperListener.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// The four requests of one caller, answered by the engine, which must outlive the connection. The
// peer is fixed at admission. Main queue only, which each request checks.
class HelperConnection {
  public:
    HelperConnection(HelperPeer peer, HelperEngine& engine)
        : peer_(std::move(peer)), engine_(engine) {}

    // Commits the caller to keep its own bundle, at `appPath` (of resolvedPath()). Returns whether
    // a commitment is now held. Fails, for the caller's own bundle, with a sentence that names the
    // invalid argument, which is logged: a date that is not finite, or a `started` after the year
    // 9999.
    [[nodiscard]] std::expected<bool, std::string> begin(const std::string& appPath, WallDate until,
                                                         WallDate started) const;

    // A sign of life, or the announcement that the session is ending.
    [[nodiscard]] bool heartbeat(bool sessionEnding) const {
        return engine().heartbeat(sessionEnding, peer_);
    }

    // Lets the caller's commitment go.
    [[nodiscard]] bool end() const { return engine().end(peer_); }

    // What holds for the caller.
    [[nodiscard]] HelperStatus status() const { return engine().status(peer_); }

    [[nodiscard]] const HelperPeer& peer() const { return peer_; }

  private:
    [[nodiscard]] HelperEngine& engine() const;

    HelperPeer peer_;
    HelperEngine& engine_;
};

// Owns the engine, drives its periodic check, counts connections, and ends the process when it has
// been idle long enough or receives SIGTERM. One per process; main queue only, which each member
// function checks.
class HelperService {
  public:
    // How long the helper stays without a commitment and without a connection.
    static constexpr Seconds idleLimit{30};
    // How much later than due a tick may come, to wake the machine up less often.
    static constexpr Seconds tickLeeway{0.2};

    // Borrows the listener and the queue. `engine` has not started up.
    HelperService(HelperEngine engine, HelperListener& listener, MainQueue& queue);

    // Starts the engine up, which recovers the stored commitment, and only then serves callers.
    // Called once.
    void start();

    // One periodic check: the engine's, then the idle rule, by which the process exits with 0.
    void tick();

    // Ends the process with the status that HelperEngine::terminate() returns.
    void terminate();

    // Each connection that the listener admits is counted from the one call to the other.
    void connectionOpened();
    void connectionClosed();

    // What answers requests. The reference may be taken on any thread, and used on the main queue.
    [[nodiscard]] HelperEngine& engine() { return engine_; }

    [[nodiscard]] std::int64_t connections() const { return connections_; }

  private:
    MainQueue& queue_;
    HelperEngine engine_;
    HelperListener& listener_;
    std::int64_t connections_ = 0;
    // When the helper was last known to have something to do, on the queue's clock.
    Seconds busySince_;
};

}  // namespace halvo
