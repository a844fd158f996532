// The names of the service on Linux, which the helper and its callers must agree on: peer-to-peer
// D-Bus on a Unix stream socket.
#pragma once

#include <string>

namespace halvo::HelperBus {

inline constexpr const char* object = "/app/halvo/Helper";
inline constexpr const char* interface = "app.halvo.HalvoHelperXPC";

// The socket that stands for the Mach service `name`.
inline std::string socketPath(const std::string& name) { return "/run/" + name + ".sock"; }

}  // namespace halvo::HelperBus
