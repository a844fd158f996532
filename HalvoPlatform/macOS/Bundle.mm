#include "HalvoPlatform/Bundle.hpp"

#import <Foundation/Foundation.h>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

std::string ownExecutablePath() { return textOf(NSBundle.mainBundle.executablePath).value_or(""); }

// The main bundle is more than what lies at its path: a program in no bundle carries its Info.plist
// inside itself, in the section __TEXT,__info_plist.
NSBundle* foundationBundle(const std::string& path, const std::optional<std::string>& executable) {
    if (executable == ownExecutablePath()) {
        return NSBundle.mainBundle;
    }
    NSString* place = foundationText(path);
    return place == nil ? nil : [[NSBundle alloc] initWithPath:place];
}

InfoValue valueOf(id member) {
    const auto text = [member isKindOfClass:[NSString class]] ? textOf(member) : std::nullopt;
    return text ? InfoValue(*text) : InfoValue(NotAString{});
}

}  // namespace

Bundle Bundle::main() {
    @autoreleasepool {
        return ofProcess(ownExecutablePath());
    }
}

std::optional<InfoDictionary> Bundle::info() const {
    @autoreleasepool {
        NSDictionary<NSString*, id>* members =
            foundationBundle(path_, ownExecutable_).infoDictionary;
        if (members == nil) {
            return std::nullopt;
        }
        InfoDictionary info;
        for (NSString* name in members) {
            if (const auto key = textOf(name)) {
                info.insert_or_assign(*key, valueOf(members[name]));
            }
        }
        return info;
    }
}

std::optional<std::string> Bundle::executablePath() const {
    if (ownExecutable_) {
        return ownExecutable_->empty() ? std::nullopt : ownExecutable_;
    }
    @autoreleasepool {
        return textOf(foundationBundle(path_, std::nullopt).executablePath);
    }
}

}  // namespace halvo
