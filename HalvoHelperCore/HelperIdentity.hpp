// Which app the helper serves, and every name that follows from it.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "HalvoHelperCore/Hash.hpp"
#include "HalvoPlatform/Bundle.hpp"

namespace halvo {

struct HelperIdentity {
    // The Info.plist keys of the two members.
    static constexpr const char* appBundleIDKey = "HalvoAppBundleID";
    static constexpr const char* bundleIDKey = "CFBundleIdentifier";
    static constexpr const char* teamKey = "HalvoTeamID";

    // At most 200 ASCII letters, digits, "." and "-"; no "." in front, no two in a row.
    std::string appBundleID;
    // Ten ASCII capital letters and digits.
    std::string teamID;

    bool operator==(const HelperIdentity&) const = default;

    // The identity in the helper's own Info.plist; nothing when `info` is absent, a key is missing
    // or not a string, or a value breaks its rule above.
    static std::optional<HelperIdentity> helper(const std::optional<InfoDictionary>& info);

    // The identity of an app that knows its own identifier: `bundleID` and the team of `info`, by
    // the same rules.
    static std::optional<HelperIdentity> app(const std::optional<InfoDictionary>& info,
                                             const std::optional<std::string>& bundleID);

    // The identity of an app whose bundle has the Info.plist `info`, with its
    // "CFBundleIdentifier".
    static std::optional<HelperIdentity> ofBundle(const std::optional<InfoDictionary>& info);

    // The helper's own identifier, which is also its Mach service name.
    [[nodiscard]] std::string helperBundleID() const;

    // What the helper demands of its callers, in the code-signing requirement language.
    [[nodiscard]] std::string appRequirement() const;

    // What the app demands of the helper.
    [[nodiscard]] std::string helperRequirement() const;

    // The folder that holds the state file.
    [[nodiscard]] std::string stateFolder() const;
};

}  // namespace halvo

template <>
struct std::hash<halvo::HelperIdentity> {
    std::size_t operator()(const halvo::HelperIdentity& value) const {
        return halvo::hashOf(value.appBundleID, value.teamID);
    }
};
