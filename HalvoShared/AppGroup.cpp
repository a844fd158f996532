#include "HalvoShared/AppGroup.hpp"

namespace halvo::AppGroup {

std::optional<std::string> identifier() { return identifierIn(Bundle::main().info()); }

std::optional<std::string> identifierIn(const std::optional<InfoDictionary>& info) {
    return info ? infoString(*info, "HalvoAppGroup") : std::nullopt;
}

std::string container() { return containerOf(identifier()); }

}  // namespace halvo::AppGroup
