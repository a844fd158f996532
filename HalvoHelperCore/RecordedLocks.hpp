// Locks only what a durable record owes to unlock.
#pragma once

#include <optional>
#include <string>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"

namespace halvo {

// A store and flags for the engine, in front of the state file and the file flags: sets a lock only
// when the record that is certainly on the disk owes its removal. Otherwise a crash would leave the
// app locked for ever. To the engine that is a lock that failed. Borrows both. Main queue only.
class RecordedLocks final : public CommitmentStore, public FileFlags {
  public:
    RecordedLocks(CommitmentStore& store, FileFlags& flags) : store_(store), flags_(flags) {}

    StoredCommitment load() override;
    bool save(const HelperCommitment& commitment) override;
    void remove() override;

    LockState state(const std::string& path) override { return flags_.state(path); }

    void sync(const std::string& path) override { flags_.sync(path); }

    // Clearing a lock that is clear already syncs that: a helper that was killed may have cleared
    // it, and whoever asks removes the record next. Setting it is also false, with "Didn't lock
    // Halvo: no record on the disk owes the unlock" in the log, where no record owes it.
    bool setLocked(bool locked, const std::string& path) override;

  private:
    CommitmentStore& store_;
    FileFlags& flags_;
    // The bundle whose unlock is owed by whichever record a loss of power may leave.
    std::optional<std::string> owed_;
};

}  // namespace halvo
