#include <filesystem>
#include <system_error>

#include "../FakeDarwin.hpp"
#include "../Parts.hpp"

@implementation NSFileManager

+ (NSFileManager*)defaultManager {
    return [[NSFileManager alloc] init];
}

- (NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)group {
    if (group == nil) {
        fake::refuse("nil as a group");
    }
    const fake::World& world = fake::world();
    const std::string name = fake::textOf(group);
    const auto found = world.groupContainers.find(name);
    const std::string other = "/proc/Group Containers/" + name;
    return
        [NSURL fileURLWithPath:fake::stringOf(
                                   found == world.groupContainers.end() ? other : found->second)];
}

- (NSArray<NSURL*>*)URLsForDirectory:(NSSearchPathDirectory)directory
                           inDomains:(NSSearchPathDomainMask)domains {
    NSMutableArray<NSURL*>* urls = [NSMutableArray array];
    const std::string& support = fake::world().applicationSupport;
    if (directory == NSApplicationSupportDirectory && domains == NSUserDomainMask &&
        !support.empty()) {
        [urls addObject:[NSURL fileURLWithPath:fake::stringOf(support)]];
    }
    return urls;
}

- (BOOL)createDirectoryAtURL:(NSURL*)url
    withIntermediateDirectories:(BOOL)intermediate
                     attributes:(NSDictionary<NSString*, id>*)attributes
                          error:(NSError**)error {
    if (url == nil || !intermediate) {
        fake::refuse("a folder without a place, or alone");
    }
    std::error_code failure;
    std::filesystem::create_directories(fake::textOf(url.path), failure);
    return failure ? NO : YES;
}

@end
