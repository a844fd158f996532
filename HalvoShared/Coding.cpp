#include "HalvoShared/Coding.hpp"

#include <algorithm>
#include <cmath>
#include <concepts>
#include <limits>
#include <nlohmann/json.hpp>

#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/InternetDate.hpp"

namespace halvo::coding {
namespace {

template <class T>
std::optional<std::string> appendNumber(const void* value, std::string& json) {
    json += std::to_string(*static_cast<const T*>(value));
    return std::nullopt;
}

// A JSON number is one number however it is spelled: 5, 5.0 and 0.5e1 are the same.
template <class T>
Taken takeInteger(const Scalar& scalar, void* value) {
    const auto fit = [value](auto number) {
        using Number = decltype(number);
        if constexpr (std::floating_point<Number>) {
            // A power of two, and so exact.
            constexpr double end = -static_cast<double>(std::numeric_limits<T>::min());
            if (!(number >= -end && number < end) || std::trunc(number) != number) {
                return Taken::BadValue;
            }
        } else if (!std::in_range<T>(number)) {
            return Taken::BadValue;
        }
        *static_cast<T*>(value) = static_cast<T>(number);
        return Taken::Whole;
    };
    if (const auto* number = std::get_if<std::int64_t>(&scalar)) {
        return fit(*number);
    }
    if (const auto* number = std::get_if<std::uint64_t>(&scalar)) {
        return fit(*number);
    }
    if (const auto* number = std::get_if<double>(&scalar)) {
        return fit(*number);
    }
    return Taken::WrongType;
}

template <class T>
ScalarType integer() {
    return {"a whole number of " + std::to_string(sizeof(T) * 8) + " bits", takeInteger<T>,
            appendNumber<T>};
}

// A value that is read from a text by `parse`.
template <class T, std::optional<T> (*parse)(const std::string&)>
Taken takeText(const Scalar& scalar, void* value) {
    const auto* const* text = std::get_if<const std::string*>(&scalar);
    if (text == nullptr) {
        return Taken::WrongType;
    }
    auto parsed = parse(**text);
    if (!parsed) {
        return Taken::BadValue;
    }
    *static_cast<T*>(value) = *std::move(parsed);
    return Taken::Whole;
}

std::optional<std::string> anyText(const std::string& text) { return text; }

std::optional<WallDate> dateFrom(const std::string& text) { return InternetDate::parse(text); }

// What the bytes of a text ask for.
struct Needs {
    // JSON must spell some character in another way; RFC 8259, section 7.
    bool escapes = false;
    // There is more than ASCII in it.
    bool check = false;
};

Needs needsOf(std::string_view text) {
    Needs needs;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        needs.escapes |= byte < ' ' || byte == '"' || byte == '\\';
        needs.check |= byte >= 0x80;
    }
    return needs;
}

// Which keys were there is kept as the bits of one number.
void requireCountable(std::size_t keys) {
    if (keys > mostKeys) {
        fatal("A record or a choice has more keys than can be counted");
    }
}

}  // namespace

ChoiceType::ChoiceType(std::vector<Case> declared, std::size_t (*indexOf)(const void* variant))
    : cases(std::move(declared)), index(indexOf) {
    requireCountable(cases.size());
}

RecordType::RecordType(std::vector<Field> declared) : fields(std::move(declared)) {
    requireCountable(fields.size());
    for (std::size_t place = 0; place < fields.size(); ++place) {
        sorted.push_back(place);
    }
    std::ranges::sort(sorted, {}, [this](std::size_t place) { return fields[place].key; });
}

std::optional<std::string> appendText(std::string_view text, std::string& json) {
    const Needs needs = needsOf(text);
    if (needs.check && !isUTF8(text)) {
        return "is not UTF-8 text";
    }
    if (needs.escapes) {
        json += nlohmann::json(text).dump();
        return std::nullopt;
    }
    // Nearly every text, and the library's writer costs many times as much.
    json += '"';
    json += text;
    json += '"';
    return std::nullopt;
}

template <>
const Type& Coding<bool>::type() {
    static const Type type =
        ScalarType{"true or false",
                   [](const Scalar& scalar, void* value) {
                       const auto* yes = std::get_if<bool>(&scalar);
                       if (yes == nullptr) {
                           return Taken::WrongType;
                       }
                       *static_cast<bool*>(value) = *yes;
                       return Taken::Whole;
                   },
                   [](const void* value, std::string& json) -> std::optional<std::string> {
                       json += *static_cast<const bool*>(value) ? "true" : "false";
                       return std::nullopt;
                   }};
    return type;
}

template <>
const Type& Coding<std::int32_t>::type() {
    static const Type type = integer<std::int32_t>();
    return type;
}

template <>
const Type& Coding<std::int64_t>::type() {
    static const Type type = integer<std::int64_t>();
    return type;
}

template <>
const Type& Coding<std::string>::type() {
    static const Type type = ScalarType{
        "a text", takeText<std::string, anyText>, [](const void* value, std::string& json) {
            return appendText(*static_cast<const std::string*>(value), json);
        }};
    return type;
}

template <>
const Type& Coding<WallDate>::type() {
    static const Type type =
        ScalarType{"a date such as \"2026-11-20T09:30:00Z\"", takeText<WallDate, dateFrom>,
                   [](const void* value, std::string& json) -> std::optional<std::string> {
                       const std::size_t before = json.size();
                       json += '"';
                       if (!InternetDate::append(*static_cast<const WallDate*>(value), json)) {
                           json.resize(before);
                           return "is not a date of the years 0 to 9999";
                       }
                       json += '"';
                       return std::nullopt;
                   }};
    return type;
}

template <>
const Type& Coding<UUID>::type() {
    static const Type type =
        ScalarType{"a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"",
                   takeText<UUID, UUID::fromText>, [](const void* value, std::string& json) {
                       return appendText(static_cast<const UUID*>(value)->text(), json);
                   }};
    return type;
}

}  // namespace halvo::coding
