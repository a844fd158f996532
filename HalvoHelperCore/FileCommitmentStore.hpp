// The state file.
#pragma once

#include <string>
#include <utility>

#include "HalvoHelperCore/CommitmentStore.hpp"

namespace halvo {

// Keeps the commitment as JSON in "commitment.json" in a folder of its own, both closed to
// everybody but their owner. Every operation starts from the disk as it finds it; two stores on one
// folder are interchangeable, but must not write at once. Main queue only.
//
// The file is one object, pretty-printed, with its keys sorted; dates are seconds since 1970, and
// every double reads back to the same bits. Readers accept any order and unknown members, and for a
// double a whole number of any length; a file with a zero byte is not JSON, wherever it is.
class FileCommitmentStore final : public CommitmentStore {
  public:
    // `folder` need not exist; save() makes it (0700) with the folders above it.
    explicit FileCommitmentStore(std::string folder) : folder_(std::move(folder)) {}

    // A file that cannot be read at file-system level is NoCommitment; one that is there but is not
    // a whole record, or is longer than 1 MiB, is UnreadableCommitment.
    StoredCommitment load() override;

    // Replaces the file (0600) in one step. A failure, also of a record that JSON cannot carry (a
    // number that is not finite, a text that is not UTF-8), logs "Couldn't save the state:
    // %{public}s" and leaves the file that was there; where only the folder's sync failed, the disk
    // may have either.
    bool save(const HelperCommitment& commitment) override;

    // Removes the file, and the folder with anything left inside, for good when this returns. Where
    // the folder is a symbolic link only the link goes. The first failure logs "Couldn't remove the
    // state: %{public}s"; a missing file or folder is none.
    void remove() override;

    // Where the file is while there is one.
    [[nodiscard]] std::string path() const;

  private:
    std::string folder_;
};

}  // namespace halvo
