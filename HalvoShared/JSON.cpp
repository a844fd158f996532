#include "HalvoShared/JSON.hpp"

#include <cmath>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/Coding.hpp"
#include "HalvoShared/InternetDate.hpp"

namespace halvo::JSON {
namespace {

using Kind = DecodingError::Kind;

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

std::string described(const std::string& path, const std::string& problem) {
    return path.empty() ? problem : path + ": " + problem;
}

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

std::string description(const DecodingError& error) { return described(error.path, error.problem); }

std::string description(const EncodingError& error) { return described(error.path, error.problem); }

std::expected<Document, DecodingError> Document::parse(std::string_view text) {
    const auto malformed = [](const std::string& problem) {
        return std::unexpected(DecodingError{Kind::Malformed, "", "This is not JSON: " + problem});
    };
    // The library takes it for the end of the text, whatever follows.
    if (text.find('\0') != std::string_view::npos) {
        return malformed("it holds a zero byte");
    }
    // For a list of all values, two bytes each, that grows to twice its size.
    const std::size_t most = 3 * sizeof(Json) * text.size() / 2;
    Document document;
    document.reserve.reserve(most);
    Builder builder(document.root);
    if (!Json::sax_parse(text, &builder)) {
        return malformed(builder.problem);
    }
    return document;
}

bool failedIn(std::string_view step, std::string& path) {
    const bool isName = !path.empty() && !path.starts_with('[');
    path.insert(0, isName ? "." : "").insert(0, step);
    return false;
}

bool Decoder::read(const Json& json, bool& value) {
    value = json == true;
    return expect(json.is_boolean(), "true or false", json);
}

bool Decoder::read(const Json& json, std::string& value) {
    return readText(json, value, "a text",
                    [](const std::string& text) { return std::optional(text); });
}

bool Decoder::read(const Json& json, WallDate& value) {
    return readText(json, value, "a date such as \"2026-11-20T09:30:00Z\"", InternetDate::parse);
}

bool Decoder::read(const Json& json, UUID& value) {
    return readText(json, value, "a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"",
                    UUID::fromText);
}

std::optional<std::int64_t> Decoder::wholeNumber(const Json& json) {
    if (const auto* number = json.get_ptr<const double*>()) {
        constexpr double end = 0x1p63;
        const bool fits = *number >= -end && *number < end && std::trunc(*number) == *number;
        return fits ? std::optional(static_cast<std::int64_t>(*number)) : std::nullopt;
    }
    const auto* natural = json.get_ptr<const std::uint64_t*>();
    const bool fits =
        json.is_number() && (natural == nullptr || std::in_range<std::int64_t>(*natural));
    return fits ? std::optional(json.get<std::int64_t>()) : std::nullopt;
}

std::string Decoder::oneOf(Names texts) {
    std::string all = "one of";
    for (const std::string_view text : texts) {
        all.append(all.ends_with("of") ? " \"" : ", \"").append(text).append("\"");
    }
    return all;
}

std::optional<std::size_t> Decoder::onlyOne(Names keys, const Json& json) {
    std::optional<std::size_t> only;
    std::size_t count = 0;
    for (std::size_t place = 0; place < keys.size() && json.is_object(); ++place) {
        if (json.contains(keys[place])) {
            only = place;
            ++count;
        }
    }
    const bool isOne =
        expect(json.is_object(), "an object", json) &&
        (count == 1 || fail(Kind::TypeMismatch, "Invalid number of keys found, expected one."));
    return isOne ? only : std::nullopt;
}

bool Decoder::expect(bool isRight, std::string_view expected, const Json& found, Kind kind) {
    return isRight ||
           fail(kind, "Expected " + std::string(expected) + ", found " + described(found));
}

bool Decoder::fail(Kind kind, std::string problem) {
    error_ = {kind, "", std::move(problem)};
    return false;
}

bool Encoder::write(bool value) {
    text_ += value ? "true" : "false";
    return true;
}

bool Encoder::write(std::string_view value) {
    const auto isPlain = [](unsigned char byte) {
        return byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\';
    };
    if (std::ranges::all_of(value, isPlain)) {
        // Nearly every text, and the library's writer costs many times as much.
        text_.append("\"").append(value).append("\"");
        return true;
    }
    if (!isUTF8(value)) {
        return fail("is not UTF-8 text");
    }
    text_ += Json(value).dump();
    return true;
}

bool Encoder::write(WallDate value) {
    text_ += '"';
    const bool isDone = InternetDate::append(value, text_);
    text_ += '"';
    return isDone || fail("is not a date of the years 0 to 9999");
}

bool Encoder::write(const UUID& value) { return write(value.text()); }

bool Encoder::fail(const char* problem) {
    error_ = {"", problem};
    return false;
}

}  // namespace halvo::JSON
