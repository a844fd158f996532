// The app bundle that a process runs from.
#pragma once

#include <optional>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

struct OwnBundle {
    // The path to commit: the canonical path of the bundle, as the helper derives it for its
    // caller.
    std::string path;
    // Whose helper to ask: "CFBundleIdentifier" and "HalvoTeamID" of the bundle's Info.plist.
    HelperIdentity identity;

    bool operator==(const OwnBundle&) const = default;
};

// The bundle in whose "Contents/MacOS" folder the file at `executable` lies, links resolved.
// Nothing when there is no such file, it lies elsewhere, or the Info.plist is missing or breaks a
// rule of HelperIdentity.
std::optional<OwnBundle> bundleOf(const std::string& executable);

// The bundle of this process. Nothing, too, when its executable was removed or replaced after it
// started: to be asked early.
std::optional<OwnBundle> ownBundle();

}  // namespace halvo
