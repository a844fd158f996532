#include "HalvoHelperCore/HelperPeer.hpp"

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {

HelperPeer HelperPeer::ofProcess(std::uint32_t uid, const std::optional<std::string>& executable) {
    const auto bundlePath =
        executable && isUTF8(*executable) ? AppLocation::bundlePath(*executable) : std::nullopt;
    return {uid, bundlePath.transform(resolvedPath)};
}

}  // namespace halvo
