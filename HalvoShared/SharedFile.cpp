#include "HalvoShared/SharedFile.hpp"

#include <cstdio>
#include <utility>

#include "HalvoPlatform/Files.hpp"

namespace halvo::shared_file {

std::expected<std::string, std::string> load(const std::string& url) {
    auto bytes = readFile(url, sizeLimit);
    if (!bytes) {
        return std::unexpected(std::move(bytes.error().message));
    }
    return *std::move(bytes);
}

void store(const std::string& url, std::string_view bytes) {
    const std::size_t slash = url.find_last_of('/');
    const bool isBare = slash == std::string::npos;
    const std::string folder = isBare ? "." : url.substr(0, slash + 1);
    constexpr mode_t personOnly = 0600;
    const auto stored =
        replaceFile(folder, isBare ? url : url.substr(slash + 1), bytes, personOnly);
    if (!stored) {
        throw SharedFileError(stored.error().message);
    }
}

void remove(const std::string& url) noexcept { std::remove(url.c_str()); }

}  // namespace halvo::shared_file
