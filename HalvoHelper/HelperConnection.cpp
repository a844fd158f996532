#include "HalvoHelper/HelperConnection.hpp"

#include <array>
#include <optional>
#include <utility>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/MainActor.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// 1970-01-01 and 10000-01-01, in seconds since 1970. A date beyond them would pass the engine's
// checks with a budget that cannot be counted in whole seconds, after the lock was set.
constexpr double firstDate = 0;
constexpr double pastLastDate = 253402300800;

// What is wrong with the first of the dates that no begin may carry.
std::optional<BadArgument> badDate(WallDate until, WallDate started) {
    const std::array dates{std::pair{std::string("until"), until},
                           std::pair{std::string("started"), started}};
    for (const auto& [name, date] : dates) {
        const double seconds = secondsSince1970(date);
        const bool fits = seconds >= firstDate && seconds < pastLastDate;  // not-a-number does not
        if (!fits) {
            return BadArgument{name, "is not a date of the years 1970 to 9999"};
        }
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
        if (auto bad = badDate(until, started)) {
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
