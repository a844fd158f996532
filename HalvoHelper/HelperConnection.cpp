#include "HalvoHelper/HelperConnection.hpp"

#include <cmath>
#include <optional>
#include <utility>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/MainActor.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// 10000-01-01, in seconds since 1970. A commitment is granted a day from its start at the most, so
// that of any earlier start the engine can count in whole seconds.
constexpr double pastLastStart = 253402300800;

// What is wrong with the first of the dates that the engine cannot reckon with.
std::optional<BadArgument> badDate(WallDate until, WallDate started) {
    for (const auto& [name, date] : {std::pair("until", until), std::pair("started", started)}) {
        if (!std::isfinite(secondsSince1970(date))) {
            return BadArgument{name, "is not a finite number"};
        }
    }
    if (secondsSince1970(started) >= pastLastStart) {
        return BadArgument{"started", "is after the year 9999"};
    }
    return std::nullopt;
}

}  // namespace

HelperConnection::HelperConnection(HelperPeer peer, MainQueue& queue, HelperEngine& engine)
    : peer_(std::move(peer)), queue_(queue), engine_(engine) {}

void HelperConnection::begin(const std::string& appPath, WallDate until, WallDate started,
                             BeginReply reply) {
    std::string path = canonicalPath(appPath).value_or(appPath);
    queue_.async([&engine = engine_, peer = peer_, path = std::move(path), until, started,
                  reply = std::move(reply)] {
        assumeMainActor();
        // A bundle that is not the caller's own is for the engine to refuse, whatever the dates.
        auto bad = HelperEngine::isOwnBundle(path, peer) ? badDate(until, started) : std::nullopt;
        if (bad) {
            HALVO_LOG_ERROR(helperLog, "Refused a begin: %{public}s %{public}s", bad->name.c_str(),
                            bad->problem.c_str());
            reply(std::unexpected(*std::move(bad)));
            return;
        }
        reply(engine.begin(path, until, started, peer));
    });
}

void HelperConnection::heartbeat(bool sessionEnding, Reply reply) {
    queue_.async([&engine = engine_, peer = peer_, sessionEnding, reply = std::move(reply)] {
        assumeMainActor();
        reply(engine.heartbeat(sessionEnding, peer));
    });
}

void HelperConnection::end(Reply reply) {
    queue_.async([&engine = engine_, peer = peer_, reply = std::move(reply)] {
        assumeMainActor();
        reply(engine.end(peer));
    });
}

void HelperConnection::status(StatusReply reply) {
    queue_.async([&engine = engine_, peer = peer_, reply = std::move(reply)] {
        assumeMainActor();
        reply(engine.status(peer));
    });
}

}  // namespace halvo
