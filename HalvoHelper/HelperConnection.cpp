#include "HalvoHelper/HelperConnection.hpp"

#include <cmath>
#include <utility>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/MainActor.hpp"

namespace halvo {
namespace {

// 10000-01-01, in seconds since 1970. A commitment is granted a day from its start at the most, so
// that of any earlier start the engine can count in whole seconds.
constexpr double pastLastStart = 253402300800;

// What is wrong with the first of the dates that the engine cannot reckon with; null if nothing is.
const char* problemOfDates(WallDate until, WallDate started) {
    if (!std::isfinite(secondsSince1970(until))) {
        return "until is not a finite number";
    }
    if (!std::isfinite(secondsSince1970(started))) {
        return "started is not a finite number";
    }
    return secondsSince1970(started) >= pastLastStart ? "started is after the year 9999" : nullptr;
}

}  // namespace

HelperConnection::HelperConnection(HelperPeer peer, HelperEngine& engine)
    : peer_(std::move(peer)), engine_(engine) {}

std::expected<bool, std::string> HelperConnection::begin(const std::string& appPath, WallDate until,
                                                         WallDate started) const {
    assumeMainActor();
    // A bundle that is not the caller's own is for the engine to refuse, whatever the dates.
    const char* problem =
        HelperEngine::isOwnBundle(appPath, peer_) ? problemOfDates(until, started) : nullptr;
    if (problem != nullptr) {
        HALVO_LOG_ERROR(helperLog, "Refused a begin: %{public}s", problem);
        return std::unexpected(problem);
    }
    return engine_.begin(appPath, until, started, peer_);
}

bool HelperConnection::heartbeat(bool sessionEnding) const {
    assumeMainActor();
    return engine_.heartbeat(sessionEnding, peer_);
}

bool HelperConnection::end() const {
    assumeMainActor();
    return engine_.end(peer_);
}

HelperStatus HelperConnection::status() const {
    assumeMainActor();
    return engine_.status(peer_);
}

}  // namespace halvo
