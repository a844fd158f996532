// Parsing any text as a link does not crash, and the parsed link survives a round trip. The first
// line of the input is the scheme to write with, the rest the text to parse; the rest also serves
// as a style to write.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/HalvoLink.hpp"

namespace {

using halvo::HalvoLink;

void require(bool isSo) {
    if (!isSo) {
        std::abort();
    }
}

void requireBack(const HalvoLink& link, const std::string& scheme) {
    const std::string url = link.url(scheme);
    require(url == HalvoLink::noURL || HalvoLink::reading(url) == link);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\n');
    const std::string text = end == std::string::npos ? input : input.substr(end + 1);
    const HalvoLink styled{HalvoLink::Breathe{text, std::int64_t{-1}}};
    for (const std::string& scheme : {std::string("halvo"), input.substr(0, end)}) {
        requireBack(HalvoLink::reading(text), scheme);
        if (halvo::isUTF8(text)) {
            requireBack(styled, scheme);
        } else {
            require(!styled.url(scheme).contains("?style"));
        }
    }
    return 0;
}
