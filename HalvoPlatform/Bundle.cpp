#include "HalvoPlatform/Bundle.hpp"

#include <string_view>
#include <utility>

namespace halvo {

std::optional<std::string> infoString(const std::optional<InfoDictionary>& info,
                                      const std::string& key) {
    return info && info->contains(key) ? std::optional(info->at(key)) : std::nullopt;
}

Bundle::Bundle(std::string path)
    : path_(std::move(path)), infoPath_(path_ + "/Contents/Info.plist") {}

Bundle::Bundle(std::string path, std::string infoPath, std::string executable)
    : path_(std::move(path)),
      infoPath_(std::move(infoPath)),
      ownExecutable_(std::move(executable)) {}

std::optional<std::string> Bundle::folderOf(const std::string& executable) {
    constexpr std::string_view place = "/Contents/MacOS/";
    const std::size_t name = executable.find_last_of('/') + 1;
    if (name <= place.size() || name == executable.size() ||
        !std::string_view(executable).substr(0, name).ends_with(place)) {
        return std::nullopt;
    }
    return executable.substr(0, name - place.size());
}

Bundle Bundle::ofProcess(const std::string& executable) {
    if (const auto bundle = folderOf(executable)) {
        return {*bundle, *bundle + "/Contents/Info.plist", executable};
    }
    const std::string folder = executable.substr(0, executable.find_last_of('/'));
    return {folder.empty() ? "/" : folder, folder + "/Info.plist", executable};
}

}  // namespace halvo
