#include "HalvoHelperCore/RecordedLocks.hpp"

#include <utility>

#include "HalvoPlatform/Log.hpp"

namespace halvo {
namespace {

std::optional<std::string> owedBy(const HelperCommitment& commitment) {
    return commitment.locked ? std::optional(commitment.appPath) : std::nullopt;
}

}  // namespace

StoredCommitment RecordedLocks::load() {
    StoredCommitment stored = store_.load();
    const auto* commitment = std::get_if<HelperCommitment>(&stored);
    owed_ = commitment == nullptr ? std::nullopt : owedBy(*commitment);
    return stored;
}

bool RecordedLocks::save(const HelperCommitment& commitment) {
    const bool isDurable = store_.save(commitment);
    auto next = owedBy(commitment);
    // After a failure the disk may hold the previous record instead: only what both owe counts.
    owed_ = isDurable || next == owed_ ? std::move(next) : std::nullopt;
    return isDurable;
}

void RecordedLocks::remove() {
    store_.remove();
    owed_.reset();
}

bool RecordedLocks::setLocked(bool locked, const std::string& path) {
    if (locked && owed_ != path) {
        HALVO_LOG_ERROR(helperLog, "Didn't lock Halvo: no record on the disk owes the unlock");
        return false;
    }
    if (!locked && flags_.state(path) == LockState::unlocked) {
        flags_.sync(path);
    }
    return flags_.setLocked(locked, path);
}

}  // namespace halvo
