// Where the commitment survives the process.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/HelperCommitment.hpp"

namespace halvo {

// A file that is there but does not hold a commitment, and what could be saved of it.
struct UnreadableCommitment {
    std::optional<std::string> appPath;
    bool locked{};

    bool operator==(const UnreadableCommitment&) const = default;
};

struct NoCommitment {
    bool operator==(const NoCommitment&) const = default;
};

// What a store holds.
using StoredCommitment = std::variant<HelperCommitment, UnreadableCommitment, NoCommitment>;

// The bundle whose lock has to be taken off before `unreadable` is forgotten, if any: what stands
// in a damaged file is believed only of a bundle that the helper may lock.
inline std::optional<std::string> lockOwed(const UnreadableCommitment& unreadable) {
    const bool isOwed =
        unreadable.locked && unreadable.appPath && AppLocation::mayLock(*unreadable.appPath);
    return isOwed ? unreadable.appPath : std::nullopt;
}

class CommitmentStore {
  public:
    virtual ~CommitmentStore() = default;

    // What is stored. Never fails: what cannot be read at all is no commitment.
    virtual StoredCommitment load() = 0;

    // Stores `commitment` in the place of what was there. True when it is what the disk holds,
    // whatever happens next; false when the disk may also hold what was there before. A failure is
    // logged by the implementation.
    virtual bool save(const HelperCommitment& commitment) = 0;

    // Deletes what is stored. A failure leaves what was there, and is logged by the implementation.
    virtual void remove() = 0;
};

}  // namespace halvo
