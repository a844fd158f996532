// The identity of a caller.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halvo {

// The caller of one connection, as it was when it connected.
struct HelperPeer {
    // Its effective user.
    std::uint32_t uid{};
    // The canonical path of the app bundle that its executable lies in, if any.
    std::optional<std::string> bundlePath;

    // The peer of a process with the effective user `uid` that runs `executable` (absent when its
    // path cannot be read). Resolves symbolic links. Any thread.
    static HelperPeer ofProcess(std::uint32_t uid, const std::optional<std::string>& executable);

    bool operator==(const HelperPeer&) const = default;
};

}  // namespace halvo
