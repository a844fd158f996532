// An Info.plist on the disk, for who must know why it could not be read; Bundle.hpp is for the
// rest.
#pragma once

#include <expected>
#include <optional>
#include <string>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Files.hpp"

namespace halvo {

// The members of the property list at `path`; nothing when it is damaged or its top level is no
// dictionary. Fails as readFile() does, with EFBIG past 128 KiB. Any thread.
std::expected<std::optional<InfoDictionary>, FileError> readInfoFile(const std::string& path);

}  // namespace halvo
