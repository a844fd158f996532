#include "HalvoPlatform/Bundle.hpp"

#import <Foundation/Foundation.h>
#include <mach-o/dyld.h>
#include <mach-o/getsect.h>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

std::string ownExecutablePath() { return textOf(NSBundle.mainBundle.executablePath).value_or(""); }

NSBundle* foundationBundle(const std::string& path) {
    NSString* place = foundationText(path);
    return place == nil ? nil : [[NSBundle alloc] initWithPath:place];
}

// A program outside a bundle embeds its Info.plist in the section __TEXT,__info_plist, which its
// signature covers. The main bundle's infoDictionary would be that of a file beside the program, if
// there is one.
NSDictionary<NSString*, id>* ownInfo() {
    unsigned long size = 0;
    const void* program = _dyld_get_image_header(0);
    const void* bytes = getsectiondata(static_cast<const mach_header_64*>(program), "__TEXT",
                                       "__info_plist", &size);
    if (bytes == nullptr) {
        return NSBundle.mainBundle.infoDictionary;
    }
    return [NSPropertyListSerialization propertyListWithData:[NSData dataWithBytes:bytes
                                                                            length:size]
                                                     options:NSPropertyListImmutable
                                                      format:nil
                                                       error:nil];
}

}  // namespace

Bundle Bundle::main() {
    @autoreleasepool {
        return ofProcess(ownExecutablePath());
    }
}

std::optional<InfoDictionary> Bundle::info() const {
    @autoreleasepool {
        NSDictionary<NSString*, id>* members = ownExecutable_ == ownExecutablePath()
                                                   ? ownInfo()
                                                   : foundationBundle(path_).infoDictionary;
        if (members == nil) {
            return std::nullopt;
        }
        InfoDictionary info;
        for (NSString* name in members) {
            id member = members[name];
            const auto key = textOf(name);
            const auto text =
                [member isKindOfClass:[NSString class]] ? textOf(member) : std::nullopt;
            if (key && text) {
                info.insert_or_assign(*key, *text);
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
        return textOf(foundationBundle(path_).executablePath);
    }
}

}  // namespace halvo
