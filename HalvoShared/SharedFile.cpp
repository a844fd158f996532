#include "HalvoShared/SharedFile.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <utility>

#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo::shared_file {

namespace {

// Of this process no other write has the same.
std::string writerName() {
    static std::atomic<unsigned> count = 0;
    return "." + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace

std::expected<std::string, std::string> load(const std::string& url) {
    auto bytes = readFile(url, sizeLimit);
    return bytes ? std::expected<std::string, std::string>(*std::move(bytes))
                 : std::unexpected(bytes.error().message);
}

void store(const std::string& url, std::string_view bytes) {
    if (bytes.size() > sizeLimit) {
        throw SharedFileError(url + ": The record is longer than " + std::to_string(sizeLimit) +
                              " bytes, the most that is read");
    }
    const std::size_t slash = url.find_last_of('/');
    const bool isBare = slash == std::string::npos;
    const std::string folder = isBare ? "." : url.substr(0, slash + 1);
    constexpr mode_t personOnly = 0600;
    const auto stored =
        replaceFile(folder, isBare ? url : url.substr(slash + 1), bytes, personOnly, writerName());
    if (!stored) {
        throw SharedFileError(url + ": " + errorText(stored.error().code));
    }
}

void remove(const std::string& url) noexcept {
    if (!hasZeroByte(url)) {
        std::remove(url.c_str());
    }
}

}  // namespace halvo::shared_file
