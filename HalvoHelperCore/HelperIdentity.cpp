#include "HalvoHelperCore/HelperIdentity.hpp"

#include <string_view>

namespace halvo {
namespace {

// Spelled out: the character classes of <cctype> depend on the locale.
constexpr const char* inTeamIDs = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr const char* inBundleIDs =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-";

bool isBundleID(std::string_view text) {
    constexpr std::size_t longest = 200;
    return !text.empty() && text.size() <= longest && text.front() != '.' && !text.contains("..") &&
           text.find_first_not_of(inBundleIDs) == std::string_view::npos;
}

bool isTeamID(std::string_view text) {
    constexpr std::size_t length = 10;
    return text.size() == length && text.find_first_not_of(inTeamIDs) == std::string_view::npos;
}

// Neither value can hold a double quote or a backslash, so neither needs escaping.
std::string requirement(const std::string& identifier, const std::string& teamID) {
    return "anchor apple generic and identifier \"" + identifier +
           "\" and certificate leaf[subject.OU] = \"" + teamID + "\"";
}

}  // namespace

std::optional<HelperIdentity> HelperIdentity::helper(const std::optional<InfoDictionary>& info) {
    return app(info, infoString(info, appBundleIDKey));
}

std::optional<HelperIdentity> HelperIdentity::app(const std::optional<InfoDictionary>& info,
                                                  const std::optional<std::string>& bundleID) {
    const auto teamID = infoString(info, teamKey);
    if (!bundleID || !teamID || !isBundleID(*bundleID) || !isTeamID(*teamID)) {
        return std::nullopt;
    }
    return HelperIdentity{*bundleID, *teamID};
}

std::optional<HelperIdentity> HelperIdentity::ofBundle(const std::optional<InfoDictionary>& info) {
    return app(info, infoString(info, bundleIDKey));
}

std::string HelperIdentity::helperBundleID() const { return appBundleID + ".helper"; }

std::string HelperIdentity::appRequirement() const { return requirement(appBundleID, teamID); }

std::string HelperIdentity::helperRequirement() const {
    return requirement(helperBundleID(), teamID);
}

std::string HelperIdentity::stateFolder() const {
    return "/Library/Application Support/" + helperBundleID();
}

}  // namespace halvo
