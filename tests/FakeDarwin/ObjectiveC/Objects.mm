// Objects: the root class and the classes of protocols and blocks; allocation and deallocation,
// reference counts, autorelease pools, weak references, properties. The functions are those of
// clang's "Automatic Reference Counting" document. Compiled without ARC, which it implements.
#include <objc/NSObject.h>

#include <cstdlib>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "Runtime.hpp"

namespace fake::objc {
namespace {

// Precedes every object in memory.
struct alignas(16) Header {
    long references = 1;
};

Header& headerOf(Object* object) { return *(reinterpret_cast<Header*>(object) - 1); }

bool isImmortal(const Object* object) {
    return (object->isa->data->flags & metaclassFlag) != 0 || object->isa->table->immortal;
}

// Constructs or destroys the C++ members of one of the object's classes.
void runOwn(const Class* type, Object* object, const char* name) {
    const auto found = type->table->methods.find(intern(name));
    if (found != type->table->methods.end()) {
        reinterpret_cast<void (*)(Object*, Selector)>(found->second)(object, found->first);
    }
}

// From the root class downwards.
void constructMembers(const Class* type, Object* object) {
    if (type != nullptr) {
        constructMembers(type->superclass, object);
        runOwn(type, object, ".cxx_construct");
        type->table->alive += 1;
    }
}

// The autoreleased objects of one thread; drained at the latest with the thread.
struct AutoreleasePool {
    ~AutoreleasePool() { drain(0); }

    // Releasing may add more.
    void drain(std::size_t size) {
        while (objects.size() > size) {
            Object* last = objects.back();
            objects.pop_back();
            objc_release(last);
        }
    }

    std::vector<Object*> objects;
};

AutoreleasePool& pool() {
    static thread_local AutoreleasePool own;
    return own;
}

// Hidden from LeakSanitizer, which must not take it for a strong reference.
std::uintptr_t hidden(const void* address) { return ~reinterpret_cast<std::uintptr_t>(address); }

// The weak references: (object, variable), both hidden.
std::set<std::pair<std::uintptr_t, std::uintptr_t>>& weakReferences() {
    static auto& all = *new std::set<std::pair<std::uintptr_t, std::uintptr_t>>;
    return all;
}

void clearWeakReferences(Object* object) {
    const auto first = weakReferences().lower_bound({hidden(object), 0});
    auto last = first;
    for (; last != weakReferences().end() && last->first == hidden(object); ++last) {
        *reinterpret_cast<Object**>(~last->second) = nullptr;
    }
    weakReferences().erase(first, last);
}

Object** variableAt(Object* object, std::ptrdiff_t offset) {
    return reinterpret_cast<Object**>(reinterpret_cast<char*>(object) + offset);
}

Class* classOf(id object) { return reinterpret_cast<Object*>(object)->isa; }

}  // namespace

extern "C" {

id objc_alloc(id type) { return [type alloc]; }

id objc_alloc_init(id type) { return [[type alloc] init]; }

// A block on the stack cannot be retained; only objc_retainBlock() copies it.
Object* objc_retain(Object* object) {
    if (object == nullptr) {
        return object;
    }
    if (isHeapBlock(object)) {
        _Block_copy(object);
    } else if (!isBlock(object) && !isImmortal(object)) {
        headerOf(object).references += 1;
    }
    return object;
}

void objc_release(Object* object) {
    if (object == nullptr) {
        return;
    }
    if (isBlock(object)) {
        _Block_release(object);
    } else if (!isImmortal(object)) {
        const long left = headerOf(object).references -= 1;
        if (left < 0) {
            fail("%s was released too often", object->isa->data->name);
        }
        if (left == 0) {
            clearWeakReferences(object);
            [reinterpret_cast<id>(object) dealloc];
        }
    }
}

void objc_storeStrong(Object** variable, Object* object) {
    objc_retain(object);
    objc_release(std::exchange(*variable, object));
}

Object* objc_retainBlock(Object* block) { return static_cast<Object*>(_Block_copy(block)); }

Object* objc_autorelease(Object* object) {
    if (object != nullptr) {
        pool().objects.push_back(object);
    }
    return object;
}

// The token is the previous size of the thread's pool plus one, and so never null.
void* objc_autoreleasePoolPush() { return reinterpret_cast<void*>(pool().objects.size() + 1); }

void objc_autoreleasePoolPop(void* token) {
    pool().drain(reinterpret_cast<std::size_t>(token) - 1);
}

// Apple's runtime may bypass the pool between these pairs; that is an optimisation only.
Object* objc_autoreleaseReturnValue(Object* object) { return objc_autorelease(object); }

Object* objc_retainAutorelease(Object* object) { return objc_autorelease(objc_retain(object)); }

Object* objc_retainAutoreleaseReturnValue(Object* object) { return objc_retainAutorelease(object); }

Object* objc_retainAutoreleasedReturnValue(Object* object) { return objc_retain(object); }

Object* objc_unsafeClaimAutoreleasedReturnValue(Object* object) { return object; }

Object* objc_storeWeak(Object** variable, Object* object) {
    weakReferences().erase({hidden(*variable), hidden(variable)});
    if (object != nullptr) {
        weakReferences().insert({hidden(object), hidden(variable)});
    }
    return *variable = object;
}

Object* objc_initWeak(Object** variable, Object* object) {
    *variable = nullptr;
    return objc_storeWeak(variable, object);
}

void objc_destroyWeak(Object** variable) { objc_storeWeak(variable, nullptr); }

// Weak references are cleared before deallocation.
Object* objc_loadWeakRetained(Object** variable) { return objc_retain(*variable); }

void objc_copyWeak(Object** to, Object** from) { objc_initWeak(to, *from); }

Object* objc_getProperty(Object* self, Selector, std::ptrdiff_t offset, bool) {
    return objc_retainAutorelease(*variableAt(self, offset));
}

void objc_setProperty_atomic(Object* self, Selector, Object* value, std::ptrdiff_t offset) {
    objc_storeStrong(variableAt(self, offset), value);
}

void objc_setProperty_atomic_copy(Object* self, Selector, id value, std::ptrdiff_t offset) {
    auto* copy = reinterpret_cast<Object*>([value copy]);
    objc_release(std::exchange(*variableAt(self, offset), copy));
}
}

}  // namespace fake::objc

namespace objc = fake::objc;

@implementation NSObject

+ (instancetype)alloc {
    auto* type = reinterpret_cast<objc::Class*>(self);
    void* memory = std::calloc(1, sizeof(objc::Header) + type->data->instanceSize);
    auto* object = reinterpret_cast<objc::Object*>(new (memory) objc::Header + 1);
    object->isa = type;
    objc::constructMembers(type, object);
    return reinterpret_cast<id>(object);
}

+ (instancetype)new {
    return [[self alloc] init];
}

+ (Class)class {
    return self;
}

- (instancetype)init {
    return self;
}

- (void)dealloc {
    auto* object = reinterpret_cast<objc::Object*>(self);
    for (const auto* each = object->isa; each != nullptr; each = each->superclass) {
        objc::runOwn(each, object, ".cxx_destruct");
        each->table->alive -= 1;
    }
    std::free(&objc::headerOf(object));
}

// Only immutable objects, and blocks, are copied.
- (id)copy {
    return reinterpret_cast<id>(objc_retain(reinterpret_cast<objc::Object*>(self)));
}

- (BOOL)isEqual:(id)other {
    return self == other;
}

- (BOOL)isKindOfClass:(Class)wanted {
    return objc::isKindOf(objc::classOf(self), reinterpret_cast<objc::Class*>(wanted));
}

- (BOOL)conformsToProtocol:(Protocol*)protocol {
    return objc::conforms(objc::classOf(self), reinterpret_cast<objc::Protocol*>(protocol));
}

@end

@interface Protocol : NSObject
@end

@implementation Protocol
@end

@interface FakeBlock : NSObject
@end

@implementation FakeBlock

- (id)copy {
    return static_cast<id>(_Block_copy(self));
}

@end

// The names by which the compiler refers to the classes of blocks.
__asm__(R"(
.globl _NSConcreteStackBlock
.set _NSConcreteStackBlock, "OBJC_CLASS_$_FakeBlock"
.globl _NSConcreteGlobalBlock
.set _NSConcreteGlobalBlock, "OBJC_CLASS_$_FakeBlock"
)");
