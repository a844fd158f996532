// The app's private group: nobody's, so that a process has it only from the app's executable. Says
// who could have it by themselves, from the machine's own account files (group(5), gshadow(5),
// passwd(5)). Never asks the name service: a directory on the network could keep the helper
// waiting.
#pragma once

#include <sys/types.h>

#include <array>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Linux/FileStamp.hpp"

namespace halvo {

// What the account files say of one group.
struct GroupFacts {
    gid_t gid{};
    // Nothing when no entry has the number.
    std::optional<std::string> name;
    // The field of the password, of the entry and of its shadow. Neither is shown to anybody.
    std::string password;
    std::string shadowPassword;
    std::vector<std::string> members;
    std::vector<std::string> administrators;
    // Those whose own group it is.
    std::vector<std::string> owners;
    // The shadow file was looked at, if there is one; only root can.
    bool hasShadow{};
};

// Reads them from the files in `folder`. Fails with "PATH: what the system says".
std::expected<GroupFacts, std::string> readGroup(gid_t gid, const std::string& folder = "/etc");

// Why a group is not nobody's.
struct GroupFlaw {
    enum class Kind { roots, unknown, members, owners, administrators, password };

    Kind kind;
    // A sentence without its full stop: "the group halvo-app has members: ann".
    std::string finding;
};

std::optional<GroupFlaw> flawOf(const GroupFacts& facts);

// The same question asked again and again: files that have not changed are not read again. One
// thread at a time.
class PrivateGroups {
  public:
    explicit PrivateGroups(std::string folder = "/etc") : folder_(std::move(folder)) {}

    // What keeps the group `gid` from being nobody's, or from being told so, as a sentence without
    // its full stop.
    std::optional<std::string> problem(gid_t gid);

  private:
    // The group file, its shadow, the accounts. A file that is missing has none.
    using Stamps = std::array<std::optional<FileStamp>, 3>;

    [[nodiscard]] Stamps stampsNow() const;

    std::string folder_;
    // Of the last answer; without a group there is none to give again.
    std::optional<gid_t> gid_;
    Stamps stamps_;
    std::optional<std::string> problem_;
};

}  // namespace halvo
