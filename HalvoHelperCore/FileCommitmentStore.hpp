// The state file.
#pragma once

#include <string>
#include <utility>

#include "HalvoHelperCore/CommitmentStore.hpp"

namespace halvo {

// Stores the commitment as JSON in "commitment.json" in a folder of its own, both accessible to
// their owner only. Stateless: two stores on one folder are interchangeable, but must not write at
// once. Main queue only.
//
// The file is one object, pretty-printed, with sorted keys; dates are seconds since 1970, and every
// double reads back to the same bits. Readers accept any order, unknown members, and an integer of
// any length for a double; a file that contains a zero byte is not JSON.
class FileCommitmentStore final : public CommitmentStore {
  public:
    // `folder` need not exist; save() creates it (0700) with the folders above it.
    explicit FileCommitmentStore(std::string folder) : folder_(std::move(folder)) {}

    // A file that cannot be opened or read is NoCommitment; one that is no complete record, or is
    // longer than 1 MiB, is UnreadableCommitment.
    StoredCommitment load() override;

    // Replaces the file (0600) atomically. A failure, also of a record that JSON cannot represent
    // (a number that is not finite, a text that is not UTF-8), logs "Couldn't save the state:
    // %{public}s" and leaves the previous file; where only the folder's sync failed, the disk may
    // hold either.
    bool save(const HelperCommitment& commitment) override;

    // Removes the file, and the folder with anything left inside, durably when this returns. Where
    // the folder is a symbolic link only the link is removed. The first failure logs "Couldn't
    // remove the state: %{public}s"; a missing file or folder is no failure.
    void remove() override;

    // The path of the file, whether or not it exists.
    [[nodiscard]] std::string path() const;

  private:
    std::string folder_;
};

}  // namespace halvo
