// Admission of connections.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "HalvoHelper/HelperConnection.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// Who wants to know how many connections are open. Called on the main queue.
class ConnectionCount {
  public:
    virtual ~ConnectionCount() = default;
    virtual void connectionOpened() = 0;
    virtual void connectionClosed() = 0;
};

// Admits every connection that reaches it (strangers are turned away by the listener) and records
// who is calling. Any thread; everything it borrows must outlive it.
class ConnectionAcceptor {
  public:
    ConnectionAcceptor(MainQueue& queue, HelperEngine& engine, ConnectionCount& count);

    // Admits the connection of a process with the effective user `uid` that runs the executable at
    // `executable` (absent when that cannot be told). What it returns serves the requests.
    std::unique_ptr<HelperConnection> accept(std::uint32_t uid,
                                             const std::optional<std::string>& executable);

    // The connection can be used from now on. Called before its first request can arrive, so that
    // it is counted before any is served.
    void admitted();

    // The connection is gone. Called exactly once for each that was admitted.
    void invalidated();

  private:
    MainQueue& queue_;
    HelperEngine& engine_;
    ConnectionCount& count_;
};

}  // namespace halvo
