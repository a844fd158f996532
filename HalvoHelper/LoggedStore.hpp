// A store whose commitment the log tells of.
#pragma once

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {

// Hands everything on, and gives the log its context (Log.hpp) meanwhile: what was loaded or saved
// last, until the piece of work is done that removes it, so that what is said of its end tells of
// it too. The engine stores a commitment before it says so. Borrows both; main queue only.
class LoggedStore final : public CommitmentStore {
  public:
    LoggedStore(CommitmentStore& store, MainQueue& queue) : store_(store), queue_(queue) {}

    StoredCommitment load() override;
    void save(const HelperCommitment& commitment) override;
    void remove() override;

  private:
    CommitmentStore& store_;
    MainQueue& queue_;
    // One that was removed and has not been followed by another.
    bool isRemoved_ = false;
};

}  // namespace halvo
