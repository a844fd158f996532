// Who is calling.
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

    bool operator==(const HelperPeer&) const = default;
};

}  // namespace halvo
