#include "HalvoShared/AppGroup.hpp"

#include <tuple>

#include "HalvoPlatform/Files.hpp"
#include "HalvoShared/Linux/UserFolders.hpp"

namespace halvo::AppGroup {

std::string containerOf(const std::optional<std::string>& identifier) {
    std::string folder = groupFolder(userDataFolder(UserPlaces::current()), identifier);
    // Whoever reads or writes there learns why there is no folder.
    std::ignore = createFolder(folder, 0700);
    return folder;
}

}  // namespace halvo::AppGroup
