#include "HalvoPlatform/Bundle.hpp"

namespace halvo {

std::optional<std::string> infoString(const InfoDictionary& info, const std::string& key) {
    const auto member = info.find(key);
    if (member == info.end()) {
        return std::nullopt;
    }
    const auto* text = std::get_if<std::string>(&member->second);
    return text == nullptr ? std::nullopt : std::optional(*text);
}

}  // namespace halvo
