// The folder that the app shares with its widgets and its intents.
#pragma once

#include <optional>
#include <string>

#include "HalvoPlatform/Bundle.hpp"

// Nothing here is remembered: each call looks again. Any thread, as long as none changes the
// environment (getenv(3)).
namespace halvo::AppGroup {

// The string under "HalvoAppGroup", as it stands there; nothing when there is none.
inline std::optional<std::string> identifierIn(const std::optional<InfoDictionary>& info) {
    return infoString(info, "HalvoAppGroup");
}

// Which group the main bundle belongs to: identifierIn() its Info.plist.
inline std::optional<std::string> identifier() { return identifierIn(Bundle::main().info()); }

// The folder of the group `identifier`. Without a group, or where the system lets the process use
// no folder of such a group, it is "Halvo-NoGroup" in the folder where the user's apps keep their
// data. The folder is made when it is missing, with the folders above it. That this failed shows
// only when a file in it is read or written: the path is the same all the same.
//
// On macOS it is the group's container (containerURLForSecurityApplicationGroupIdentifier:), as
// long as the process can make, read and write it, which the system allows to those with the
// entitlement for it; of others it may ask the person. The user's apps keep their data in
// Application Support. On Linux no process is kept out of a group.
//
// On Linux the user's apps keep their data in $XDG_DATA_HOME, else in ~/.local/share (XDG Base
// Directory), a group's folder lies in there under the group's identifier, and a folder made here
// is its owner's only (0700). An identifier that is no plain name of one folder (empty, ".", "..",
// with a "/" or a zero byte) has no folder.
std::string containerOf(const std::optional<std::string>& identifier);

// The path that containerOf() returns, or would return once the folder can be made; makes nothing.
std::string pathOf(const std::optional<std::string>& identifier);

// The path of the folder that holds every shared file: containerOf() the identifier().
inline std::string container() { return containerOf(identifier()); }

}  // namespace halvo::AppGroup
