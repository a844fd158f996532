// The life of the service, the requests that it answers and the commitment that its log tells of.
#pragma once

#include <cstdint>
#include <expected>
#include <string>

#include "HalvoHelper/HelperListener.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// The four requests of one caller, answered by the engine, which must outlive the connection. The
// peer is fixed at admission. Requests are served on the main queue only, which each checks.
class HelperConnection {
  public:
    HelperConnection(HelperPeer peer, HelperEngine& engine)
        : peer_(std::move(peer)), engine_(engine) {}

    // Commits the caller to keep its own bundle. `appPath` is that of resolvedPath(). Whether a
    // commitment is now held; for the caller's own bundle a sentence that names the bad argument,
    // which is logged: a date that is not finite, or a `started` after the year 9999.
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

// Hands everything on to a store, and gives the log its context (Log.hpp): the commitment loaded
// or saved last, until the main queue's current work has ended that removes it, so that what is
// logged of its end tells of it too. Borrows both; main queue only.
class LoggedStore final : public CommitmentStore {
  public:
    LoggedStore(CommitmentStore& store, MainQueue& queue) : store_(store), queue_(queue) {}

    StoredCommitment load() override;
    bool save(const HelperCommitment& commitment) override;
    void remove() override;

  private:
    CommitmentStore& store_;
    MainQueue& queue_;
    // Removed, and no other saved since.
    bool isRemoved_ = false;
};

// Owns the engine, drives its periodic check, counts connections, ends the process when it has been
// idle long enough or is told to. One per process; main queue only, which each entry checks.
class HelperService {
  public:
    // How long the helper stays without a commitment and without a connection.
    static constexpr Seconds idleLimit{30};
    // How much later than due a tick may come, to wake the machine up less often.
    static constexpr Seconds tickLeeway{0.2};

    // Borrows the listener and the queue. `engine` has not started up.
    HelperService(HelperIdentity identity, HelperEngine engine, HelperListener& listener,
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
