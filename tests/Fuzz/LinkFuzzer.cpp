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

void expectBack(const halvo::HalvoLink& link, const std::string& scheme) {
    const std::string url = link.url(scheme);
    // What stands for an invalid scheme.
    if (url != "file:///" && halvo::HalvoLink::reading(url) != link) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\n');
    const std::string scheme = input.substr(0, end);
    const std::string text = end == std::string::npos ? input : input.substr(end + 1);
    const halvo::HalvoLink link = halvo::HalvoLink::reading(text);
    const halvo::HalvoLink styled{halvo::HalvoLink::Breathe{text, std::int64_t{-1}}};
    for (const std::string& under : {std::string("halvo"), scheme}) {
        expectBack(link, under);
        const std::string url = styled.url(under);
        if (halvo::isUTF8(text)) {
            expectBack(styled, under);
        } else if (url != "file:///" && url.find("?style") != std::string::npos) {
            std::abort();
        }
    }
    return 0;
}
