// How a record is written as JSON and read back: each declares its members once, and gets both
// directions from that.
//
// A record's declaration stands in its own source file:
//
//     template <>
//     const coding::Type& coding::Coding<Person>::type() {
//         static const Type record = RecordType({
//             required<&Person::name>("name"),
//             optional<&Person::born>("born"),
//             defaulted<&Person::visits>("visits", [] { return 1; }),
//         });
//         return record;
//     }
//
// and a line in its header says that it is there:
//
//     template <>
//     const coding::Type& coding::Coding<Person>::type();
//
// All of it is made at its first use, lives as long as the process, and is for any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/UUID.hpp"

namespace halvo::coding {

struct ScalarType;
struct ListType;
struct RecordType;
struct ChoiceType;

// What a value is and how to reach its parts. The values themselves are passed as untyped pointers,
// so that one reader and one writer serve all types.
using Type = std::variant<ScalarType, ListType, RecordType, ChoiceType>;

// The type of a T: a bool, a std::int32_t, a std::int64_t, a std::string, a WallDate, a UUID, a
// vector of any of these but bool, and whatever declares itself. T has a default value.
template <class T>
struct Coding {
    static const Type& type();
};

// A JSON value that has no parts. The text is borrowed.
using Scalar =
    std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, const std::string*>;

// How a scalar was taken.
enum class Taken { Whole, WrongType, BadValue };

struct ScalarType {
    // What it must be, for a person: "a whole number".
    std::string expected;
    Taken (*take)(const Scalar& scalar, void* value);
    // Appends its JSON; says why it cannot, as a part of a sentence, else nothing.
    std::optional<std::string> (*append)(const void* value, std::string& json);
};

struct ListType {
    const Type& (*element)();
    void (*clear)(void* list);
    // A new element at the end.
    void* (*append)(void* list);
    std::size_t (*size)(const void* list);
    const void* (*at)(const void* list, std::size_t index);
};

// A member of a record.
struct Field {
    std::string_view key;
    const Type& (*type)();
    // Where its value goes.
    void* (*place)(void* record);
    // Where its value is; null when it is absent and not to be written.
    const void* (*find)(const void* record);
    // Sets it when it is missing or null; null for a required one, which must be there.
    void (*omit)(void* record);
};

// An object with a key for each member.
struct RecordType {
    explicit RecordType(std::vector<Field> declared);

    // In the order of the declaration.
    std::vector<Field> fields;
    // Places in `fields`, in the order of the keys' bytes.
    std::vector<std::size_t> sorted;
};

// An alternative of a choice.
struct Case {
    std::string_view name;
    // Null when it carries nothing.
    const Type& (*payload)();
    // Makes the variant hold this alternative and gives the place of its payload.
    void* (*choose)(void* variant);
    // The place of the payload; meaningless without one.
    const void* (*find)(const void* variant);
};

// A std::variant: an object with one key, the case's name, whose value is an object with the
// payload as "_0", or with nothing.
struct ChoiceType {
    ChoiceType(std::vector<Case> declared, std::size_t (*indexOf)(const void* variant));

    // One for each alternative, in the variant's order.
    std::vector<Case> cases;
    std::size_t (*index)(const void* variant);
};

inline constexpr std::string_view payloadKey = "_0";
// A set of keys is kept as the bits of one number.
inline constexpr std::size_t mostKeys = 64;

// Only declarations below: the words that a record's declaration is written with.

template <class Member>
struct MemberOf;

template <class R, class V>
struct MemberOf<V R::*> {
    using Record = R;
    using Value = V;
};

template <auto member>
using RecordOf = typename MemberOf<decltype(member)>::Record;
template <auto member>
using ValueOf = typename MemberOf<decltype(member)>::Value;

// A member that every file has.
template <auto member>
Field required(std::string_view key) {
    using Record = RecordOf<member>;
    return {key, &Coding<ValueOf<member>>::type,
            [](void* record) -> void* { return &(static_cast<Record*>(record)->*member); },
            [](const void* record) -> const void* {
                return &(static_cast<const Record*>(record)->*member);
            },
            nullptr};
}

// A std::optional that is left out when it is absent, and absent when it is missing or null.
template <auto member>
Field optional(std::string_view key) {
    using Record = RecordOf<member>;
    using Value = typename ValueOf<member>::value_type;
    return {
        key, &Coding<Value>::type,
        [](void* record) -> void* { return &(static_cast<Record*>(record)->*member).emplace(); },
        [](const void* record) -> const void* {
            const auto& value = static_cast<const Record*>(record)->*member;
            return value ? &*value : nullptr;
        },
        [](void* record) { (static_cast<Record*>(record)->*member).reset(); }};
}

// A member that is always written; when it is missing or null it is what Default{}() gives.
template <auto member, class Default>
Field defaulted(std::string_view key, Default) {
    using Record = RecordOf<member>;
    Field field = required<member>(key);
    field.omit = [](void* record) { static_cast<Record*>(record)->*member = Default{}(); };
    return field;
}

// The alternative of Variant that holds `member`.
template <class Variant, auto member>
Case payload(std::string_view name) {
    using Alternative = RecordOf<member>;
    return {name, &Coding<ValueOf<member>>::type,
            [](void* variant) -> void* {
                return &(static_cast<Variant*>(variant)->template emplace<Alternative>().*member);
            },
            [](const void* variant) -> const void* {
                return &(std::get<Alternative>(*static_cast<const Variant*>(variant)).*member);
            }};
}

// The alternative of Variant that holds nothing.
template <class Variant, class Alternative>
Case bare(std::string_view name) {
    return {name, nullptr,
            [](void* variant) -> void* {
                return &static_cast<Variant*>(variant)->template emplace<Alternative>();
            },
            [](const void* variant) { return variant; }};
}

template <class Variant>
ChoiceType choice(std::vector<Case> cases) {
    return {std::move(cases),
            [](const void* variant) { return static_cast<const Variant*>(variant)->index(); }};
}

// An enumeration that is stored as its names, those of the enumerators from 0 on.
// Specialised by: template <> struct coding::Names<Level> { static constexpr std::array texts{...};
// };
template <class Enumeration>
struct Names;

// `text` as JSON, or why it cannot be: it is not UTF-8.
std::optional<std::string> appendText(std::string_view text, std::string& json);

template <class Enumeration>
ScalarType enumeration() {
    std::string expected = "one of";
    for (const std::string_view text : Names<Enumeration>::texts) {
        expected += expected.ends_with("of") ? " \"" : ", \"";
        expected += text;
        expected += '"';
    }
    return {std::move(expected),
            [](const Scalar& scalar, void* value) {
                const auto* const* text = std::get_if<const std::string*>(&scalar);
                if (text == nullptr) {
                    return Taken::WrongType;
                }
                int number = 0;
                for (const std::string_view name : Names<Enumeration>::texts) {
                    if (name == **text) {
                        *static_cast<Enumeration*>(value) = static_cast<Enumeration>(number);
                        return Taken::Whole;
                    }
                    ++number;
                }
                return Taken::BadValue;
            },
            [](const void* value, std::string& json) -> std::optional<std::string> {
                const auto number =
                    static_cast<std::size_t>(*static_cast<const Enumeration*>(value));
                if (number >= Names<Enumeration>::texts.size()) {
                    return "is none of the values that have a name";
                }
                return appendText(Names<Enumeration>::texts[number], json);
            }};
}

template <class T>
struct Coding<std::vector<T>> {
    static const Type& type() {
        using List = std::vector<T>;
        static const Type list = ListType{
            &Coding<T>::type, [](void* value) { static_cast<List*>(value)->clear(); },
            [](void* value) -> void* { return &static_cast<List*>(value)->emplace_back(); },
            [](const void* value) { return static_cast<const List*>(value)->size(); },
            [](const void* value, std::size_t index) -> const void* {
                return &(*static_cast<const List*>(value))[index];
            }};
        return list;
    }
};

template <>
const Type& Coding<bool>::type();
template <>
const Type& Coding<std::int32_t>::type();
template <>
const Type& Coding<std::int64_t>::type();
template <>
const Type& Coding<std::string>::type();
template <>
const Type& Coding<WallDate>::type();
template <>
const Type& Coding<UUID>::type();

}  // namespace halvo::coding
