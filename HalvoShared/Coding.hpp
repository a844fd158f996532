// How JSON.hpp reads and writes records, for the sources that declare them.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/UUID.hpp"

namespace halvo::JSON {

// An object that keeps all members of a key that comes more than once, in their order.
template <class Key, class Value, class... Rest>
class Members : public std::multimap<Key, Value, Rest...> {
  public:
    // A new member; what the library's parser calls for each key.
    Value& operator[](const Key& key) { return this->emplace(key, nullptr)->second; }
};

using Json = nlohmann::basic_json<Members>;

struct Document {
    Json root;
    // The library needs memory to free a document, and ends the process when there is none: this is
    // freed before it, as the last member.
    std::vector<char> reserve;

    static std::expected<Document, DecodingError> parse(std::string_view text);
};

template <class T>
concept Record = requires { T::members; };

template <class T>
concept Enumeration = std::is_enum_v<T>;

// Puts a step, "name" or "[3]", before the way from there to what is wrong. Gives false.
bool failedIn(std::string_view step, std::string& path);

// Reads values from a document. Each function says whether it could; where one could not, error()
// is that of the whole.
class Decoder {
  public:
    [[nodiscard]] const DecodingError& error() const { return error_; }

    bool read(const Json& json, bool& value);
    bool read(const Json& json, std::string& value);
    bool read(const Json& json, WallDate& value);
    bool read(const Json& json, UUID& value);

    template <std::integral T>
    bool read(const Json& json, T& value) {
        static const std::string expected =
            "a whole number of " + std::to_string(sizeof(T) * 8) + " bits";
        const auto number = wholeNumber(json);
        const bool fits = number && std::in_range<T>(*number);
        value = fits ? static_cast<T>(*number) : T{};
        return expect(json.is_number(), expected, json) &&
               expect(fits, expected, json, Kind::BadValue);
    }

    template <Enumeration T>
    bool read(const Json& json, T& value) {
        static const std::string expected = oneOf(names<T>);
        return readText(json, value, expected, [](const std::string& text) {
            const auto found = std::ranges::find(names<T>, text);
            return found == names<T>.end()
                       ? std::nullopt
                       : std::optional(static_cast<T>(found - names<T>.begin()));
        });
    }

    template <class T>
    bool read(const Json& json, std::optional<T>& value) {
        return read(json, value.emplace());
    }

    template <class T>
    bool read(const Json& json, std::vector<T>& list) {
        list.clear();
        const auto readElement = [&](const Json& element) {
            return read(element, list.emplace_back()) ||
                   failedIn("[" + std::to_string(list.size() - 1) + "]", error_.path);
        };
        return expect(json.is_array(), "a list", json) && std::ranges::all_of(json, readElement);
    }

    template <Record T>
    bool read(const Json& json, T& record) {
        record = {};
        const auto readEach = [&](const auto&... member) {
            return (readMember(json, member, record) && ...);
        };
        return expect(json.is_object(), "an object", json) && std::apply(readEach, T::members);
    }

    template <Record... Cases>
    bool read(const Json& json, std::variant<Cases...>& variant) {
        constexpr auto& keys = names<std::variant<Cases...>>;
        const auto chosen = onlyOne(keys, json);
        std::size_t index = 0;
        const auto readCase = [&]<class Case>(std::in_place_type_t<Case>) {
            return index++ != chosen || readAll(json, keys[*chosen], true, [&](const Json& body) {
                       return read(body, variant.template emplace<Case>());
                   });
        };
        return chosen && (readCase(std::in_place_type<Cases>) && ...);
    }

  private:
    using Kind = DecodingError::Kind;
    using Names = std::span<const std::string_view>;

    template <class T, class Value>
    bool readMember(const Json& object, const Member<T, Value>& member, T& record) {
        return readAll(object, member.key, !member.isMissable, [&](const Json& json) {
            if (member.isMissable && json.is_null()) {
                record.*member.place = T{}.*member.place;
                return true;
            }
            return read(json, record.*member.place);
        });
    }

    // Reads each member of the key with `action`, so that the last counts.
    template <class Action>
    bool readAll(const Json& object, std::string_view key, bool isRequired, Action action) {
        const auto& members = object.get_ref<const Json::object_t&>();
        const auto first = members.lower_bound(key);
        const auto isOfKey = [&](auto at) { return at != members.end() && at->first == key; };
        bool isDone = isOfKey(first) || !isRequired || fail(Kind::MissingMember, "This is missing");
        for (auto at = first; isDone && isOfKey(at); ++at) {
            isDone = action(at->second);
        }
        return isDone || failedIn(key, error_.path);
    }

    // Reads what `parse` makes of a text.
    template <class T, class Parse>
    bool readText(const Json& json, T& value, std::string_view expected, Parse parse) {
        if (!expect(json.is_string(), expected, json)) {
            return false;
        }
        auto parsed = parse(json.get_ref<const std::string&>());
        if (!parsed) {
            return expect(false, expected, json, Kind::BadValue);
        }
        value = *std::move(parsed);
        return true;
    }

    // The number, if it is a whole one, however it is spelled: 5, 5.0 and 0.5e1 are the same.
    static std::optional<std::int64_t> wholeNumber(const Json& json);
    static std::string oneOf(Names texts);
    // The place of the only one of the keys that `json`, an object, has.
    std::optional<std::size_t> onlyOne(Names keys, const Json& json);
    bool expect(bool isRight, std::string_view expected, const Json& found,
                Kind kind = Kind::TypeMismatch);
    bool fail(Kind kind, std::string problem);

    DecodingError error_;
};

// Writes values to a text. Each function says whether it could; where one could not, error() is
// that of the whole.
class Encoder {
  public:
    [[nodiscard]] std::string& text() { return text_; }

    [[nodiscard]] const EncodingError& error() const { return error_; }

    bool write(bool value);
    bool write(std::string_view value);
    bool write(WallDate value);
    bool write(const UUID& value);

    template <std::integral T>
    bool write(T value) {
        text_ += std::to_string(value);
        return true;
    }

    template <Enumeration T>
    bool write(T value) {
        const auto index = static_cast<std::size_t>(value);
        return index < names<T>.size() ? write(names<T>[index])
                                       : fail("is none of the values that have a name");
    }

    // Not for one that is absent: such a member is left out.
    template <class T>
    bool write(const std::optional<T>& value) {
        return write(*value);  // NOLINT(bugprone-unchecked-optional-access)
    }

    template <class T>
    bool write(const std::vector<T>& list) {
        text_ += '[';
        for (const T& element : list) {
            separate('[');
            if (!write(element)) {
                return failedIn("[" + std::to_string(&element - list.data()) + "]", error_.path);
            }
        }
        text_ += ']';
        return true;
    }

    template <Record T>
    bool write(const T& record) {
        const auto writeEach = [&]<std::size_t... Place>(std::index_sequence<Place...>) {
            return (writeMember(std::get<sortedPlaces<T>[Place]>(T::members), record) && ...);
        };
        text_ += '{';
        const bool isDone = writeEach(std::make_index_sequence<sortedPlaces<T>.size()>());
        text_ += '}';
        return isDone;
    }

    template <Record... Cases>
    bool write(const std::variant<Cases...>& variant) {
        const std::string_view name = names<std::variant<Cases...>>[variant.index()];
        text_ += '{';
        const bool isDone =
            std::visit([&](const auto& chosen) { return writeMember(name, chosen); }, variant);
        text_ += '}';
        return isDone;
    }

  private:
    // The places of a record's members in the order of their keys' bytes.
    template <Record T>
    static constexpr auto sortedPlaces = std::apply(
        [](const auto&... member) {
            const std::array<std::string_view, sizeof...(member)> keys{member.key...};
            std::array<std::size_t, sizeof...(member)> places{};
            std::iota(places.begin(), places.end(), 0);
            std::ranges::sort(places, {}, [&](std::size_t place) { return keys[place]; });
            return places;
        },
        T::members);

    template <class T, class Value>
    bool writeMember(const Member<T, Value>& member, const T& record) {
        const Value& value = record.*member.place;
        if constexpr (isOptional<Value>) {
            if (!value) {
                return true;
            }
        }
        return writeMember(member.key, value);
    }

    template <class T>
    bool writeMember(std::string_view key, const T& value) {
        separate('{');
        text_.append("\"").append(key).append("\":");
        return write(value) || failedIn(key, error_.path);
    }

    // Writes the comma that stands before all but the first of what `bracket` opens.
    void separate(char bracket) { text_ += text_.ends_with(bracket) ? "" : ","; }

    bool fail(const char* problem);

    std::string text_;
    EncodingError error_;
};

template <class T>
std::expected<T, DecodingError> decode(std::string_view json) {
    const auto document = Document::parse(json);
    if (!document) {
        return std::unexpected(document.error());
    }
    T value{};
    Decoder decoder;
    if (!decoder.read(document->root, value)) {
        return std::unexpected(decoder.error());
    }
    return value;
}

template <class T>
std::expected<std::string, EncodingError> encode(const T& value) {
    Encoder encoder;
    if (!encoder.write(value)) {
        return std::unexpected(encoder.error());
    }
    return std::move(encoder.text());
}

}  // namespace halvo::JSON
