#include "HalvoPlatform/macOS/FoundationText.hpp"

#include "HalvoPlatform/Fatal.hpp"

namespace halvo {

std::optional<std::string> textOf(NSString* text) {
    // Not -UTF8String, whose end is the first zero byte.
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
    if (bytes == nil) {
        return std::nullopt;
    }
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

NSString* foundationText(const std::string& text) {
    return [[NSString alloc] initWithBytes:text.data()
                                    length:text.size()
                                  encoding:NSUTF8StringEncoding];
}

NSString* knownFoundationText(const std::string& text) {
    NSString* known = foundationText(text);
    if (known == nil) {
        fatal("A text of our own that is not UTF-8");
    }
    return known;
}

}  // namespace halvo
