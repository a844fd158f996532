#include "HalvoShared/AppGroup.hpp"

#import <Foundation/Foundation.h>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo::AppGroup {
namespace {

NSURL* groupContainer(const std::optional<std::string>& identifier) {
    NSString* group = identifier ? foundationText(*identifier) : nil;
    return group == nil ? nil
                        : [NSFileManager.defaultManager
                              containerURLForSecurityApplicationGroupIdentifier:group];
}

NSURL* folderWithoutGroup() {
    NSFileManager* files = NSFileManager.defaultManager;
    NSURL* support = [files URLsForDirectory:NSApplicationSupportDirectory
                                   inDomains:NSUserDomainMask]
                         .firstObject;
    NSURL* folder = [support URLByAppendingPathComponent:@"Halvo-NoGroup" isDirectory:YES];
    if (folder != nil) {
        // Whoever reads or writes there learns why there is no folder.
        [files createDirectoryAtURL:folder
            withIntermediateDirectories:YES
                             attributes:nil
                                  error:nil];
    }
    return folder;
}

}  // namespace

std::string containerOf(const std::optional<std::string>& identifier) {
    @autoreleasepool {
        NSURL* container = groupContainer(identifier);
        return textOf((container != nil ? container : folderWithoutGroup()).path).value_or("");
    }
}

}  // namespace halvo::AppGroup
