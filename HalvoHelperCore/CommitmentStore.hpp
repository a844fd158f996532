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

    // Stores `commitment` in the place of what was there. A failure leaves what was there, and is
    // logged by the implementation.
    virtual void save(const HelperCommitment& commitment) = 0;

    // Deletes what is stored. A failure leaves what was there, and is logged by the implementation.
    virtual void remove() = 0;
};

// A store that can say whether what it was given outlives a loss of power.
class DurableCommitmentStore : public CommitmentStore {
  public:
    // save(). True when `commitment` is what the disk holds, whatever happens next; false when it
    // may also hold what was there before.
    virtual bool saveDurably(const HelperCommitment& commitment) = 0;

    void save(const HelperCommitment& commitment) final { saveDurably(commitment); }
};

}  // namespace halvo
