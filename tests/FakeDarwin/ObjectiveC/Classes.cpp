// Classes, categories and protocols, as the compiler left them in the sections of the executable.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <unordered_set>

#include "../FakeDarwin.hpp"
#include "Runtime.hpp"

namespace fake::objc {
namespace {

// The names of the sections are C identifiers, for which the linker makes these (ld(1)).
extern "C" {
extern Class* __start_objc_classlist[] __attribute__((weak, visibility("hidden")));
extern Class* __stop_objc_classlist[] __attribute__((weak, visibility("hidden")));
extern Category* __start_objc_catlist[] __attribute__((weak, visibility("hidden")));
extern Category* __stop_objc_catlist[] __attribute__((weak, visibility("hidden")));
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

void addMethods(Class* type, const MethodList* list) {
    for (std::uint32_t i = 0; list != nullptr && i < list->count; ++i) {
        const Method& method = list->entries[i];
        type->table->methods[intern(method.name)] = method.implementation;
    }
}

void addProtocols(Class* type, ProtocolList* list) {
    if (list != nullptr) {
        type->table->protocols.push_back(list);
    }
}

// The compiler places a class's variables behind those of the superclass that it sees, without
// those in the superclass's @implementation: they move behind the whole of it.
void moveVariables(const Class* type) {
    ClassData& data = *type->data;
    if (type->superclass == nullptr || type->superclass->data->instanceSize <= data.instanceStart) {
        return;
    }
    constexpr std::uint32_t alignment = 16;
    const std::uint32_t by =
        (type->superclass->data->instanceSize - data.instanceStart + alignment - 1) &
        ~(alignment - 1);
    for (std::uint32_t i = 0; data.variables != nullptr && i < data.variables->count; ++i) {
        *data.variables->entries[i].offset += by;
    }
    data.instanceStart += by;
    data.instanceSize += by;
}

void prepare(Class* type) {
    if (type == nullptr || classes().contains(type->data->name)) {
        return;
    }
    prepare(type->superclass);
    moveVariables(type);
    for (Class* each : {type, type->isa}) {
        each->table = new ClassTable;
        addMethods(each, each->data->methods);
        addProtocols(each, each->data->protocols);
    }
    classes()[type->data->name] = type;
}

// Before every constructor that could send a message.
__attribute__((constructor(101))) void load() {
    for (Selector* each = __start_objc_selrefs; each != __stop_objc_selrefs; ++each) {
        *each = intern(*each);
    }
    for (Class** each = __start_objc_classlist; each != __stop_objc_classlist; ++each) {
        prepare(*each);
    }
    for (Category** each = __start_objc_catlist; each != __stop_objc_catlist; ++each) {
        const Category& category = **each;
        addMethods(category.extended, category.instanceMethods);
        addMethods(category.extended->isa, category.classMethods);
        addProtocols(category.extended, category.protocols);
    }
    for (Protocol** each = __start_objc_protolist; each != __stop_objc_protolist; ++each) {
        (*each)->isa = classNamed("Protocol");
    }
    for (const char* name :
         {"Protocol", "FakeConstantString", "FakeEmptyArray", "FakeEmptyDictionary"}) {
        if (Class* type = classNamed(name)) {
            type->table->immortal = true;
        }
    }
}

bool inherits(const Protocol* protocol, const char* name) {
    if (std::strcmp(protocol->name, name) == 0) {
        return true;
    }
    const ProtocolList* list = protocol->protocols;
    for (std::size_t i = 0; list != nullptr && i < list->count; ++i) {
        if (inherits(list->entries[i], name)) {
            return true;
        }
    }
    return false;
}

[[noreturn]] void failUnimplemented(const Object* receiver, Selector selector) {
    fail("%c[%s %s] is not implemented", isClass(receiver) ? '+' : '-', receiver->isa->data->name,
         selector);
}

}  // namespace

// Only while loading, which one thread does.
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

bool conforms(const Class* type, const Protocol* protocol) {
    for (; protocol != nullptr && type != nullptr; type = type->superclass) {
        for (const ProtocolList* list : type->table->protocols) {
            for (std::size_t i = 0; i < list->count; ++i) {
                if (inherits(list->entries[i], protocol->name)) {
                    return true;
                }
            }
        }
    }
    return false;
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
    return type->table->alive.load();
}

}  // namespace fake

using namespace fake::objc;

extern "C" {

// What the compiler puts where the runtime keeps its own.
struct {
    void* words[2];
} _objc_empty_cache;

void* fakeLookUp(Object* receiver, Selector selector) {
    const Implementation found = find(receiver->isa, selector);
    if (found == nullptr) {
        failUnimplemented(receiver, selector);
    }
    return reinterpret_cast<void*>(found);
}

void* fakeLookUpAbove(Class* current, Selector selector) {
    const Implementation found = find(current->superclass, selector);
    if (found == nullptr) {
        fail("[super %s] in %s is not implemented", selector, current->data->name);
    }
    return reinterpret_cast<void*>(found);
}

Class* object_getClass(Object* object) { return object == nullptr ? nullptr : object->isa; }

signed char objc_opt_isKindOfClass(Object* object, const Class* wanted) {
    const Class* type = object == nullptr ? nullptr : object->isa;
    while (type != nullptr && type != wanted) {
        type = type->superclass;
    }
    return type != nullptr ? 1 : 0;
}

signed char fakeResponds(const Class* type, Selector selector) {
    return find(type, selector) != nullptr ? 1 : 0;
}

signed char fakeConforms(const Class* type, const Protocol* protocol) {
    return conforms(type, protocol) ? 1 : 0;
}

const char* fakeProtocolName(const Protocol* protocol) {
    return protocol == nullptr ? "" : protocol->name;
}

void objc_enumerationMutation(Object*) { fail("a collection was changed while it was enumerated"); }
}
