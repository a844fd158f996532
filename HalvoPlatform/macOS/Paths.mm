#include "HalvoPlatform/Paths.hpp"

#import <Foundation/Foundation.h>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {

bool isStandardizedPath(const std::string& path) {
    // The only other change by URLByStandardizingPath. Most paths need no call, which allocates.
    if (!path.starts_with("/private/")) {
        return true;
    }
    @autoreleasepool {
        NSString* text = foundationText(path);
        return text != nil &&
               textOf([NSURL fileURLWithPath:text].URLByStandardizingPath.path) == path;
    }
}

}  // namespace halvo
