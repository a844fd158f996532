#include "HalvoHelperCore/AppLocation.hpp"

#include <string_view>

#include "HalvoPlatform/Paths.hpp"

namespace halvo::AppLocation {

bool isBundlePath(const std::string& path) {
    const auto contains = [&path](const char* text) {
        return path.find(text) != std::string::npos;
    };
    // With these excluded nothing is left for a lexical normalisation to change: the last
    // component ends in ".app" and so is neither "." nor ".." nor empty. What the system makes of a
    // path besides is its own.
    return path.starts_with('/') && path.ends_with(".app") && !contains("/../") &&
           !contains("/./") && !contains("//") && path.find('\0') == std::string::npos &&
           isUTF8(path) && isStandardizedPath(path);
}

bool isLockablePath(const std::string& path) {
    return isBundlePath(path) &&
           std::string_view(path).substr(0, path.find_last_of('/')).ends_with("/Applications");
}

bool mayLock(const std::string& path) { return isLockablePath(path) && isFolder(path); }

std::optional<std::string> bundlePath(const std::string& executable) {
    const std::size_t name = executable.find_last_of('/');
    constexpr std::string_view folders = "/Contents/MacOS";
    if (name == std::string::npos || name == executable.size() - 1 ||
        !std::string_view(executable).substr(0, name).ends_with(folders)) {
        return std::nullopt;
    }
    std::string candidate = executable.substr(0, name - folders.size());
    return isBundlePath(candidate) ? std::optional(std::move(candidate)) : std::nullopt;
}

}  // namespace halvo::AppLocation
