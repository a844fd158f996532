#include "HalvoShared/Coding.hpp"

namespace halvo::JSON {
namespace {

// The library's own builder of a document, except for whole numbers beyond 64 bits: the library
// rounds them to a double, which may be a whole number of 64 bits.
class Builder : public nlohmann::detail::json_sax_dom_parser<Json> {
  public:
    using json_sax_dom_parser::json_sax_dom_parser;

    bool number_float(double number, const std::string& text) {
        const bool isWhole = text.find_first_of(".eE") == std::string::npos;
        return json_sax_dom_parser::number_float(
            isWhole ? std::nextafter(number, number * 2) : number, text);
    }
};

// The message of a parse error, without the library's prefix.
std::string problemOf(const Json::exception& exception) {
    // "[json.exception.parse_error.101] parse error at line 1, column 5: ..."
    std::string text = exception.what();
    text.erase(0, text.find("] ") + 2);
    // It quotes the last token, which may be long and not UTF-8.
    constexpr std::size_t longest = 200;
    const char* end = text.size() > longest ? "…" : "";
    using nlohmann::json;
    const auto readable =
        json(text.substr(0, longest)).dump(-1, ' ', false, json::error_handler_t::ignore);
    return json::parse(readable).get<std::string>() + end;
}

std::string described(const Json& json) {
    constexpr std::size_t longestQuote = 60;
    if (json.is_structured()) {
        return json.is_object() ? "an object" : "a list";
    }
    const auto* text = json.get_ptr<const std::string*>();
    return text != nullptr && text->size() > longestQuote
               ? "a text of " + std::to_string(text->size()) + " bytes"
               : json.dump();
}

}  // namespace

std::vector<char> parse(std::string_view text, Json& root) {
    const std::string notJSON = "This is not JSON: ";
    // The library takes a NUL byte for the end of the text.
    if (text.contains('\0')) {
        fail(notJSON + "it holds a zero byte");
    }
    std::vector<char> reserve;
    // Enough for a list of all values, of at least two bytes each, that doubles its capacity.
    reserve.reserve(3 * sizeof(Json) * text.size() / 2);
    try {
        Builder builder(root);
        Json::sax_parse(text, &builder);
    } catch (const Json::exception& exception) {
        fail(notJSON + problemOf(exception));
    }
    return reserve;
}

std::string quoted(std::string_view text) { return Json(text).dump(); }

void fail(std::string problem) {
    // NOLINTNEXTLINE(cert-err60-cpp): caught as a reference, never copied by a throw.
    throw Error{"", std::move(problem)};
}

void expect(bool isRight, std::string_view expected, const Json& found) {
    if (!isRight) {
        fail("Expected " + std::string(expected) + ", found " + described(found));
    }
}

}  // namespace halvo::JSON
