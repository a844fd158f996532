#include "HalvoHelper/RootsAlone.hpp"

namespace halvo::RootsAlone {

std::optional<std::string> problemBeyondMode(const std::string&) { return std::nullopt; }

}  // namespace halvo::RootsAlone
