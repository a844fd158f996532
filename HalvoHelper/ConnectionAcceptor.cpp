#include "HalvoHelper/ConnectionAcceptor.hpp"

#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/MainActor.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {

ConnectionAcceptor::ConnectionAcceptor(MainQueue& queue, HelperEngine& engine,
                                       ConnectionCount& count)
    : queue_(queue), engine_(engine), count_(count) {}

std::unique_ptr<HelperConnection> ConnectionAcceptor::accept(
    std::uint32_t uid, const std::optional<std::string>& executable) {
    auto bundlePath =
        executable && isUTF8(*executable) ? AppLocation::bundlePath(*executable) : std::nullopt;
    if (bundlePath) {
        bundlePath = canonicalPath(*bundlePath).value_or(*bundlePath);
    }
    return std::make_unique<HelperConnection>(HelperPeer{uid, std::move(bundlePath)}, queue_,
                                              engine_);
}

void ConnectionAcceptor::admitted() {
    queue_.async([&count = count_] {
        assumeMainActor();
        count.connectionOpened();
    });
}

void ConnectionAcceptor::invalidated() {
    queue_.async([&count = count_] {
        assumeMainActor();
        count.connectionClosed();
    });
}

}  // namespace halvo
