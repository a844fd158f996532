// Who gets in. The person at the console is the adversary, so only what the kernel keeps counts:
// the app is installed by root, set-group-id to a group that nobody is in. From that exec on the
// kernel ignores LD_PRELOAD and refuses ptrace, and the group is in the credentials of the
// connection (SO_PEERCRED, unix(7)), as they were when it was made.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

// A caller that was admitted.
struct Caller {
    std::uint32_t uid{};
    std::string executable;
};

// Whether the process behind the connected socket `connection` is the app of `identity`: the
// caller, or the rule that it failed, as a text for the log. All must hold:
//
// 1. Its effective group when it connected is the group of its executable, and that file is
//    set-group-id, owned by root, and, like every folder above it, writable by nobody else.
// 2. The file it runs is the file at that path (a mount namespace can forge a path), and lies in a
//    bundle whose Info.plist, a regular file of root that nobody else can write, carries the
//    identity.
// 3. Where the kernel gives a pidfd (SO_PEERPIDFD, Linux 6.5), the process still lives after that.
//
// A look-up that fails means no. Reads nothing from the connection.
std::expected<Caller, std::string> checkCaller(int connection, const HelperIdentity& identity);

// The parts of these rules that are about files alone, and hold before anybody calls.

// The group that a process gets from the executable with that status; nothing when it is not
// set-group-id.
std::optional<gid_t> privateGroup(const struct stat& executable);

// The app's identity as the bundle of `executable` declares it, in an Info.plist that is root's
// alone (RootsAlone.hpp). Nothing otherwise.
std::optional<HelperIdentity> identityOf(const std::string& executable);

}  // namespace halvo
