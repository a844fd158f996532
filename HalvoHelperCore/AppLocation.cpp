#include "HalvoHelperCore/AppLocation.hpp"

#include <string_view>
#include <utility>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo::AppLocation {

bool isBundlePath(const std::string& path) {
    // With these excluded a lexical normalisation changes nothing: the last component ends in
    // ".app" and so is neither "." nor ".." nor empty. The rest depends on the system.
    return path.starts_with('/') && path.ends_with(".app") && !path.contains("/../") &&
           !path.contains("/./") && !path.contains("//") && !hasZeroByte(path) && isUTF8(path) &&
           isStandardizedPath(path);
}

bool isLockablePath(const std::string& path) {
    return isBundlePath(path) &&
           std::string_view(path).substr(0, path.find_last_of('/')).ends_with("/Applications");
}

bool mayLock(const std::string& path) { return isLockablePath(path) && isFolder(path); }

std::optional<std::string> bundlePath(const std::string& executable) {
    auto candidate = Bundle::folderOf(executable);
    return candidate && isBundlePath(*candidate) ? std::move(candidate) : std::nullopt;
}

std::string usualExecutable(const std::string& bundlePath) {
    return bundlePath + "/Contents/MacOS/Halvo";
}

}  // namespace halvo::AppLocation
