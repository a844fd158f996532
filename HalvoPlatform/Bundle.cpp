#include "HalvoPlatform/Bundle.hpp"

#include <string_view>
#include <utility>

namespace halvo {

std::optional<std::string> infoString(const InfoDictionary& info, const std::string& key) {
    const auto member = info.find(key);
    if (member == info.end()) {
        return std::nullopt;
    }
    const auto* text = std::get_if<std::string>(&member->second);
    return text == nullptr ? std::nullopt : std::optional(*text);
}

Bundle::Bundle(std::string path)
    : path_(std::move(path)), infoPath_(path_ + "/Contents/Info.plist") {}

Bundle::Bundle(std::string path, std::string infoPath, std::string executable)
    : path_(std::move(path)),
      infoPath_(std::move(infoPath)),
      ownExecutable_(std::move(executable)) {}

Bundle Bundle::ofProcess(const std::string& executable) {
    constexpr std::string_view place = "/Contents/MacOS";
    const std::string folder = executable.substr(0, executable.find_last_of('/'));
    if (folder.size() > place.size() && folder.ends_with(place)) {
        const std::string bundle = folder.substr(0, folder.size() - place.size());
        return {bundle, bundle + "/Contents/Info.plist", executable};
    }
    return {folder.empty() ? "/" : folder, folder + "/Info.plist", executable};
}

}  // namespace halvo
