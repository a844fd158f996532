#include "HalvoHelperCore/HelperPeer.hpp"

#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {

HelperPeer HelperPeer::ofProcess(std::uint32_t uid, const std::optional<std::string>& executable) {
    auto bundlePath =
        executable && isUTF8(*executable) ? AppLocation::bundlePath(*executable) : std::nullopt;
    if (bundlePath) {
        bundlePath = resolvedPath(*bundlePath);
    }
    return {uid, std::move(bundlePath)};
}

}  // namespace halvo
