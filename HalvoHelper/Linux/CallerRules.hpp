// Who gets in. The person at the console is the adversary, so only what the kernel keeps counts:
// the app is installed by root, set-group-id to a group that nobody is in. From that exec on the
// kernel ignores LD_PRELOAD and refuses ptrace, and the group is in the credentials of the
// connection (SO_PEERCRED, unix(7)), as they were when it was made.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/HelperPeer.hpp"
#include "HalvoPlatform/Linux/FileStamp.hpp"

namespace halvo {

// What the machine's own account files (group(5), gshadow(5), passwd(5)) say of one group: whether
// the app's private group is nobody's, so that a process has it only from the app's executable. The
// name service is never asked: a directory on the network could keep the helper waiting.
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

    std::string folder_;
    // Of the last answer; without a group there is none to give again.
    std::optional<gid_t> gid_;
    Stamps stamps_;
    std::optional<std::string> problem_;
};

// The group that a process gets from the executable with that status; nothing when it is not
// set-group-id.
std::optional<gid_t> privateGroup(const struct stat& executable);

// One thread at a time.
class CallerRules {
  public:
    // Of the app of `identity`. `accounts`: the folder of the account files.
    explicit CallerRules(HelperIdentity identity, std::string accounts = "/etc");

    // Whether the process behind the connected socket `connection` is the app: the caller, or the
    // rule that it failed, as a text for the log. All must hold:
    //
    // 1. The file that it runs lies on a mount of process 1, without nosuid
    //    (proc_pid_mountinfo(5)), on which the kernel honours the set-group-id bit. A file system
    //    that a person wrote and mounted could forge all that follows, and keep the helper waiting
    //    for it; so this is looked at before any path is walked.
    // 2. Its effective group when it connected is the group of its executable, and that file is
    //    set-group-id, owned by root, and, like every folder above it, writable by nobody else.
    // 3. The file it runs is the file at that path, which need not be: a path may name another.
    // 4. That group is none that it could have by itself: see PrivateGroups; nor is it among its
    //    other groups.
    // 5. The executable lies in a bundle whose Info.plist, a regular file of root that nobody else
    //    can write, carries the identity.
    // 6. Where the kernel gives a pidfd (SO_PEERPIDFD, Linux 6.5), the process still lives after
    //    that.
    //
    // A look-up that fails means no, and the text says why it did. Reads nothing from the
    // connection.
    std::expected<HelperPeer, std::string> check(int connection);

  private:
    std::optional<std::string> problemOfBundle(const std::string& executable);

    HelperIdentity identity_;
    PrivateGroups groups_;

    // What an Info.plist says, as long as it is the same file.
    struct Info {
        std::optional<FileStamp> file;
        std::optional<HelperIdentity> identity;
    };

    // By path. Only root makes such files, so they are few.
    std::map<std::string, Info> infos_;
};

}  // namespace halvo
