// One connection of the app.
#pragma once

#include <expected>
#include <string>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/HelperPeer.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// The four requests of one caller, answered by the engine, which must outlive the connection. The
// peer is fixed at admission. Requests are served on the main queue only, which each checks.
class HelperConnection {
  public:
    HelperConnection(HelperPeer peer, HelperEngine& engine);

    // Commits the caller to keep its own bundle. `appPath` is that of resolvedPath(). Whether a
    // commitment is now held; for the caller's own bundle a sentence that names the bad argument,
    // which is logged: a date that is not finite, or a `started` after the year 9999.
    [[nodiscard]] std::expected<bool, std::string> begin(const std::string& appPath, WallDate until,
                                                         WallDate started) const;

    // A sign of life, or the announcement that the session is ending.
    [[nodiscard]] bool heartbeat(bool sessionEnding) const;

    // Lets the caller's commitment go.
    [[nodiscard]] bool end() const;

    // What holds for the caller.
    [[nodiscard]] HelperStatus status() const;

    [[nodiscard]] const HelperPeer& peer() const { return peer_; }

  private:
    HelperPeer peer_;
    HelperEngine& engine_;
};

}  // namespace halvo
