// Records as JSON: one object without blanks, its keys in the order of their bytes, dates as in
// InternetDate.hpp. What a record's members are is declared with the words of Coding.hpp.
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "HalvoShared/Coding.hpp"

namespace halvo::JSON {

// Why a text is not the JSON of a record.
struct DecodingError {
    enum class Kind {
        // The text is not JSON, or not UTF-8.
        Malformed,
        // A required member is missing.
        MissingMember,
        // A member is of another JSON type, or a choice has not one case.
        TypeMismatch,
        // A member is of the right type, and its value is none that it can have.
        BadValue,
    };

    Kind kind{};
    // The way to what is wrong, "phases[3].state.block._0.level"; empty for the whole.
    std::string path;
    // What is wrong with it, a sentence or a part of one without a full stop.
    std::string problem;

    bool operator==(const DecodingError&) const = default;
};

// Why a record has no JSON: the member at `path` and what is wrong with it.
struct EncodingError {
    std::string path;
    std::string problem;

    bool operator==(const EncodingError&) const = default;
};

// For a person: "PATH: PROBLEM", or the problem alone where it concerns the whole.
std::string description(const DecodingError& error);
std::string description(const EncodingError& error);

// As decode() and encode(), for a value of `type`.
std::expected<void, DecodingError> decodeInto(void* value, const coding::Type& type,
                                              std::string_view json);
std::expected<std::string, EncodingError> encodeFrom(const void* value, const coding::Type& type);

// The record that `json` holds. Members that it does not declare are passed over; of a key that
// comes twice the last counts. A zero byte is no part of JSON, not even at the end. A whole number
// is one that 64 bits hold, never one that is rounded to that; with a fraction or an exponent it is
// read as a double first. Uses no more stack however deep the text is nested, and memory in
// proportion to its length.
template <class T>
std::expected<T, DecodingError> decode(std::string_view json) {
    T value{};
    const auto decoded = decodeInto(&value, coding::Coding<T>::type(), json);
    if (!decoded) {
        return std::unexpected(decoded.error());
    }
    return value;
}

// The JSON of `value`. Fails for texts that are not UTF-8, dates that no text can give, and
// enumerators without a name.
template <class T>
std::expected<std::string, EncodingError> encode(const T& value) {
    return encodeFrom(&value, coding::Coding<T>::type());
}

}  // namespace halvo::JSON
