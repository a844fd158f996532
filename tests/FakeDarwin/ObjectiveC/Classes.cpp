// Registers the classes and protocols that the compiler placed in sections of the executable.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_set>

#include "../FakeDarwin.hpp"
#include "Runtime.hpp"

namespace fake::objc {
namespace {

// ld(1) defines these symbols for sections whose names are C identifiers.
extern "C" {
extern Class* __start_objc_classlist[] __attribute__((weak, visibility("hidden")));
extern Class* __stop_objc_classlist[] __attribute__((weak, visibility("hidden")));
extern Protocol* __start_objc_protolist[] __attribute__((weak, visibility("hidden")));
extern Protocol* __stop_objc_protolist[] __attribute__((weak, visibility("hidden")));
extern Selector __start_objc_selrefs[] __attribute__((weak, visibility("hidden")));
extern Selector __stop_objc_selrefs[] __attribute__((weak, visibility("hidden")));
}

// Never destroyed: objects may still be about when the process exits.
std::unordered_map<std::string_view, Class*>& classes() {
    static auto& all = *new std::unordered_map<std::string_view, Class*>;
    return all;
}

void prepare(Class* type) {
    if (type == nullptr || classes().contains(type->data->name)) {
        return;
    }
    prepare(type->superclass);
    // The compiler places instance variables after those of the superclass that it sees.
    if (type->superclass != nullptr &&
        type->superclass->data->instanceSize > type->data->instanceStart) {
        fail("%s is not beside its superclass, which has variables", type->data->name);
    }
    for (Class* each : {type, type->isa}) {
        each->table = new ClassTable;
        for (const Method& method : entriesOf(each->data->methods)) {
            each->table->methods[intern(method.name)] = method.implementation;
        }
    }
    classes()[type->data->name] = type;
}

// Before every constructor that could send a message.
__attribute__((constructor(101))) void load() {
    for (Selector& each : std::span(__start_objc_selrefs, __stop_objc_selrefs)) {
        each = intern(each);
    }
    for (Class* each : std::span(__start_objc_classlist, __stop_objc_classlist)) {
        prepare(each);
    }
    for (Protocol* each : std::span(__start_objc_protolist, __stop_objc_protolist)) {
        each->isa = classNamed("Protocol");
    }
    for (const char* name : {"Protocol", "FakeConstantString", "FakeEmptyDictionary"}) {
        if (Class* type = classNamed(name)) {
            type->table->immortal = true;
        }
    }
}

bool listed(const ProtocolList* list, std::string_view name) {
    return std::ranges::any_of(entriesOf(list), [&](const Protocol* each) {
        return each->name == name || listed(each->protocols, name);
    });
}

}  // namespace

Selector intern(const char* name) {
    static auto& names = *new std::unordered_set<std::string>;
    return names.emplace(name).first->c_str();
}

Class* classNamed(std::string_view name) {
    const auto found = classes().find(name);
    return found == classes().end() ? nullptr : found->second;
}

Implementation find(const Class* type, Selector selector) {
    for (; type != nullptr; type = type->superclass) {
        const auto found = type->table->methods.find(selector);
        if (found != type->table->methods.end()) {
            return found->second;
        }
    }
    return nullptr;
}

bool isKindOf(const Class* type, const Class* wanted) {
    return type != nullptr && (type == wanted || isKindOf(type->superclass, wanted));
}

bool conforms(const Class* type, const Protocol* protocol) {
    return type != nullptr && protocol != nullptr &&
           (listed(type->data->protocols, protocol->name) || conforms(type->superclass, protocol));
}

void fail(const char* format, ...) {
    std::fputs("FakeDarwin: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::abort();
}

}  // namespace fake::objc

namespace fake {

long liveObjects(const char* name) {
    const objc::Class* type = objc::classNamed(name);
    if (type == nullptr) {
        objc::fail("there is no class %s", name);
    }
    return type->table->alive;
}

}  // namespace fake

using namespace fake::objc;

extern "C" {

// Referenced by every class that the compiler emits.
struct {
    void* words[2];
} _objc_empty_cache;

void* fakeLookUp(const Class* type, Selector selector) {
    const Implementation found = find(type, selector);
    if (found == nullptr) {
        fail("%c[%s %s] is not implemented", (type->data->flags & metaclassFlag) != 0 ? '+' : '-',
             type->data->name, selector);
    }
    return reinterpret_cast<void*>(found);
}

void objc_enumerationMutation(Object*) { fail("a collection was changed while it was enumerated"); }
}
