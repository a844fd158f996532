// Foundation's wrappers of plain values: NSData, NSDate, NSError and NSURL.
#include <unistd.h>

#include "../Parts.hpp"

@implementation NSData {
  @public
    std::string _bytes;
}

+ (instancetype)dataWithBytes:(const void*)bytes length:(NSUInteger)length {
    return fake::dataOf(std::string(static_cast<const char*>(bytes), length));
}

- (NSUInteger)length {
    return _bytes.size();
}

- (const void*)bytes {
    return _bytes.data();
}

@end

@implementation NSDate

+ (instancetype)dateWithTimeIntervalSince1970:(NSTimeInterval)seconds {
    NSDate* date = [[self alloc] init];
    date->_timeIntervalSince1970 = seconds;
    return date;
}

@end

@implementation NSError {
  @public
    NSString* _localizedDescription;
}
@end

// For file URLs only.
@implementation NSURL

+ (NSURL*)fileURLWithPath:(NSString*)path {
    if (path == nil) {
        fake::refuse("nil as a path");
    }
    NSURL* url = [[NSURL alloc] init];
    url->_path = [path copy];
    return url;
}

// For paths without ".." and symlinks. Apple's documentation: an initial "/private" is removed if
// the rest names an existing file.
- (NSURL*)URLByStandardizingPath {
    const std::string prefix = "/private";
    const std::string path = fake::textOf(_path);
    const bool isShorter =
        path.starts_with(prefix + "/") && access(path.c_str() + prefix.size(), F_OK) == 0;
    return isShorter ? [NSURL fileURLWithPath:fake::stringOf(path.substr(prefix.size()))] : self;
}

- (NSURL*)URLByAppendingPathComponent:(NSString*)component isDirectory:(BOOL)isDirectory {
    const std::string path = fake::textOf(_path);
    const std::string sign = path.ends_with('/') ? "" : "/";
    return [NSURL fileURLWithPath:fake::stringOf(path + sign + fake::textOf(component))];
}

@end

namespace fake {

NSData* dataOf(const std::string& bytes) {
    NSData* data = [[NSData alloc] init];
    data->_bytes = bytes;
    return data;
}

NSError* errorOf(const std::string& description) {
    NSError* error = [[NSError alloc] init];
    error->_localizedDescription = stringOf(description);
    return error;
}

}  // namespace fake
