#include "Foundation.hpp"

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

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end

namespace fake {

NSData* dataOf(const std::string& bytes) {
    NSData* data = [[NSData alloc] init];
    data->_bytes = bytes;
    return data;
}

}  // namespace fake
