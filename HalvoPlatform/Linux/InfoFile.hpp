// Reading an Info.plist with the reason of a failure, which Bundle::info() leaves out.
#pragma once

#include <expected>
#include <optional>
#include <string>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Files.hpp"

namespace halvo {

// The string members of the property list at `path`; nothing when it is damaged or its top level is
// no dictionary. Fails as readFile() does, with EFBIG beyond 128 KiB. Any thread.
std::expected<std::optional<InfoDictionary>, FileError> readInfoFile(const std::string& path);

}  // namespace halvo
