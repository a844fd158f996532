// Records as JSON: one object without blanks, its keys in the order of their bytes, dates as in
// RFC3339.hpp. A record names its members in its class, once for both directions:
//
//     struct Person {
//         std::string name;
//         std::optional<WallDate> born;
//         std::int64_t visits = 1;
//
//         HALVO_RECORD(Person, name, born, visits)
//         static constexpr bool mayBeMissing(std::string_view key) { return key == "visits"; }
//     };
//
// A member is a bool, a std::int32_t, a std::int64_t, a std::string, a WallDate, a UUID, a record,
// a std::vector or std::optional of these, or what is listed in `names`: an enumeration, which is
// stored as the name of its enumerator, or a std::variant of records, which is an object with one
// key, the name of the alternative.
//
//     template <>
//     inline constexpr std::string_view JSON::names<Level> = "gentle, firm";
//
// A member that is optional, or for whose key mayBeMissing() is true, has its default when it is
// missing or null. An absent optional is not written; all other members are.
//
// The source of a record includes Coding.hpp and instantiates decode() and encode() for it; this
// header is enough for their callers.
#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <tuple>

namespace halvo::JSON {

// Why a text is not the JSON of a record, or a record has no JSON.
struct Error {
    // Where the error is, "phases[3].state.block._0.level"; empty for the whole.
    std::string path;
    // A sentence, or the predicate of one, without a full stop.
    std::string problem;

    bool operator==(const Error&) const = default;
};

// For a person: "PATH: PROBLEM", or the problem alone when the path is empty.
inline std::string description(const Error& error) {
    return (error.path.empty() ? "" : error.path + ": ") + error.problem;
}

// Decodes a record. Unknown members are ignored; of a duplicate key the last member counts, though
// each must be valid. A NUL byte is an error anywhere. Whole numbers are never rounded to fit; one
// with a fraction or an exponent is read as a double first. Stack use does not depend on how deep
// the text is nested. Throws std::bad_alloc.
template <class T>
std::expected<T, Error> decode(std::string_view json);

// Encodes a record. Fails for texts that are not UTF-8, dates outside the years 0 to 9999, and
// enumerators without a name. Throws std::bad_alloc.
template <class T>
std::expected<std::string, Error> encode(const T& value);

// The names, separated by ", ", of an enumeration's enumerators from 0 on, of a variant's
// alternatives, or of a record's members.
template <class T>
inline constexpr std::string_view names{};

template <class T>
    requires requires { T::memberNames; }
inline constexpr std::string_view names<T> = T::memberNames;

}  // namespace halvo::JSON

// NOLINTBEGIN(cppcoreguidelines-macro-usage,bugprone-macro-parentheses): no function knows the
// names of its arguments.

// Makes the class `Type` a record: names its members that are stored, and compares all of them.
#define HALVO_RECORD(Type, ...) HALVO_RECORD_WITH_KEYS(Type, #__VA_ARGS__, __VA_ARGS__)

// The same, the members under the keys `keys`, which are separated by ", ".
#define HALVO_RECORD_WITH_KEYS(Type, keys, ...)                          \
    static constexpr std::string_view memberNames = keys;                \
    auto members() { return std::tie(__VA_ARGS__); }                     \
    [[nodiscard]] auto members() const { return std::tie(__VA_ARGS__); } \
    bool operator==(const Type&) const = default;

// NOLINTEND(cppcoreguidelines-macro-usage,bugprone-macro-parentheses)
