#include <vector>

#include "Foundation.hpp"

@implementation NSArray {
  @protected
    std::vector<id> _elements;
}

+ (instancetype)array {
    return [[self alloc] init];
}

+ (instancetype)arrayWithObjects:(const id _Nonnull[])objects count:(NSUInteger)count {
    NSArray* array = [[self alloc] init];
    array->_elements.assign(objects, objects + count);
    return array;
}

- (NSUInteger)count {
    return _elements.size();
}

- (id)firstObject {
    return _elements.empty() ? nil : _elements.front();
}

- (id)objectAtIndexedSubscript:(NSUInteger)index {
    if (index >= _elements.size()) {
        fake::refuse("an index beyond the end of an array");
    }
    return _elements[index];
}

// Gives away the elements where they lie, all at once.
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)length {
    if (state->state != 0) {
        return 0;
    }
    state->state = 1;
    state->mutationsPtr = &state->extra[0];
    state->itemsPtr =
        reinterpret_cast<id __unsafe_unretained*>(reinterpret_cast<void*>(_elements.data()));
    return _elements.size();
}

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end

@implementation NSMutableArray

- (void)addObject:(id)object {
    if (object == nil) {
        fake::refuse("nil as an element of an array");
    }
    _elements.push_back(object);
}

// Of its own, so that later changes do not reach it.
- (id)copy {
    return [NSArray arrayWithObjects:_elements.data() count:_elements.size()];
}

@end

// What the compiler loads for the literal @[] (from macOS 10.11 on).
@interface FakeEmptyArray : NSArray
@end

@implementation FakeEmptyArray
@end

extern "C" {
id __NSArray0__ = nil;
}

namespace {

// Before the variables of other sources, and after the classes.
__attribute__((constructor(103))) void makeEmpty() { __NSArray0__ = [[FakeEmptyArray alloc] init]; }

}  // namespace
