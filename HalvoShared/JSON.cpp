#include "HalvoShared/JSON.hpp"

#include <cmath>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/Coding.hpp"
#include "HalvoShared/InternetDate.hpp"

namespace halvo::JSON {
namespace {

// What the library says is wrong with a text.
std::string problemOf(const Json::exception& exception) {
    // "[json.exception.parse_error.101] parse error at line 1, column 5: ..."
    std::string text = exception.what();
    text.erase(0, std::min(text.size(), text.find("] ") + 2));
    // It quotes what it last read, of any length and whatever it is.
    constexpr std::size_t longest = 200;
    const bool isCut = text.size() > longest;
    text.resize(std::min(text.size(), longest));
    using nlohmann::json;
    const auto readable = json(text).dump(-1, ' ', false, json::error_handler_t::ignore);
    return json::parse(readable).get<std::string>() + (isCut ? "…" : "");
}

// The library's own builder of a document, but for what it would round.
class Builder : public nlohmann::detail::json_sax_dom_parser<Json> {
  public:
    using json_sax_dom_parser::json_sax_dom_parser;

    // A whole number that 64 bits do not hold is rounded, perhaps to one that they do.
    bool number_float(double number, const std::string& text) {
        const bool isWhole = text.find_first_of(".eE") == std::string::npos;
        return json_sax_dom_parser::number_float(
            isWhole ? std::nextafter(number, number * 2) : number, text);
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const Json::exception& exception) {
        problem = problemOf(exception);
        return false;
    }

    std::string problem;
};

std::string described(const Json& json) {
    constexpr std::size_t longestQuote = 60;
    if (json.is_object()) {
        return "an object";
    }
    if (json.is_array()) {
        return "a list";
    }
    const auto* text = json.get_ptr<const std::string*>();
    return text != nullptr && text->size() > longestQuote
               ? "a text of " + std::to_string(text->size()) + " bytes"
               : json.dump();
}

}  // namespace

std::string description(const Error& error) {
    return (error.path.empty() ? "" : error.path + ": ") + error.problem;
}

Document::Document(std::string_view text) {
    const auto fail = [](const std::string& problem) {
        // NOLINTNEXTLINE(cert-err60-cpp): caught as a reference, never copied by a throw.
        throw Error{Error::Kind::Malformed, "", "This is not JSON: " + problem};
    };
    // The library takes it for the end of the text, whatever follows.
    if (text.contains('\0')) {
        fail("it holds a zero byte");
    }
    // For a list of all values, two bytes each, that grows to twice its size.
    reserve.reserve(3 * sizeof(Json) * text.size() / 2);
    Builder builder(root);
    if (!Json::sax_parse(text, &builder)) {
        fail(builder.problem);
    }
}

void Way::fail(Error::Kind kind, std::string problem) const {
    std::string path;
    for (const Step& step : steps_) {
        if (step.member.empty()) {
            path += "[" + std::to_string(step.element) + "]";
        } else {
            path.append(path.empty() ? "" : ".").append(step.member);
        }
    }
    // NOLINTNEXTLINE(cert-err60-cpp): as above.
    throw Error{kind, std::move(path), std::move(problem)};
}

void Decoder::read(const Json& json, bool& value) {
    expect(json.is_boolean(), "true or false", json);
    value = json.get<bool>();
}

void Decoder::read(const Json& json, std::string& value) {
    expect(json.is_string(), "a text", json);
    value = json.get_ref<const std::string&>();
}

void Decoder::read(const Json& json, WallDate& value) {
    value = readText(json, "a date such as \"2026-11-20T09:30:00Z\"", InternetDate::parse);
}

void Decoder::read(const Json& json, UUID& value) {
    value =
        readText(json, "a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"", UUID::fromText);
}

std::optional<std::int64_t> Decoder::wholeNumber(const Json& json) {
    if (const auto* number = json.get_ptr<const double*>()) {
        constexpr double end = 0x1p63;
        const bool fits = *number >= -end && *number < end && std::trunc(*number) == *number;
        return fits ? std::optional(static_cast<std::int64_t>(*number)) : std::nullopt;
    }
    const auto* natural = json.get_ptr<const std::uint64_t*>();
    const bool fits = natural == nullptr || std::in_range<std::int64_t>(*natural);
    return fits ? std::optional(json.get<std::int64_t>()) : std::nullopt;
}

std::string Decoder::oneOf(Names texts) {
    std::string all = "one of";
    for (const std::string_view text : texts) {
        all.append(all.ends_with("of") ? " \"" : ", \"").append(text).append("\"");
    }
    return all;
}

std::size_t Decoder::onlyOne(Names keys, const Json& json) const {
    expect(json.is_object(), "an object", json);
    const auto isThere = [&](std::string_view key) { return json.contains(key); };
    if (std::ranges::count_if(keys, isThere) != 1) {
        fail(Error::Kind::TypeMismatch, "Invalid number of keys found, expected one.");
    }
    return static_cast<std::size_t>(std::ranges::find_if(keys, isThere) - keys.begin());
}

void Decoder::expect(bool isRight, std::string_view expected, const Json& found,
                     Error::Kind kind) const {
    if (!isRight) {
        fail(kind, "Expected " + std::string(expected) + ", found " + described(found));
    }
}

void Encoder::write(bool value) { text_ += value ? "true" : "false"; }

void Encoder::write(std::string_view value) {
    const auto isPlain = [](unsigned char byte) {
        return byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\';
    };
    if (std::ranges::all_of(value, isPlain)) {
        // Nearly every text, and the library's writer costs many times as much.
        text_.append("\"").append(value).append("\"");
        return;
    }
    if (!isUTF8(value)) {
        fail(Error::Kind::BadValue, "is not UTF-8 text");
    }
    text_ += Json(value).dump();
}

void Encoder::write(WallDate value) {
    text_ += '"';
    if (!InternetDate::append(value, text_)) {
        fail(Error::Kind::BadValue, "is not a date of the years 0 to 9999");
    }
    text_ += '"';
}

void Encoder::write(const UUID& value) { write(value.text()); }

}  // namespace halvo::JSON
