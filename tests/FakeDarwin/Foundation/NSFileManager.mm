#include <filesystem>
#include <system_error>

#include "../FakeDarwin.hpp"
#include "Foundation.hpp"

@implementation NSFileManager

+ (NSFileManager*)defaultManager {
    return [[NSFileManager alloc] init];
}

- (NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)group {
    if (group == nil) {
        fake::refuse("nil as a group");
    }
    const auto& containers = fake::world().groupContainers;
    const std::string name = fake::textOf(group);
    const auto found = containers.find(name);
    return
        [NSURL fileURLWithPath:fake::stringOf(found == containers.end()
                                                  ? fake::world().otherGroupContainers + "/" + name
                                                  : found->second)];
}

- (NSArray<NSURL*>*)URLsForDirectory:(NSSearchPathDirectory)directory
                           inDomains:(NSSearchPathDomainMask)domains {
    NSMutableArray<NSURL*>* urls = [NSMutableArray array];
    if (directory == NSApplicationSupportDirectory && domains == NSUserDomainMask &&
        !fake::world().applicationSupport.empty()) {
        [urls addObject:[NSURL fileURLWithPath:fake::stringOf(fake::world().applicationSupport)]];
    }
    return urls;
}

- (BOOL)createDirectoryAtURL:(NSURL*)url
    withIntermediateDirectories:(BOOL)intermediate
                     attributes:(NSDictionary<NSFileAttributeKey, id>*)attributes
                          error:(NSError**)error {
    if (url == nil || attributes != nil) {
        fake::refuse(url == nil ? "nil as a folder's place" : "a folder's attributes");
    }
    const std::string path = fake::textOf(url.path);
    std::error_code failure;
    if (intermediate) {
        std::filesystem::create_directories(path, failure);
    } else if (!std::filesystem::create_directory(path, failure) && !failure) {
        failure = std::make_error_code(std::errc::file_exists);
    }
    if (failure && error != nullptr) {
        *error = fake::errorOf(failure.message());
    }
    return failure ? NO : YES;
}

@end
