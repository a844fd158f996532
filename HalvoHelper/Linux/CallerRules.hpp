// Who gets in. The person at the console is the adversary, so only what the kernel keeps counts:
// the app is installed by root, set-group-id to a group that nobody is in. From that exec on the
// kernel ignores LD_PRELOAD and refuses ptrace, and the group is in the credentials of the
// connection (SO_PEERCRED, unix(7)), as they were when it was made.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelper/Linux/AccountFiles.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/Linux/FileStamp.hpp"

namespace halvo {

// A caller that was admitted.
struct Caller {
    std::uint32_t uid{};
    std::string executable;
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
    // 1. The file that it runs lies on a mount on which the kernel honours the set-group-id bit,
    // one
    //    that process 1 has, without nosuid (proc_pid_mountinfo(5)). In a file system that a person
    //    wrote, and may mount, everything else here could be as it must. Looked at before any path
    //    is walked, since such a file system can keep whoever asks it waiting.
    // 2. Its effective group when it connected is the group of its executable, and that file is
    //    set-group-id, owned by root, and, like every folder above it, writable by nobody else.
    // 3. The file it runs is the file at that path, which need not be: a path may name another.
    // 4. That group is none that it could have by itself: see PrivateGroup.hpp; nor is it among its
    //    other groups.
    // 5. The executable lies in a bundle whose Info.plist, a regular file of root that nobody else
    //    can write, carries the identity.
    // 6. Where the kernel gives a pidfd (SO_PEERPIDFD, Linux 6.5), the process still lives after
    //    that.
    //
    // A look-up that fails means no, and the text says why it did. Reads nothing from the
    // connection.
    std::expected<Caller, std::string> check(int connection);

  private:
    // What an Info.plist says, kept for as long as that is the same file.
    struct Info {
        FileStamp file;
        std::optional<HelperIdentity> identity;
    };

    std::string withoutFile(const std::string& path);
    std::optional<std::string> problemOfGroup(int connection, const ucred& credentials,
                                              const std::string& executable);
    std::optional<std::string> problemOfBundle(const std::string& executable);
    std::expected<std::optional<HelperIdentity>, int> identityIn(const std::string& infoPath);

    HelperIdentity identity_;
    PrivateGroups groups_;
    std::vector<Info> infos_;
    // The next of infos_ to give up.
    std::size_t oldestInfo_ = 0;
};

}  // namespace halvo
