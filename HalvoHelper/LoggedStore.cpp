#include "HalvoHelper/LoggedStore.hpp"

#include <variant>

#include "HalvoPlatform/Log.hpp"

namespace halvo {
namespace {

void tellOf(const HelperCommitment& commitment) {
    const LogContext context{commitment.uid, commitment.appPath,
                             commitment.ends(commitment.checkpoint)};
    setLogContext(&context);
}

}  // namespace

StoredCommitment LoggedStore::load() {
    StoredCommitment stored = store_.load();
    if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
        tellOf(*commitment);
    }
    return stored;
}

// First, so that a failure is told of whom it concerns.
void LoggedStore::save(const HelperCommitment& commitment) {
    isRemoved_ = false;
    tellOf(commitment);
    store_.save(commitment);
}

void LoggedStore::remove() {
    store_.remove();
    isRemoved_ = true;
    queue_.async([this] {
        if (isRemoved_) {
            setLogContext(nullptr);
        }
    });
}

}  // namespace halvo
