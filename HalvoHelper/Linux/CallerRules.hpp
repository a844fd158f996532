// Authentication of callers. The person at the console is the adversary, so only state that the
// kernel keeps counts: the app is installed by root, set-group-id to a private group. From that
// execve(2) on the kernel ignores LD_PRELOAD and refuses ptrace, and the group is in the
// credentials of the connection (SO_PEERCRED, unix(7)), as they were when it was made.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <expected>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/HelperPeer.hpp"
#include "HalvoPlatform/Linux/FileStamp.hpp"

namespace halvo {

// What the local account files (group(5), gshadow(5), passwd(5)) say of one group: whether it is
// private, so that a process has it only from the app's executable. The name service is never
// asked: a directory on the network could stall the helper.
struct GroupFacts {
    gid_t gid{};
    // Nothing when no entry has the number.
    std::optional<std::string> name;
    // The password fields of the entry and of its shadow. Never shown.
    std::string password;
    std::string shadowPassword;
    std::vector<std::string> members;
    std::vector<std::string> administrators;
    // The users whose primary group it is.
    std::vector<std::string> owners;
    // Whether the shadow file, if there is one, was read; only root can.
    bool hasShadow{};
};

// The facts of the group `gid` in the files in `folder`. Fails with "PATH: what the system says".
// One thread at a time (fgetgrent(3)).
std::expected<GroupFacts, std::string> readGroup(gid_t gid, const std::string& folder = "/etc");

// Why a group is not private.
struct GroupFlaw {
    enum class Kind { roots, unknown, members, owners, administrators, password };

    Kind kind;
    // A sentence without its full stop: "the group halvo-app has members: ann".
    std::string finding;
};

// The first reason why the group is not private; nothing when it is. Any thread.
std::optional<GroupFlaw> flawOf(const GroupFacts& facts);

// The group that a process gets from the executable with that status; nothing when it is not
// set-group-id. Any thread.
std::optional<gid_t> privateGroup(const struct stat& executable);

// One thread at a time.
class CallerRules {
  public:
    // For the app of `identity`. `accounts`: the folder of the account files.
    explicit CallerRules(HelperIdentity identity, std::string accounts = "/etc")
        : identity_(std::move(identity)), accounts_(std::move(accounts)) {}

    // Decides whether the process behind the connected socket `connection` is the app. Returns the
    // caller, or the rule that it failed, as a text for the log. All must hold:
    //
    // 1. The file that it runs lies on a mount of process 1, without nosuid
    //    (proc_pid_mountinfo(5)), on which the kernel honours the set-group-id bit. A file system
    //    that a user wrote and mounted could forge all that follows, and stall the helper; so this
    //    is examined before any path is walked.
    // 2. Its effective group when it connected is the group of its executable, and that file is
    //    set-group-id, owned by root, and, like every folder above it, writable by root alone.
    // 3. The file it runs is the file at that path, which need not be: a path may name another.
    // 4. That group is private (flawOf()), and neither its real group nor one of its supplementary
    //    groups.
    // 5. The executable lies in a bundle whose Info.plist, a regular file of root that no other
    //    user can write, carries the identity.
    // 6. Where the kernel gives a pidfd (SO_PEERPIDFD, Linux 6.5), the process still lives after
    //    that.
    //
    // A look-up that fails means no, and the text says why it did. Reads nothing from the
    // connection; an Info.plist is read again only after it has changed.
    std::expected<HelperPeer, std::string> check(int connection);

  private:
    std::optional<std::string> problemOfBundle(const std::string& executable);

    HelperIdentity identity_;
    std::string accounts_;

    // The identity in an Info.plist, as long as the file is the same.
    struct Info {
        std::optional<FileStamp> file;
        std::optional<HelperIdentity> identity;
    };

    // By path. Only root makes such files, so they are few.
    std::map<std::string, Info> infos_;
};

}  // namespace halvo
