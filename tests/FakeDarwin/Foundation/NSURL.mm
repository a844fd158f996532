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
