#include "HalvoPlatform/Paths.hpp"

namespace halvo {

bool isStandardizedPath(const std::string&) { return true; }

}  // namespace halvo
