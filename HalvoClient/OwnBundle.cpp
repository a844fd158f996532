#include "HalvoClient/OwnBundle.hpp"

#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {

std::optional<OwnBundle> bundleOf(const std::string& executable) {
    const auto real = canonicalPath(executable);
    auto path = real ? AppLocation::bundlePath(*real) : std::nullopt;
    if (!path) {
        return std::nullopt;
    }
    auto identity = HelperIdentity::ofBundle(Bundle(*path).info());
    if (!identity) {
        return std::nullopt;
    }
    return OwnBundle{*std::move(path), *std::move(identity)};
}

std::optional<OwnBundle> ownBundle() { return bundleOf("/proc/self/exe"); }

}  // namespace halvo
