#include "HalvoShared/SharedFile.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo::shared_file {
namespace {

// Different for each write of any process.
std::string writerName() {
    static std::atomic<unsigned> count = 0;
    return "." + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace

void store(const std::string& url, std::string_view bytes) {
    if (bytes.size() > sizeLimit) {
        throw SharedFileError(url + ": The record is longer than " + std::to_string(sizeLimit) +
                              " bytes, the most that is read");
    }
    const std::size_t name = url.rfind('/') + 1;
    const std::string folder = name == 0 ? "." : url.substr(0, name);
    constexpr mode_t ownerOnly = 0600;
    const auto stored = replaceFile(folder, url.substr(name), bytes, ownerOnly, writerName());
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
