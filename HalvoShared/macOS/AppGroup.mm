#include "HalvoShared/AppGroup.hpp"

#import <Foundation/Foundation.h>
#include <unistd.h>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo::AppGroup {
namespace {

// A failure shows when a file in the folder is read or written.
void make(NSURL* folder) {
    [NSFileManager.defaultManager createDirectoryAtURL:folder
                           withIntermediateDirectories:YES
                                            attributes:nil
                                                 error:nil];
}

// A group's URL does not mean that the process may use it: Apple's documentation of the method has
// the caller test that.
bool isUsable(NSURL* folder) {
    const std::string path = textOf(folder.path).value_or("");
    return isFolder(path) && access(path.c_str(), R_OK | W_OK | X_OK) == 0;
}

NSURL* groupContainer(const std::optional<std::string>& identifier, bool isMade) {
    NSString* group = identifier ? foundationText(*identifier) : nil;
    NSURL* folder = group == nil ? nil
                                 : [NSFileManager.defaultManager
                                       containerURLForSecurityApplicationGroupIdentifier:group];
    if (folder == nil) {
        return nil;
    }
    if (isMade) {
        make(folder);
    } else if (!itemExists(textOf(folder.path).value_or(""))) {
        return folder;
    }
    return isUsable(folder) ? folder : nil;
}

NSURL* folderWithoutGroup(bool isMade) {
    NSFileManager* files = NSFileManager.defaultManager;
    NSURL* support = [files URLsForDirectory:NSApplicationSupportDirectory
                                   inDomains:NSUserDomainMask]
                         .firstObject;
    NSURL* folder = [support URLByAppendingPathComponent:@"Halvo-NoGroup" isDirectory:YES];
    if (folder != nil && isMade) {
        make(folder);
    }
    return folder;
}

std::string folderOf(const std::optional<std::string>& identifier, bool isMade) {
    @autoreleasepool {
        NSURL* container = groupContainer(identifier, isMade);
        return textOf((container != nil ? container : folderWithoutGroup(isMade)).path)
            .value_or("");
    }
}

}  // namespace

std::string pathOf(const std::optional<std::string>& identifier) {
    return folderOf(identifier, false);
}

std::string containerOf(const std::optional<std::string>& identifier) {
    return folderOf(identifier, true);
}

}  // namespace halvo::AppGroup
