#include "Foundation.hpp"

@implementation NSError {
  @public
    NSString* _description;
}

- (NSString*)localizedDescription {
    return _description;
}

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end

namespace fake {

NSError* errorOf(const std::string& description) {
    NSError* error = [[NSError alloc] init];
    error->_description = stringOf(description);
    return error;
}

}  // namespace fake
