// A small Objective-C runtime for ELF on x86_64: what clang calls and lays out when it compiles for
// Apple's runtime (-fobjc-runtime=macosx). The layouts are those of Apple's published objc4 and of
// clang's CGObjCMac.cpp; only what the compiler emits for our sources is here. There is no
// forwarding, no key-value coding, no +load and +initialize, no @try.
//
// Methods and classes are read once, before main(), and never change: sending a message takes no
// lock. A lock there would order all threads, and hide from the thread sanitizer what it looks for.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fake::objc {

// Selectors are names of which there is one copy each (see intern()), so that they compare as
// pointers.
using Selector = const char*;
using Implementation = void (*)();

// ---- What the compiler lays out ----

struct Method {
    Selector name;
    const char* types;
    Implementation implementation;
};

struct MethodList {
    std::uint32_t entrySize;
    std::uint32_t count;
    Method entries[1];
};

struct InstanceVariable {
    // Of 64 bits on x86_64.
    std::int64_t* offset;
    const char* name;
    const char* type;
    std::uint32_t alignment;
    std::uint32_t size;
};

struct InstanceVariableList {
    std::uint32_t entrySize;
    std::uint32_t count;
    InstanceVariable entries[1];
};

struct Class;
struct ProtocolList;

struct Protocol {
    Class* isa;
    const char* name;
    ProtocolList* protocols;
};

struct ProtocolList {
    std::size_t count;
    Protocol* entries[1];
};

struct ClassData {
    std::uint32_t flags;
    std::uint32_t instanceStart;
    std::uint32_t instanceSize;
    std::uint32_t reserved;
    const void* layout;
    const char* name;
    MethodList* methods;
    ProtocolList* protocols;
    InstanceVariableList* variables;
    const void* weakLayout;
    const void* properties;
};

// In ClassData::flags: the class of a class, which holds its "+" methods.
constexpr std::uint32_t metaclassFlag = 1;

// What this runtime knows of a class besides.
struct ClassTable {
    std::unordered_map<Selector, Implementation> methods;
    std::vector<ProtocolList*> protocols;
    // Of literals and the like: retaining and releasing them does nothing.
    bool immortal = false;
    // Instances that are alive, those of subclasses included.
    std::atomic<long> alive{0};
};

// The two words after the superclass are the runtime's; the compiler fills them with
// _objc_empty_cache and zero.
struct Class {
    Class* isa;
    Class* superclass;
    ClassTable* table;
    void* unused;
    ClassData* data;
};

struct Category {
    const char* name;
    Class* extended;
    MethodList* instanceMethods;
    MethodList* classMethods;
    ProtocolList* protocols;
};

struct Object {
    Class* isa;
};

// ---- Between the parts of the runtime ----

// The one copy of `name`.
Selector intern(const char* name);

Class* classNamed(std::string_view name);

// The method of `type` or of a class above it; nullptr when there is none.
Implementation find(const Class* type, Selector selector);

bool conforms(const Class* type, const Protocol* protocol);

inline bool isClass(const Object* object) {
    return (object->isa->data->flags & metaclassFlag) != 0;
}

bool isBlock(const Object* object);

// Ends the process.
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fake::objc

extern "C" {
// What NSObject is made of.
fake::objc::Object* fakeAllocate(fake::objc::Class* type);
void fakeDeallocate(fake::objc::Object* object);
// What objc_msgSend (MessageSend.cpp) jumps to.
void* fakeLookUp(fake::objc::Object* receiver, fake::objc::Selector selector);
void* fakeLookUpAbove(fake::objc::Class* current, fake::objc::Selector selector);

fake::objc::Object* objc_retain(fake::objc::Object* object);
void objc_release(fake::objc::Object* object);
fake::objc::Object* objc_autorelease(fake::objc::Object* object);
void* objc_autoreleasePoolPush();
void objc_autoreleasePoolPop(void* token);
void* _Block_copy(const void* block);
void _Block_release(const void* block);
// Of a block on the heap; does nothing to others.
void fakeRetainBlock(fake::objc::Object* block);
}
