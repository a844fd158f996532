// A small Objective-C runtime for ELF on x86_64: the functions and data structures of Apple's
// runtime
// (-fobjc-runtime=macosx), with the layouts of Apple's published objc4 and of clang's
// CGObjCMac.cpp, as far as clang emits them for the macOS layer. Without categories, forwarding,
// key-value coding, +load, +initialize and @try. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace fake::objc {

// Interned names (see intern()), which compare as pointers.
using Selector = const char*;
using Implementation = void (*)();

// ---- Data structures that the compiler emits ----

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
};

// In ClassData::flags: a metaclass, which has the "+" methods.
constexpr std::uint32_t metaclassFlag = 1;

// This runtime's own data of a class.
struct ClassTable {
    std::unordered_map<Selector, Implementation> methods;
    // For literals: retain and release have no effect.
    bool immortal = false;
    // The number of live instances, including those of subclasses.
    long alive = 0;
};

// The two words after the superclass belong to the runtime; the compiler initialises them to
// _objc_empty_cache and zero.
struct Class {
    Class* isa;
    Class* superclass;
    ClassTable* table;
    void* unused;
    ClassData* data;
};

struct Object {
    Class* isa;
};

// The entries of a list, which may be null.
template <typename List>
auto entriesOf(const List* list) {
    using Entries = std::span<const std::remove_extent_t<decltype(List::entries)>>;
    return list == nullptr ? Entries() : Entries(list->entries, list->count);
}

// ---- Internal functions ----

// The interned copy of `name`.
Selector intern(const char* name);

// nullptr when there is none.
Class* classNamed(std::string_view name);

// The method of `type` or of a class above it; nullptr when there is none.
Implementation find(const Class* type, Selector selector);

bool isKindOf(const Class* type, const Class* wanted);
bool conforms(const Class* type, const Protocol* protocol);

// A block, and one that was copied to the heap.
bool isBlock(const Object* object);
bool isHeapBlock(const Object* object);

// Prints the message and aborts.
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fake::objc

extern "C" {
// The method that objc_msgSend (MessageSend.cpp) jumps to.
void* fakeLookUp(const fake::objc::Class* type, fake::objc::Selector selector);

fake::objc::Object* objc_retain(fake::objc::Object* object);
void objc_release(fake::objc::Object* object);
void* objc_autoreleasePoolPush();
void objc_autoreleasePoolPop(void* token);
void* _Block_copy(const void* block);
void _Block_release(const void* block);
}
