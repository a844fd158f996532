#include "HalvoHelper/RootOwnedPath.hpp"

namespace halvo::RootOwnedPath {

std::optional<std::string> problemBeyondMode(const std::string&) { return std::nullopt; }

}  // namespace halvo::RootOwnedPath
