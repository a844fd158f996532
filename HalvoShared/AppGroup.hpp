// The folder that the app shares with its widgets and its intents.
#pragma once

#include <optional>
#include <string>

#include "HalvoPlatform/Bundle.hpp"

// Nothing here is cached. Any thread, as long as none changes the environment (getenv(3)).
namespace halvo::AppGroup {

// The group of the main bundle: the string under "HalvoAppGroup" in its Info.plist, if there is
// one.
inline std::optional<std::string> identifier() {
    return infoString(Bundle::main().info(), "HalvoAppGroup");
}

// The folder of the group `identifier`; without a group, or where the process may not use the
// group's, "Halvo-NoGroup" in the folder for the data of the user's apps. Creates it when it is
// missing, with its parents. A failure of that is ignored, so that the path does not depend on the
// state of the disk: reading or writing a file in it fails then.
//
// On macOS the group's folder is its container
// (containerURLForSecurityApplicationGroupIdentifier:), if the process can create, read and write
// it: the system allows that with the entitlement, and may ask the person without. The folder for
// the apps' data is Application Support.
//
// On Linux the group's folder lies in that for the apps' data, $XDG_DATA_HOME or else
// ~/.local/share (XDG Base Directory), under the group's identifier, and is created with the
// permissions 0700. An identifier that is not the name of a folder (empty, ".", "..", with a "/" or
// a NUL byte) has none.
std::string containerOf(const std::optional<std::string>& identifier);

// The path that containerOf() returns; creates nothing.
std::string pathOf(const std::optional<std::string>& identifier);

// The path of the folder that holds every shared file: containerOf() the identifier().
inline std::string container() { return containerOf(identifier()); }

}  // namespace halvo::AppGroup
