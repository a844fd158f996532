#include "HalvoPlatform/Version.hpp"

namespace halvo {

const char* const version = HALVO_VERSION;

}  // namespace halvo
