// Persistence of the commitment, as the engine sees it.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/HelperCommitment.hpp"

namespace halvo {

// A damaged record, and what could be salvaged of it.
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

// The bundle to unlock before `unreadable` is deleted, if any: a damaged record is trusted only of
// a bundle that the helper may lock.
inline std::optional<std::string> lockOwed(const UnreadableCommitment& unreadable) {
    const bool isOwed =
        unreadable.locked && unreadable.appPath && AppLocation::mayLock(*unreadable.appPath);
    return isOwed ? unreadable.appPath : std::nullopt;
}

class CommitmentStore {
  public:
    virtual ~CommitmentStore() = default;

    // What is stored. Never fails: a record that cannot be read at all is NoCommitment.
    virtual StoredCommitment load() = 0;

    // Replaces what is stored by `commitment`. Returns true when it is durable; false, logged by
    // the implementation, when the disk may also hold what was stored before.
    virtual bool save(const HelperCommitment& commitment) = 0;

    // Deletes what is stored. A failure leaves it, and is logged by the implementation.
    virtual void remove() = 0;
};

}  // namespace halvo
