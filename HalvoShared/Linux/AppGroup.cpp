#include "HalvoShared/AppGroup.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <tuple>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo::AppGroup {
namespace {

namespace fs = std::filesystem;

// Empty unless the environment variable `name` holds an absolute path.
fs::path pathIn(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value == '/' ? value : fs::path();
}

// The home folder of the account that this process runs as; the root folder when it has none.
fs::path homeOfAccount() {
    // Far more than any line of passwd(5) has.
    std::vector<char> buffer(std::size_t{1} << 20U);
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr && *entry.pw_dir == '/' ? entry.pw_dir : "/";
}

// Where the apps of the user keep their data, by the XDG Base Directory rules.
fs::path dataFolder() {
    if (const fs::path data = pathIn("XDG_DATA_HOME"); !data.empty()) {
        return data;
    }
    const fs::path home = pathIn("HOME");
    return (home.empty() ? homeOfAccount() : home) / ".local/share";
}

bool isFolderName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && !name.contains('/') &&
           !hasZeroByte(name);
}

}  // namespace

std::string pathOf(const std::optional<std::string>& identifier) {
    const bool isGroup = identifier && isFolderName(*identifier);
    return dataFolder() / (isGroup ? *identifier : "Halvo-NoGroup");
}

std::string containerOf(const std::optional<std::string>& identifier) {
    std::string folder = pathOf(identifier);
    // A failure shows when a file in it is read or written.
    std::ignore = createFolder(folder, 0700);
    return folder;
}

}  // namespace halvo::AppGroup
