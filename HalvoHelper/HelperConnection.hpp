// One connection of the app.
#pragma once

#include <functional>
#include <string>

#include "HalvoHelperCore/HalvoHelperXPC.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/HelperPeer.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// Turns each request into a call of the engine on the main queue, and its result into the reply.
// The peer is fixed at admission. Requests may come from any thread and may outlive the connection;
// the queue and the engine must outlive both.
class HelperConnection final : public HalvoHelperXPC {
  public:
    HelperConnection(HelperPeer peer, MainQueue& queue, HelperEngine& engine);

    void begin(const std::string& appPath, WallDate until, WallDate started,
               BeginReply reply) override;
    void heartbeat(bool sessionEnding, Reply reply) override;
    void end(Reply reply) override;
    void status(StatusReply reply) override;

    [[nodiscard]] const HelperPeer& peer() const { return peer_; }

  private:
    const HelperPeer peer_;
    MainQueue& queue_;
    HelperEngine& engine_;
};

}  // namespace halvo
