// How JSON.hpp reads and writes records, for the sources that declare them. What depends on no
// record is compiled once, in JSON.cpp: the library is slow to compile.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "HalvoShared/UUID.hpp"

namespace halvo::JSON {

// --- The document

// A JSON object that keeps every member of a duplicate key, in their order.
template <class Key, class Value, class... Rest>
class Members : public std::multimap<Key, Value, Rest...> {
  public:
    // Adds a member; the library's parser calls this for each key.
    Value& operator[](const Key& key) { return this->emplace(key, nullptr)->second; }
};

using Json = nlohmann::basic_json<Members>;

// Parses `text` into `root`. Returns memory to be freed before `root`: the library allocates to
// free a document, and ends the process when it cannot. Throws Error.
std::vector<char> parse(std::string_view text, Json& root);

// The JSON of a text, which must be UTF-8.
std::string quoted(std::string_view text);

// --- Errors

// Throws an Error without a path.
[[noreturn]] void fail(std::string problem);

// Fails with `expected` and what was found in its place, unless `isRight`.
void expect(bool isRight, std::string_view expected, const Json& found);

// Sets `value` to what `parse` returns for a text.
template <class Parse, class T>
void readText(const Json& json, std::string_view expected, Parse parse, T& value) {
    expect(json.is_string(), expected, json);
    const auto parsed = parse(json.get_ref<const std::string&>());
    expect(parsed.has_value(), expected, json);
    value = *parsed;  // NOLINT(bugprone-unchecked-optional-access): expect() throws.
}

// Whether the number is a T in any notation: 5, 5.0 and 0.5e1 are the same.
template <std::signed_integral T>
bool isWhole(const Json& json) {
    if (json.is_number_float()) {
        constexpr auto least = static_cast<double>(std::numeric_limits<T>::min());
        const auto number = json.get<double>();
        return number >= least && number < -least && std::trunc(number) == number;
    }
    return json.is_number_unsigned() ? std::in_range<T>(json.get<std::uint64_t>())
                                     : std::in_range<T>(json.get<std::int64_t>());
}

// Calls `action`, and prepends `step`, the key or index that it descends into, to the path of an
// Error.
template <class Step, class Action>
void within(const Step& step, Action action) {
    try {
        action();
    } catch (Error& error) {
        const bool isEnd = error.path.empty() || error.path.starts_with('[');
        error.path.insert(0, isEnd ? "" : ".");
        if constexpr (std::integral<Step>) {
            error.path.insert(0, "[" + std::to_string(step) + "]");
        } else {
            error.path.insert(0, step);
        }
        throw;
    }
}

// --- Declarations of records

template <class T>
concept Record = requires { T::memberNames; };

// The names<T> as a list.
template <class T>
inline constexpr auto nameList = [] {
    constexpr std::string_view all = names<T>;
    std::array<std::string_view, all.empty() ? 0 : std::ranges::count(all, ',') + 1> list{};
    std::size_t begin = 0;
    for (std::string_view& name : list) {
        name = all.substr(begin, all.find(',', begin) - begin);
        begin += name.size() + 2;
    }
    return list;
}();

// The indices of a record's members, sorted by key.
template <Record T>
inline constexpr auto sortedPlaces = [] {
    std::array<std::size_t, nameList<T>.size()> places{};
    std::iota(places.begin(), places.end(), 0);  // NOLINT(modernize-use-ranges): not in g++ 12.
    std::ranges::sort(places, {}, [](std::size_t place) { return nameList<T>[place]; });
    return places;
}();

// --- Overloads for each type, which throw Error

struct Coder {
    static void read(const Json& json, bool& value) {
        expect(json.is_boolean(), "true or false", json);
        value = json.get<bool>();
    }

    static void write(std::string& text, bool value) { text += value ? "true" : "false"; }

    static void read(const Json& json, std::string& value) {
        expect(json.is_string(), "a text", json);
        value = json.get_ref<const std::string&>();
    }

    static void write(std::string& text, std::string_view value) {
        const auto isPlain = [](unsigned char byte) {
            return byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\';
        };
        if (std::ranges::all_of(value, isPlain)) {
            // Nearly every text; the library's writer is many times slower.
            text.append("\"").append(value).append("\"");
        } else if (isUTF8(value)) {
            text += quoted(value);
        } else {
            fail("is not UTF-8 text");
        }
    }

    static void read(const Json& json, WallDate& value) {
        readText(json, "a date such as \"2026-11-20T09:30:00Z\"", RFC3339::parse, value);
    }

    static void write(std::string& text, WallDate value) {
        text += '"';
        if (!RFC3339::append(value, text)) {
            fail("is not a date of the years 0 to 9999");
        }
        text += '"';
    }

    static void read(const Json& json, UUID& value) {
        constexpr auto* expected = "a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"";
        readText(json, expected, UUID::fromText, value);
    }

    static void write(std::string& text, const UUID& value) { write(text, value.text()); }

    template <std::signed_integral T>
    static void read(const Json& json, T& value) {
        constexpr auto* expected =
            sizeof(T) == 8 ? "a whole number of 64 bits" : "a whole number of 32 bits";
        expect(json.is_number() && isWhole<T>(json), expected, json);
        value = json.get<T>();
    }

    template <std::signed_integral T>
    static void write(std::string& text, T value) {
        text += std::to_string(value);
    }

    template <class T>
        requires std::is_enum_v<T>
    static void read(const Json& json, T& value) {
        static const std::string expected = [] {
            std::string all = "one of";
            for (const std::string_view name : nameList<T>) {
                all.append(all.ends_with("of") ? " \"" : ", \"").append(name).append("\"");
            }
            return all;
        }();
        expect(json.is_string(), expected, json);
        const auto found = std::ranges::find(nameList<T>, json.get_ref<const std::string&>());
        expect(found != nameList<T>.end(), expected, json);
        value = static_cast<T>(found - nameList<T>.begin());
    }

    template <class T>
        requires std::is_enum_v<T>
    static void write(std::string& text, T value) {
        const auto index = static_cast<std::size_t>(value);
        if (index >= nameList<T>.size()) {
            fail("is none of the values that have a name");
        }
        write(text, nameList<T>[index]);
    }

    template <class T>
    static void read(const Json& json, std::vector<T>& list) {
        expect(json.is_array(), "a list", json);
        list.clear();
        for (const Json& element : json) {
            within(list.size(), [&] { read(element, list.emplace_back()); });
        }
    }

    template <class T>
    static void write(std::string& text, const std::vector<T>& list) {
        text += '[';
        for (std::size_t i = 0; i < list.size(); ++i) {
            separate(text, '[');
            within(i, [&] { write(text, list[i]); });
        }
        text += ']';
    }

    template <Record T>
    static void read(const Json& json, T& record) {
        expect(json.is_object(), "an object", json);
        record = {};
        const auto* name = nameList<T>.begin();
        std::apply([&](auto&... member) { (readMember<T>(json, *name++, member), ...); },
                   record.members());
    }

    template <Record T>
    static void write(std::string& text, const T& record) {
        text += '{';
        [&]<std::size_t... Place>(std::index_sequence<Place...>) {
            (writeMember(text, nameList<T>[sortedPlaces<T>[Place]],
                         std::get<sortedPlaces<T>[Place]>(record.members())),
             ...);
        }(std::make_index_sequence<sortedPlaces<T>.size()>());
        text += '}';
    }

    template <Record... Cases>
    static void read(const Json& json, std::variant<Cases...>& variant) {
        constexpr auto& keys = nameList<std::variant<Cases...>>;
        expect(json.is_object(), "an object", json);
        const auto isThere = [&](std::string_view key) { return json.contains(key); };
        if (std::ranges::count_if(keys, isThere) != 1) {
            fail("Invalid number of keys found, expected one.");
        }
        const auto* key = keys.begin();
        ((isThere(*key) ? readMember(json, *key, variant.template emplace<Cases>()) : void(),
          ++key),
         ...);
    }

    template <Record... Cases>
    static void write(std::string& text, const std::variant<Cases...>& variant) {
        const std::string_view name = nameList<std::variant<Cases...>>[variant.index()];
        text += '{';
        std::visit([&](const auto& chosen) { writeMember(text, name, chosen); }, variant);
        text += '}';
    }

  private:
    // Reads each member of the key into `value`, which has its default; the last one counts.
    template <class Owner = void, class Value>
    static void readMember(const Json& object, std::string_view key, Value& value) {
        constexpr bool isOptional = requires { value.has_value(); };
        bool isMissable = isOptional;
        if constexpr (requires { Owner::mayBeMissing(key); }) {
            isMissable = isMissable || Owner::mayBeMissing(key);
        }
        const auto [first, last] = object.get_ref<const Json::object_t&>().equal_range(key);
        within(key, [&, member = first, end = last]() mutable {
            if (member == end && !isMissable) {
                fail("This is missing");
            }
            const Value initial = value;
            for (; member != end; ++member) {
                if (isMissable && member->second.is_null()) {
                    value = initial;
                } else if constexpr (isOptional) {
                    read(member->second, value.emplace());
                } else {
                    read(member->second, value);
                }
            }
        });
    }

    template <class Value>
    static void writeMember(std::string& text, std::string_view key, const Value& value) {
        if constexpr (requires { value.has_value(); }) {
            if (value) {
                writeMember(text, key, *value);
            }
        } else {
            separate(text, '{');
            text.append("\"").append(key).append("\":");
            within(key, [&] { write(text, value); });
        }
    }

    // Writes a comma, unless the text ends with `bracket`.
    static void separate(std::string& text, char bracket) {
        text += text.ends_with(bracket) ? "" : ",";
    }
};

template <class T>
std::expected<T, Error> decode(std::string_view json) {
    try {
        Json root;
        const auto reserve = parse(json, root);
        T value{};
        Coder::read(root, value);
        return value;
    } catch (const Error& error) {
        return std::unexpected(error);
    }
}

template <class T>
std::expected<std::string, Error> encode(const T& value) {
    try {
        std::string text;
        Coder::write(text, value);
        return text;
    } catch (const Error& error) {
        return std::unexpected(error);
    }
}

}  // namespace halvo::JSON
