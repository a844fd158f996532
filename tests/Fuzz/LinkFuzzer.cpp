// Whatever a link's text is, reading it does not crash, and what was read can be written and comes
// back the same. The first line is the scheme to write under, the rest the text to read; the rest
// is also a style to write.

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
