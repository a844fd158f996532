// NSArray and NSDictionary, with the methods that literals call.
#include <algorithm>
#include <utility>
#include <vector>

#include "../Parts.hpp"

@implementation NSArray {
  @protected
    std::vector<id> _elements;
}

+ (instancetype)array {
    return [[self alloc] init];
}

- (id)firstObject {
    return _elements.empty() ? nil : _elements.front();
}

// Returns the elements in place, in one batch.
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)length {
    const bool isFirst = state->state++ == 0;
    state->mutationsPtr = &state->extra[0];
    state->itemsPtr =
        reinterpret_cast<id __unsafe_unretained*>(reinterpret_cast<void*>(_elements.data()));
    return isFirst ? _elements.size() : 0;
}

@end

@implementation NSMutableArray

- (void)addObject:(id)object {
    if (object == nil) {
        fake::refuse("nil as an element of an array");
    }
    _elements.push_back(object);
}

// Not the same object, as this one is mutable.
- (id)copy {
    NSArray* copy = [NSArray array];
    copy->_elements = _elements;
    return copy;
}

@end

@implementation NSDictionary {
    // In order of insertion; duplicate keys are not checked for.
    std::vector<std::pair<id, id>> _members;
}

+ (instancetype)dictionaryWithObjects:(const id _Nonnull[])objects
                              forKeys:(const id _Nonnull[])keys
                                count:(NSUInteger)count {
    NSDictionary* dictionary = [[self alloc] init];
    for (NSUInteger i = 0; i < count; ++i) {
        dictionary->_members.emplace_back([keys[i] copy], objects[i]);
    }
    return dictionary;
}

- (id)objectForKeyedSubscript:(id)key {
    const auto found = std::ranges::find_if(
        _members, [&](const auto& member) { return [member.first isEqual:key] != NO; });
    return found == _members.end() ? nil : found->second;
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

@end

// The compiler loads this variable for the literal @{} (macOS 10.11 and later).
@interface FakeEmptyDictionary : NSDictionary
@end

@implementation FakeEmptyDictionary
@end

extern "C" {
id __NSDictionary0__ = nil;
}

// After the registration of the classes, before other static initialisers.
__attribute__((constructor(103))) static void makeEmptyDictionary() {
    __NSDictionary0__ = [[FakeEmptyDictionary alloc] init];
}
