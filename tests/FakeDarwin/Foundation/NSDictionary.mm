#include <utility>
#include <vector>

#include "Foundation.hpp"

@implementation NSDictionary {
    // In the order of its making; equal keys are not looked for, literals have none.
    std::vector<std::pair<id, id>> _members;
}

+ (instancetype)dictionaryWithObjects:(const id _Nonnull[])objects
                              forKeys:(const id _Nonnull[])keys
                                count:(NSUInteger)count {
    NSDictionary* dictionary = [[self alloc] init];
    for (NSUInteger i = 0; i < count; ++i) {
        if (keys[i] == nil || objects[i] == nil) {
            fake::refuse("nil in a dictionary");
        }
        dictionary->_members.emplace_back([keys[i] copy], objects[i]);
    }
    return dictionary;
}

- (NSUInteger)count {
    return _members.size();
}

- (id)objectForKeyedSubscript:(id)key {
    for (const auto& [name, value] : _members) {
        if ([name isEqual:key]) {
            return value;
        }
    }
    return nil;
}

- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)length {
    state->mutationsPtr = &state->extra[0];
    state->itemsPtr = buffer;
    NSUInteger given = 0;
    while (given < length && state->state < _members.size()) {
        buffer[given++] = _members[state->state++].first;
    }
    return given;
}

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end

// What the compiler loads for the literal @{} (from macOS 10.11 on).
@interface FakeEmptyDictionary : NSDictionary
@end

@implementation FakeEmptyDictionary
@end

extern "C" {
id __NSDictionary0__ = nil;
}

namespace {

// Before the variables of other sources, and after the classes.
__attribute__((constructor(103))) void makeEmpty() {
    __NSDictionary0__ = [[FakeEmptyDictionary alloc] init];
}

}  // namespace
