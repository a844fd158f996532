// Blocks, after clang's "Block Implementation Specification".
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Runtime.hpp"

namespace fake::objc {
namespace {

struct Descriptor {
    unsigned long reserved;
    unsigned long size;
    // Only with hasHelpers.
    void (*copy)(void* to, const void* from);
    void (*dispose)(const void* block);
};

struct Block {
    Class* isa;
    std::atomic<int> flags;
    int reserved;
    void* invoke;
    const Descriptor* descriptor;
};

// A variable marked __block; it moves to the heap with the first block that does.
struct Shared {
    void* isa;
    Shared* forwarding;
    std::atomic<int> flags;
    int size;
    // Only with hasHelpers.
    void (*keep)(void* to, void* from);
    void (*destroy)(void* variable);
};

// In the flags of both: the count of references in steps of two, and marks.
constexpr int referencesMask = 0xfffe;
constexpr int oneReference = 2;
constexpr int onHeap = 1 << 24;
constexpr int hasHelpers = 1 << 25;
// A block that captures nothing; it is never copied.
constexpr int isGlobal = 1 << 28;

// What a captured variable is, as helpers say it.
constexpr int object = 3;
constexpr int block = 7;
constexpr int sharedVariable = 8;
constexpr int kindMask = 3 | 7 | 8;
// Said by the helpers of a shared variable: whatever is inside is not retained.
constexpr int fromShared = 128;

bool dropReference(std::atomic<int>& flags) {
    return (flags.fetch_sub(oneReference) & referencesMask) == oneReference;
}

Block* blockOf(const void* address) { return static_cast<Block*>(const_cast<void*>(address)); }

Shared* share(Shared* source) {
    Shared* current = source->forwarding;
    if ((current->flags & onHeap) != 0) {
        current->flags += oneReference;
        return current;
    }
    auto* copy = static_cast<Shared*>(std::malloc(static_cast<std::size_t>(source->size)));
    std::memcpy(static_cast<void*>(copy), static_cast<void*>(source),
                static_cast<std::size_t>(source->size));
    // One for the function that declared it, one for the block.
    copy->flags = (source->flags & ~referencesMask) | onHeap | 2 * oneReference;
    copy->forwarding = copy;
    source->forwarding = copy;
    if ((copy->flags & hasHelpers) != 0) {
        copy->keep(copy, source);
    }
    return copy;
}

void unshare(Shared* variable) {
    Shared* current = variable->forwarding;
    if ((current->flags & onHeap) == 0 || !dropReference(current->flags)) {
        return;
    }
    if ((current->flags & hasHelpers) != 0) {
        current->destroy(current);
    }
    std::free(current);
}

}  // namespace

// The classes are in NSObject.mm.
extern "C" {
extern Class _NSConcreteStackBlock;
extern Class _NSConcreteMallocBlock;
extern Class _NSConcreteGlobalBlock;
}

bool isBlock(const Object* candidate) {
    return candidate->isa == &_NSConcreteStackBlock || candidate->isa == &_NSConcreteMallocBlock ||
           candidate->isa == &_NSConcreteGlobalBlock;
}

}  // namespace fake::objc

using namespace fake::objc;

extern "C" {

void fakeRetainBlock(Object* retained) {
    if (retained->isa == &_NSConcreteMallocBlock) {
        blockOf(retained)->flags += oneReference;
    }
}

void* _Block_copy(const void* address) {
    Block* source = blockOf(address);
    if (source == nullptr || (source->flags & isGlobal) != 0) {
        return source;
    }
    if ((source->flags & onHeap) != 0) {
        source->flags += oneReference;
        return source;
    }
    auto* copy = static_cast<Block*>(std::malloc(source->descriptor->size));
    std::memcpy(static_cast<void*>(copy), static_cast<void*>(source), source->descriptor->size);
    copy->flags = (source->flags & ~referencesMask) | onHeap | oneReference;
    copy->isa = &_NSConcreteMallocBlock;
    if ((copy->flags & hasHelpers) != 0) {
        copy->descriptor->copy(copy, source);
    }
    return copy;
}

void _Block_release(const void* address) {
    Block* released = blockOf(address);
    if (released == nullptr || (released->flags & onHeap) == 0 || !dropReference(released->flags)) {
        return;
    }
    if ((released->flags & hasHelpers) != 0) {
        released->descriptor->dispose(released);
    }
    std::free(released);
}

void _Block_object_assign(void* target, const void* value, int flags) {
    auto** variable = static_cast<const void**>(target);
    void* captured = const_cast<void*>(value);
    switch (flags & (kindMask | fromShared)) {
        case object:
            *variable = objc_retain(static_cast<Object*>(captured));
            break;
        case block:
            *variable = _Block_copy(value);
            break;
        case sharedVariable:
            *variable = share(static_cast<Shared*>(captured));
            break;
        default:
            *variable = value;
            break;
    }
}

void _Block_object_dispose(const void* value, int flags) {
    void* captured = const_cast<void*>(value);
    switch (flags & (kindMask | fromShared)) {
        case object:
            objc_release(static_cast<Object*>(captured));
            break;
        case block:
            _Block_release(value);
            break;
        case sharedVariable:
            unshare(static_cast<Shared*>(captured));
            break;
        default:
            break;
    }
}
}
