#include "HalvoShared/AppGroup.hpp"

#import <Foundation/Foundation.h>
#include <unistd.h>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo::AppGroup {
namespace {

// Whoever reads or writes in the folder learns why there is none.
void make(NSURL* folder) {
    [NSFileManager.defaultManager createDirectoryAtURL:folder
                           withIntermediateDirectories:YES
                                            attributes:nil
                                                 error:nil];
}

// That a group has a URL does not say that the process may use it: Apple's documentation of the
// method has its caller test that.
bool isUsable(NSURL* folder) {
    const std::string path = textOf(folder.path).value_or("");
    return isFolder(path) && access(path.c_str(), R_OK | W_OK | X_OK) == 0;
}

NSURL* groupContainer(const std::optional<std::string>& identifier) {
    NSString* group = identifier ? foundationText(*identifier) : nil;
    NSURL* folder = group == nil ? nil
                                 : [NSFileManager.defaultManager
                                       containerURLForSecurityApplicationGroupIdentifier:group];
    if (folder == nil) {
        return nil;
    }
    make(folder);
    return isUsable(folder) ? folder : nil;
}

NSURL* folderWithoutGroup() {
    NSFileManager* files = NSFileManager.defaultManager;
    NSURL* support = [files URLsForDirectory:NSApplicationSupportDirectory
                                   inDomains:NSUserDomainMask]
                         .firstObject;
    NSURL* folder = [support URLByAppendingPathComponent:@"Halvo-NoGroup" isDirectory:YES];
    if (folder != nil) {
        make(folder);
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
