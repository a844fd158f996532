// Addresses of Unix sockets.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <optional>
#include <string>

namespace halvo {

// The address of the socket at `path`; nothing when that does not fit with its terminating zero
// byte; unix(7).
inline std::optional<sockaddr_un> socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    std::ranges::copy(path, address.sun_path);
    return address;
}

// As bind(2) and connect(2) take it.
inline const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace halvo
