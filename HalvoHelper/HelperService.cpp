#include "HalvoHelper/HelperService.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Log.hpp"

namespace halvo {
namespace {

// Why the engine cannot compute with the first invalid date; null where both are valid.
const char* problemOfDates(double until, double started) {
    // 10000-01-01, in seconds since 1970. A commitment is granted a day from its start at the most,
    // so that of any earlier start the engine can count in whole seconds.
    constexpr double pastLastStart = 253402300800;
    if (!std::isfinite(until)) {
        return "until is not a finite number";
    }
    if (!std::isfinite(started)) {
        return "started is not a finite number";
    }
    return started >= pastLastStart ? "started is after the year 9999" : nullptr;
}

}  // namespace

HelperEngine& HelperConnection::engine() const {
    assumeMainActor();
    return engine_;
}

std::expected<bool, std::string> HelperConnection::begin(const std::string& appPath, WallDate until,
                                                         WallDate started) const {
    HelperEngine& engine = this->engine();
    // A bundle that is not the caller's own is for the engine to refuse, whatever the dates.
    const char* problem = HelperEngine::isOwnBundle(appPath, peer_)
                              ? problemOfDates(secondsSince1970(until), secondsSince1970(started))
                              : nullptr;
    if (problem != nullptr) {
        HALVO_LOG_ERROR(helperLog, "Refused a begin: %{public}s", problem);
        return std::unexpected(problem);
    }
    return engine.begin(appPath, until, started, peer_);
}

HelperService::HelperService(HelperEngine engine, HelperListener& listener, MainQueue& queue)
    : queue_(queue), engine_(std::move(engine)), listener_(listener), busySince_(queue.now()) {}

void HelperService::start() {
    engine_.startup();
    listener_.serve(*this);
    queue_.onTermination([this] { terminate(); });
    queue_.repeat(HelperEngine::Timing::tick, HelperEngine::Timing::tick, tickLeeway,
                  [this] { tick(); });
}

void HelperService::tick() {
    assumeMainActor();
    engine_.tick();
    if (!engine_.isIdle() || connections_ > 0) {
        busySince_ = queue_.now();
    } else if (queue_.now() - busySince_ >= idleLimit) {
        queue_.exit(0);
    }
}

void HelperService::terminate() {
    assumeMainActor();
    queue_.exit(engine_.terminate());
}

void HelperService::connectionOpened() {
    assumeMainActor();
    if (connections_ == std::numeric_limits<std::int64_t>::max()) {
        fatal("Too many connections to count");
    }
    ++connections_;
    busySince_ = queue_.now();
}

void HelperService::connectionClosed() {
    assumeMainActor();
    connections_ = std::max(connections_ - 1, std::int64_t{0});
    busySince_ = queue_.now();
}

}  // namespace halvo
