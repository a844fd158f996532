#include "HalvoHelperCore/CommitmentStore.hpp"

#include "HalvoHelperCore/AppLocation.hpp"

namespace halvo {

std::optional<std::string> lockOwed(const UnreadableCommitment& unreadable) {
    const bool isOwed =
        unreadable.locked && unreadable.appPath && AppLocation::mayLock(*unreadable.appPath);
    return isOwed ? unreadable.appPath : std::nullopt;
}

}  // namespace halvo
