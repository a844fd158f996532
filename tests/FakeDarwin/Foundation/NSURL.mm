#include <unistd.h>

#include "Foundation.hpp"

// URLs of files only.
@implementation NSURL {
    NSString* _path;
}

+ (NSURL*)fileURLWithPath:(NSString*)path {
    if (path == nil) {
        fake::refuse("nil as a path");
    }
    NSURL* url = [[NSURL alloc] init];
    url->_path = [path copy];
    return url;
}

- (NSString*)path {
    return _path;
}

// Of a path that is plain already. Apple's documentation: an initial "/private" goes if what is
// left leads to something that exists.
- (NSURL*)URLByStandardizingPath {
    const std::string prefix = "/private";
    const std::string path = fake::textOf(_path);
    const bool isShorter =
        path.starts_with(prefix + "/") && access(path.c_str() + prefix.size(), F_OK) == 0;
    return isShorter ? [NSURL fileURLWithPath:fake::stringOf(path.substr(prefix.size()))] : self;
}

- (NSURL*)URLByAppendingPathComponent:(NSString*)component isDirectory:(BOOL)isDirectory {
    std::string path = fake::textOf(_path);
    if (!path.ends_with('/')) {
        path += '/';
    }
    return [NSURL fileURLWithPath:fake::stringOf(path + fake::textOf(component))];
}

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end
