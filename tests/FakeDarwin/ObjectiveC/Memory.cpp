// Objects: their making and end, reference counts, autorelease pools, weak references, properties.
// The functions are those of clang's "Automatic Reference Counting" document.
#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "Runtime.hpp"

namespace fake::objc {
namespace {

// In front of every object.
struct alignas(16) Header {
    std::atomic<long> references{1};
    // Whether a weak reference was ever made; most objects then never ask for the lock.
    std::atomic<bool> hasWeak{false};
};

Header& headerOf(Object* object) { return *(reinterpret_cast<Header*>(object) - 1); }

bool isImmortal(const Object* object) { return isClass(object) || object->isa->table->immortal; }

struct Selectors {
    Selector alloc = intern("alloc");
    Selector init = intern("init");
    Selector copy = intern("copy");
    Selector dealloc = intern("dealloc");
    Selector construct = intern(".cxx_construct");
    Selector destruct = intern(".cxx_destruct");
};

// Made before the variables of other sources, whose making may send messages.
__attribute__((init_priority(102))) const Selectors selectors;

Object* send(Object* receiver, Selector selector) {
    if (receiver == nullptr) {
        return nullptr;
    }
    using Call = Object* (*)(Object*, Selector);
    return reinterpret_cast<Call>(fakeLookUp(receiver, selector))(receiver, selector);
}

// The C++ members of one class of the object's.
void runOwn(const Class* type, Object* object, Selector selector) {
    const auto found = type->table->methods.find(selector);
    if (found != type->table->methods.end()) {
        reinterpret_cast<void (*)(Object*, Selector)>(found->second)(object, selector);
    }
}

// From the root class on downwards.
void constructMembers(const Class* type, Object* object) {
    if (type != nullptr) {
        constructMembers(type->superclass, object);
        runOwn(type, object, selectors.construct);
    }
}

// What waits for its release on one thread. What no pool holds goes with the thread.
class AutoreleasePool {
  public:
    ~AutoreleasePool() { drain(0); }

    void add(Object* object) { objects_.push_back(object); }

    [[nodiscard]] std::size_t size() const { return objects_.size(); }

    // Releasing may add more.
    void drain(std::size_t size) {
        while (objects_.size() > size) {
            Object* last = objects_.back();
            objects_.pop_back();
            objc_release(last);
        }
    }

  private:
    std::vector<Object*> objects_;
};

AutoreleasePool& pool() {
    static thread_local AutoreleasePool own;
    return own;
}

// Which variables refer weakly to which objects. Both are kept as complements, so that the leak
// sanitizer does not take this table for a reference: it finds cycles then.
class WeakReferences {
  public:
    void set(Object** variable, Object* object) {
        const std::scoped_lock lock(mutex_);
        forget(variable);
        *variable = object;
        if (object != nullptr) {
            headerOf(object).hasWeak = true;
            variables_[hidden(object)].push_back(hidden(variable));
        }
    }

    // Retained, or nothing when the object is on its way out.
    Object* get(Object** variable) {
        const std::scoped_lock lock(mutex_);
        Object* object = *variable;
        if (object == nullptr || isImmortal(object)) {
            return object;
        }
        std::atomic<long>& references = headerOf(object).references;
        long count = references.load();
        while (count > 0 && !references.compare_exchange_weak(count, count + 1)) {
        }
        return count > 0 ? object : nullptr;
    }

    void clear(Object* object) {
        const std::scoped_lock lock(mutex_);
        const auto found = variables_.find(hidden(object));
        if (found == variables_.end()) {
            return;
        }
        for (const std::uintptr_t variable : found->second) {
            *reinterpret_cast<Object**>(~variable) = nullptr;
        }
        variables_.erase(found);
    }

  private:
    static std::uintptr_t hidden(const void* address) {
        return ~reinterpret_cast<std::uintptr_t>(address);
    }

    void forget(Object** variable) {
        const auto found = variables_.find(hidden(*variable));
        if (*variable != nullptr && found != variables_.end()) {
            std::erase(found->second, hidden(variable));
        }
    }

    std::mutex mutex_;
    std::unordered_map<std::uintptr_t, std::vector<std::uintptr_t>> variables_;
};

WeakReferences& weakReferences() {
    static auto& all = *new WeakReferences;
    return all;
}

Object** variableAt(Object* object, std::ptrdiff_t offset) {
    return reinterpret_cast<Object**>(reinterpret_cast<char*>(object) + offset);
}

// One for all atomic properties.
std::mutex& propertyLock() {
    static auto& lock = *new std::mutex;
    return lock;
}

void replace(Object** variable, Object* retained) {
    objc_release(std::exchange(*variable, retained));
}

void replaceAtomically(Object** variable, Object* retained) {
    Object* old = nullptr;
    {
        const std::scoped_lock lock(propertyLock());
        old = std::exchange(*variable, retained);
    }
    objc_release(old);
}

}  // namespace
}  // namespace fake::objc

using namespace fake::objc;

extern "C" {

Object* fakeAllocate(Class* type) {
    void* memory = std::calloc(1, sizeof(Header) + type->data->instanceSize);
    if (memory == nullptr) {
        fail("no memory");
    }
    auto* object = reinterpret_cast<Object*>(new (memory) Header + 1);
    object->isa = type;
    for (const Class* each = type->table->immortal ? nullptr : type; each != nullptr;
         each = each->superclass) {
        each->table->alive.fetch_add(1, std::memory_order_relaxed);
    }
    constructMembers(type, object);
    return object;
}

void fakeDeallocate(Object* object) {
    for (const Class* each = object->isa; each != nullptr; each = each->superclass) {
        runOwn(each, object, selectors.destruct);
        each->table->alive.fetch_sub(1, std::memory_order_relaxed);
    }
    std::free(&headerOf(object));
}

Object* objc_alloc(Class* type) { return send(reinterpret_cast<Object*>(type), selectors.alloc); }

Object* objc_alloc_init(Class* type) { return send(objc_alloc(type), selectors.init); }

// A block on the stack is not retained but copied, by objc_retainBlock() only.
Object* objc_retain(Object* object) {
    if (object == nullptr) {
        return object;
    }
    if (isBlock(object)) {
        fakeRetainBlock(object);
    } else if (!isImmortal(object)) {
        headerOf(object).references.fetch_add(1, std::memory_order_relaxed);
    }
    return object;
}

void objc_release(Object* object) {
    if (object == nullptr) {
        return;
    }
    if (isBlock(object)) {
        _Block_release(object);
        return;
    }
    if (isImmortal(object)) {
        return;
    }
    const long left = headerOf(object).references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left < 0) {
        fail("%s was released too often", object->isa->data->name);
    }
    if (left == 0) {
        if (headerOf(object).hasWeak) {
            weakReferences().clear(object);
        }
        send(object, selectors.dealloc);
    }
}

void objc_storeStrong(Object** variable, Object* object) { replace(variable, objc_retain(object)); }

Object* objc_retainBlock(Object* block) { return static_cast<Object*>(_Block_copy(block)); }

Object* objc_autorelease(Object* object) {
    if (object != nullptr) {
        pool().add(object);
    }
    return object;
}

// The token is the size of the thread's pool before, and never null.
void* objc_autoreleasePoolPush() { return reinterpret_cast<void*>(pool().size() + 1); }

void objc_autoreleasePoolPop(void* token) {
    pool().drain(reinterpret_cast<std::size_t>(token) - 1);
}

// Apple's runtime may skip the pool between these pairs; that it does is no promise.
Object* objc_autoreleaseReturnValue(Object* object) { return objc_autorelease(object); }

Object* objc_retainAutorelease(Object* object) { return objc_autorelease(objc_retain(object)); }

Object* objc_retainAutoreleaseReturnValue(Object* object) { return objc_retainAutorelease(object); }

Object* objc_retainAutoreleasedReturnValue(Object* object) { return objc_retain(object); }

Object* objc_claimAutoreleasedReturnValue(Object* object) { return objc_retain(object); }

Object* objc_unsafeClaimAutoreleasedReturnValue(Object* object) { return object; }

Object* objc_storeWeak(Object** variable, Object* object) {
    weakReferences().set(variable, object);
    return object;
}

Object* objc_initWeak(Object** variable, Object* object) {
    *variable = nullptr;
    return objc_storeWeak(variable, object);
}

void objc_destroyWeak(Object** variable) { objc_storeWeak(variable, nullptr); }

Object* objc_loadWeakRetained(Object** variable) { return weakReferences().get(variable); }

void objc_copyWeak(Object** to, Object** from) {
    Object* object = objc_loadWeakRetained(from);
    objc_initWeak(to, object);
    objc_release(object);
}

Object* objc_getProperty(Object* self, Selector, std::ptrdiff_t offset, bool atomic) {
    if (!atomic) {
        return *variableAt(self, offset);
    }
    Object* value = nullptr;
    {
        const std::scoped_lock lock(propertyLock());
        value = objc_retain(*variableAt(self, offset));
    }
    return objc_autorelease(value);
}

void objc_setProperty_nonatomic_copy(Object* self, Selector, Object* value, std::ptrdiff_t offset) {
    replace(variableAt(self, offset), send(value, selectors.copy));
}

void objc_setProperty_atomic_copy(Object* self, Selector, Object* value, std::ptrdiff_t offset) {
    replaceAtomically(variableAt(self, offset), send(value, selectors.copy));
}
}

// Of functions in Objective-C++ that clean up while a C++ exception passes: clang mostly names the
// personality of C++ itself.
__asm__(R"(
.text
.globl __objc_personality_v0
.type __objc_personality_v0, @function
__objc_personality_v0:
    jmp __gxx_personality_v0@PLT
)");
