// Blocks, as in clang's "Block Implementation Specification"; without __block variables.
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

struct Block : Object {
    int flags;
    int reserved;
    void* invoke;
    const Descriptor* descriptor;
};

// The flags: the reference count in steps of two, and marks.
constexpr int referencesMask = 0xfffe;
constexpr int oneReference = 2;
constexpr int onHeap = 1 << 24;
constexpr int hasHelpers = 1 << 25;
// A block that captures nothing; it is never copied.
constexpr int isGlobal = 1 << 28;

// The kinds of captured variables that the helpers pass.
constexpr int objectKind = 3;
constexpr int blockKind = 7;

}  // namespace

// The class is in Objects.mm.
extern "C" Class _NSConcreteStackBlock;

bool isBlock(const Object* object) { return object->isa == &_NSConcreteStackBlock; }

bool isHeapBlock(const Object* object) {
    return isBlock(object) && (static_cast<const Block*>(object)->flags & onHeap) != 0;
}

}  // namespace fake::objc

using namespace fake::objc;

extern "C" {

void* _Block_copy(const void* address) {
    auto* source = static_cast<Block*>(const_cast<void*>(address));
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
    if ((copy->flags & hasHelpers) != 0) {
        copy->descriptor->copy(copy, source);
    }
    return copy;
}

void _Block_release(const void* address) {
    auto* released = static_cast<Block*>(const_cast<void*>(address));
    if (released == nullptr || (released->flags & onHeap) == 0) {
        return;
    }
    released->flags -= oneReference;
    if ((released->flags & referencesMask) == 0) {
        if ((released->flags & hasHelpers) != 0) {
            released->descriptor->dispose(released);
        }
        std::free(released);
    }
}

void _Block_object_assign(void* target, const void* value, int kind) {
    if (kind != objectKind && kind != blockKind) {
        fail("a block captures a variable of kind %d", kind);
    }
    auto* captured = static_cast<Object*>(const_cast<void*>(value));
    *static_cast<void**>(target) = kind == blockKind ? _Block_copy(value) : objc_retain(captured);
}

void _Block_object_dispose(const void* value, int) {
    objc_release(static_cast<Object*>(const_cast<void*>(value)));
}
}
