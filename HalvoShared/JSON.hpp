// Records as JSON: one object without blanks, its keys in the order of their bytes, dates as in
// InternetDate.hpp. A record declares its members in its class, once for both directions:
//
//     struct Person {
//         std::string name;
//         std::optional<WallDate> born;
//         std::int64_t visits = 1;
//
//         static constexpr std::tuple members{
//             JSON::Member{"name", &Person::name},
//             JSON::Member{"born", &Person::born},
//             JSON::Member{"visits", &Person::visits, JSON::mayBeMissing},
//         };
//     };
//
// A member is a bool, a std::int32_t, a std::int64_t, a std::string, a WallDate, a UUID, a record,
// a std::vector or std::optional of these, or what is listed in `names`: an enumeration, which is
// stored as the name of its enumerator, or a std::variant of records, which is an object with one
// key, the name of the alternative.
//
//     template <>
//     inline constexpr auto JSON::names<Level> = JSON::list("gentle", "firm");
//
// The source of a record includes Coding.hpp and instantiates decode() and encode() for it; this
// header is enough for their callers.
#pragma once

#include <array>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

namespace halvo::JSON {

// Why a text is not the JSON of a record, or a record has no JSON.
struct Error {
    enum class Kind {
        // The text is not JSON, or not UTF-8.
        Malformed,
        // A required member is missing.
        MissingMember,
        // A member is of another JSON type, or a variant has not one alternative.
        TypeMismatch,
        // A member is of the right type, and its value is none that it can have.
        BadValue,
    };

    Kind kind{};
    // The way to what is wrong, "phases[3].state.block._0.level"; empty for the whole.
    std::string path;
    // What is wrong with it, a sentence or a part of one without a full stop.
    std::string problem;

    bool operator==(const Error&) const = default;
};

// For a person: "PATH: PROBLEM", or the problem alone where it concerns the whole.
std::string description(const Error& error);

// The record that `json` holds. Members that it does not declare are passed over; of a key that
// comes twice the last counts, though each must be right. A NUL byte is no part of JSON, not even
// at the end. A whole number is one that 64 bits hold, never one that is rounded to that; with a
// fraction or an exponent it is read as a double first. Uses no more stack however deep the text is
// nested. Throws std::bad_alloc.
template <class T>
std::expected<T, Error> decode(std::string_view json);

// The JSON of `value`. Fails for texts that are not UTF-8, dates that no text can give, and
// enumerators without a name. Throws std::bad_alloc.
template <class T>
std::expected<std::string, Error> encode(const T& value);

template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

// A member that is missing or null is what a new record has in its place. An optional member always
// may be, and is left out while it is absent; the others are always written.
inline constexpr bool mayBeMissing = true;

template <class Record, class Value>
struct Member {
    std::string_view key;
    Value Record::* place;
    bool isMissable = isOptional<Value>;
};

// The names of an enumeration's enumerators from 0 on, or of a variant's alternatives.
template <class T>
inline constexpr std::array<std::string_view, 0> names{};

template <class... Text>
constexpr std::array<std::string_view, sizeof...(Text)> list(Text... texts) {
    return {texts...};
}

}  // namespace halvo::JSON
