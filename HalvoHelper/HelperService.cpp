#include "HalvoHelper/HelperService.hpp"

#include <limits>
#include <utility>

#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/MainActor.hpp"

namespace halvo {

HelperService::HelperService(HelperIdentity identity, Collaborators collaborators,
                             HelperListener& listener, MainQueue& queue)
    : identity_(std::move(identity)),
      queue_(queue),
      engine_(collaborators.clock, collaborators.flags, collaborators.store, collaborators.session,
              collaborators.opener),
      listener_(listener),
      busySince_(queue.now()) {}

void HelperService::start() {
    engine_.startup();
    listener_.serve(identity_, *this);
    queue_.onTermination([this] { terminate(); });
    queue_.repeat(HelperEngine::Timing::tick, HelperEngine::Timing::tick, tickLeeway,
                  [this] { tick(); });
}

void HelperService::tick() {
    assumeMainActor();
    engine_.tick();
    if (!engine_.isIdle() || connections_ > 0) {
        busySince_ = queue_.now();
        return;
    }
    if (queue_.now() - busySince_ >= idleLimit) {
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
    connections_ = connections_ > 0 ? connections_ - 1 : 0;
    busySince_ = queue_.now();
}

}  // namespace halvo
