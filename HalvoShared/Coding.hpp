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
    // Throws Error.
    explicit Document(std::string_view text);

    Json root;
    // The library needs memory to free a document, and ends the process when there is none: this is
    // freed before it, as the last member.
    std::vector<char> reserve;
};

template <class T>
concept Record = requires { T::members; };

template <class T>
concept Enumeration = std::is_enum_v<T>;

// The way through a record.
class Way {
  public:
    // Throws the Error of what is wrong here.
    [[noreturn]] void fail(Error::Kind kind, std::string problem) const;

  protected:
    // A member, or where that is empty an element of a list.
    struct Step {
        std::string_view member;
        std::size_t element = 0;
    };

    // Does `action` one step further.
    template <class Action>
    void within(const Step& step, Action action) {
        steps_.push_back(step);
        action();
        steps_.pop_back();
    }

  private:
    std::vector<Step> steps_;
};

// Reads values from a document; throws Error.
class Decoder : Way {
  public:
    void read(const Json& json, bool& value);
    void read(const Json& json, std::string& value);
    void read(const Json& json, WallDate& value);
    void read(const Json& json, UUID& value);

    template <std::integral T>
    void read(const Json& json, T& value) {
        static const std::string expected =
            "a whole number of " + std::to_string(sizeof(T) * 8) + " bits";
        expect(json.is_number(), expected, json);
        const auto number = wholeNumber(json);
        const bool fits = number && std::in_range<T>(*number);
        expect(fits, expected, json, Error::Kind::BadValue);
        value = static_cast<T>(number.value_or(0));
    }

    template <Enumeration T>
    void read(const Json& json, T& value) {
        static const std::string expected = oneOf(names<T>);
        expect(json.is_string(), expected, json);
        const auto found = std::ranges::find(names<T>, json.get_ref<const std::string&>());
        expect(found != names<T>.end(), expected, json, Error::Kind::BadValue);
        value = static_cast<T>(found - names<T>.begin());
    }

    template <class T>
    void read(const Json& json, std::optional<T>& value) {
        read(json, value.emplace());
    }

    template <class T>
    void read(const Json& json, std::vector<T>& list) {
        expect(json.is_array(), "a list", json);
        list.clear();
        for (const Json& element : json) {
            within({{}, list.size()}, [&] { read(element, list.emplace_back()); });
        }
    }

    template <Record T>
    void read(const Json& json, T& record) {
        expect(json.is_object(), "an object", json);
        record = {};
        std::apply([&](const auto&... member) { (readMember(json, member, record), ...); },
                   T::members);
    }

    template <Record... Cases>
    void read(const Json& json, std::variant<Cases...>& variant) {
        constexpr auto& keys = names<std::variant<Cases...>>;
        const std::size_t chosen = onlyOne(keys, json);
        std::size_t index = 0;
        const auto readCase = [&]<class Case>(std::in_place_type_t<Case>) {
            if (index++ == chosen) {
                readAll(json, keys[chosen], true,
                        [&](const Json& body) { read(body, variant.template emplace<Case>()); });
            }
        };
        (readCase(std::in_place_type<Cases>), ...);
    }

  private:
    using Names = std::span<const std::string_view>;

    template <class T, class Value>
    void readMember(const Json& object, const Member<T, Value>& member, T& record) {
        readAll(object, member.key, !member.isMissable, [&](const Json& json) {
            if (member.isMissable && json.is_null()) {
                record.*member.place = T{}.*member.place;
            } else {
                read(json, record.*member.place);
            }
        });
    }

    // Reads each member of the key with `action`, so that the last counts.
    template <class Action>
    void readAll(const Json& object, std::string_view key, bool isRequired, Action action) {
        const auto [begin, end] = object.get_ref<const Json::object_t&>().equal_range(key);
        within({key}, [&, first = begin, last = end] {
            if (isRequired && first == last) {
                fail(Error::Kind::MissingMember, "This is missing");
            }
            std::for_each(first, last, [&](const auto& member) { action(member.second); });
        });
    }

    // What `parse` makes of a text.
    template <class Parse>
    auto readText(const Json& json, std::string_view expected, Parse parse) {
        expect(json.is_string(), expected, json);
        auto parsed = parse(json.get_ref<const std::string&>());
        expect(parsed.has_value(), expected, json, Error::Kind::BadValue);
        return *std::move(parsed);  // NOLINT(bugprone-unchecked-optional-access): expect() throws.
    }

    // The number, if it is a whole one, however it is spelled: 5, 5.0 and 0.5e1 are the same.
    static std::optional<std::int64_t> wholeNumber(const Json& json);
    static std::string oneOf(Names texts);
    // The place of the only one of the keys that `json`, an object, has.
    [[nodiscard]] std::size_t onlyOne(Names keys, const Json& json) const;
    void expect(bool isRight, std::string_view expected, const Json& found,
                Error::Kind kind = Error::Kind::TypeMismatch) const;
};

// Writes values to a text; throws Error.
class Encoder : Way {
  public:
    [[nodiscard]] std::string& text() { return text_; }

    void write(bool value);
    void write(std::string_view value);
    void write(WallDate value);
    void write(const UUID& value);

    template <std::integral T>
    void write(T value) {
        text_ += std::to_string(value);
    }

    template <Enumeration T>
    void write(T value) {
        const auto index = static_cast<std::size_t>(value);
        if (index >= names<T>.size()) {
            fail(Error::Kind::BadValue, "is none of the values that have a name");
        }
        write(names<T>[index]);
    }

    // Not for one that is absent: such a member is left out.
    template <class T>
    void write(const std::optional<T>& value) {
        write(*value);  // NOLINT(bugprone-unchecked-optional-access)
    }

    template <class T>
    void write(const std::vector<T>& list) {
        text_ += '[';
        for (std::size_t i = 0; i < list.size(); ++i) {
            separate('[');
            within({{}, i}, [&] { write(list[i]); });
        }
        text_ += ']';
    }

    template <Record T>
    void write(const T& record) {
        text_ += '{';
        [&]<std::size_t... Place>(std::index_sequence<Place...>) {
            (writeMember(std::get<sortedPlaces<T>[Place]>(T::members), record), ...);
        }(std::make_index_sequence<sortedPlaces<T>.size()>());
        text_ += '}';
    }

    template <Record... Cases>
    void write(const std::variant<Cases...>& variant) {
        const std::string_view name = names<std::variant<Cases...>>[variant.index()];
        text_ += '{';
        std::visit([&](const auto& chosen) { writeMember(name, chosen); }, variant);
        text_ += '}';
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
    void writeMember(const Member<T, Value>& member, const T& record) {
        const Value& value = record.*member.place;
        if constexpr (isOptional<Value>) {
            if (!value) {
                return;
            }
        }
        writeMember(member.key, value);
    }

    template <class T>
    void writeMember(std::string_view key, const T& value) {
        separate('{');
        text_.append("\"").append(key).append("\":");
        within({key}, [&] { write(value); });
    }

    // Writes the comma that stands before all but the first of what `bracket` opens.
    void separate(char bracket) { text_ += text_.ends_with(bracket) ? "" : ","; }

    std::string text_;
};

template <class T>
std::expected<T, Error> decode(std::string_view json) {
    try {
        const Document document(json);
        T value{};
        Decoder().read(document.root, value);
        return value;
    } catch (const Error& error) {
        return std::unexpected(error);
    }
}

template <class T>
std::expected<std::string, Error> encode(const T& value) {
    try {
        Encoder encoder;
        encoder.write(value);
        return std::move(encoder.text());
    } catch (const Error& error) {
        return std::unexpected(error);
    }
}

}  // namespace halvo::JSON
