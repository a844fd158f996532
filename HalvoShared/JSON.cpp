#include "HalvoShared/JSON.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

namespace halvo::JSON {
namespace {

using coding::Case;
using coding::ChoiceType;
using coding::Field;
using coding::ListType;
using coding::RecordType;
using coding::Scalar;
using coding::ScalarType;
using coding::Taken;
using coding::Type;
using Json = nlohmann::json;

constexpr std::string_view oneKeyExpected = "Invalid number of keys found, expected one.";

// So much of a text that was found is told.
constexpr std::size_t longestQuote = 60;

struct Describe {
    std::string operator()(std::nullptr_t) const { return "null"; }

    std::string operator()(bool yes) const { return yes ? "true" : "false"; }

    std::string operator()(const std::string* text) const {
        if (text->size() > longestQuote) {
            return "a text of " + std::to_string(text->size()) + " bytes";
        }
        return Json(*text).dump();
    }

    template <class Number>
    std::string operator()(Number number) const {
        return Json(number).dump();
    }
};

std::string expectedOf(const Type& type) {
    if (const auto* scalar = std::get_if<ScalarType>(&type)) {
        return scalar->expected;
    }
    return std::holds_alternative<ListType>(type) ? "a list" : "an object";
}

// An object or a list of the text that is being read into a value.
struct Frame {
    const Type* type;
    void* value;
    // The object within a choice's case, which holds its payload.
    const Case* body = nullptr;
    // The place of the member whose value comes next among the type's, or in the list so far; the
    // value of an unknown member is passed over.
    std::optional<std::size_t> current = std::nullopt;
    // The members, or cases, that were there: one bit each.
    std::uint64_t seen = 0;
    // What is wrong within a choice's case. Told only when the choice itself is right.
    std::optional<DecodingError> pending = std::nullopt;

    [[nodiscard]] bool has(std::size_t place) const { return (seen >> place & 1U) != 0; }
};

std::optional<std::size_t> fieldNamed(const RecordType& record, std::string_view key) {
    for (std::size_t place = 0; place < record.fields.size(); ++place) {
        if (record.fields[place].key == key) {
            return place;
        }
    }
    return std::nullopt;
}

std::optional<std::size_t> caseNamed(const ChoiceType& choice, std::string_view name) {
    for (std::size_t place = 0; place < choice.cases.size(); ++place) {
        if (choice.cases[place].name == name) {
            return place;
        }
    }
    return std::nullopt;
}

// Takes the library's events as they come and fills the record, with no document in between: what
// is not of the record takes no memory, and nesting takes no stack.
class Reader final : public Json::json_sax_t {
  public:
    Reader(void* root, const Type& type) : root_(root), type_(type) {}

    [[nodiscard]] const DecodingError& error() const { return error_; }

    bool null() override {
        const Field* field = currentField();
        if (skip_ == 0 && field != nullptr && field->omit != nullptr) {
            field->omit(frames_.back().value);
            return true;
        }
        return take(nullptr);
    }

    bool boolean(bool yes) override { return take(yes); }

    bool number_integer(std::int64_t number) override { return take(number); }

    bool number_unsigned(std::uint64_t number) override { return take(number); }

    bool number_float(double number, const std::string& text) override {
        // The library rounds a whole number that 64 bits do not hold, perhaps to one that they do.
        const bool isWhole = text.find_first_of(".eE") == std::string::npos;
        return take(isWhole ? std::nextafter(number, number * 2) : number);
    }

    bool string(std::string& text) override { return take(&text); }

    // JSON has none.
    bool binary(Json::binary_t& /*bytes*/) override { return false; }

    bool start_object(std::size_t /*elements*/) override {
        return begin("an object", [](const Type& type) {
            return std::holds_alternative<RecordType>(type) ||
                   std::holds_alternative<ChoiceType>(type);
        });
    }

    bool start_array(std::size_t /*elements*/) override {
        return begin("a list",
                     [](const Type& type) { return std::holds_alternative<ListType>(type); });
    }

    bool key(std::string& name) override {
        if (skip_ > 0) {
            return true;
        }
        Frame& frame = frames_.back();
        if (frame.body != nullptr) {
            const bool isPayload = frame.body->payload != nullptr && name == coding::payloadKey;
            frame.current = isPayload ? std::optional<std::size_t>(0) : std::nullopt;
        } else if (const auto* record = std::get_if<RecordType>(frame.type)) {
            frame.current = fieldNamed(*record, name);
        } else {
            frame.current = caseNamed(std::get<ChoiceType>(*frame.type), name);
        }
        if (frame.current) {
            frame.seen |= std::uint64_t{1} << *frame.current;
        }
        if (frame.pending) {
            frame.current.reset();
        }
        return true;
    }

    bool end_object() override {
        if (skip_ > 0) {
            --skip_;
            return true;
        }
        Frame frame = std::move(frames_.back());
        frames_.pop_back();
        if (frame.body != nullptr) {
            if (frame.body->payload != nullptr && !frame.has(0)) {
                return failMissing(coding::payloadKey);
            }
            return true;
        }
        if (const auto* record = std::get_if<RecordType>(frame.type)) {
            return finish(*record, frame);
        }
        if (std::popcount(frame.seen) != 1) {
            return fail({DecodingError::Kind::TypeMismatch, path(), std::string(oneKeyExpected)});
        }
        return !frame.pending || fail(*std::move(frame.pending));
    }

    bool end_array() override {
        if (skip_ > 0) {
            --skip_;
        } else {
            frames_.pop_back();
        }
        return true;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& problem) override {
        // "[json.exception.parse_error.101] parse error at line 1, column 5: ..."
        std::string text = problem.what();
        text.erase(0, std::min(text.size(), text.find("] ") + 2));
        // It quotes what it last read, of any length and whatever it is.
        constexpr std::size_t longest = 200;
        const bool isCut = text.size() > longest;
        text.resize(std::min(text.size(), longest));
        const auto readable = Json(text).dump(-1, ' ', false, Json::error_handler_t::ignore);
        text = Json::parse(readable).get<std::string>() + (isCut ? "…" : "");
        error_ = {DecodingError::Kind::Malformed, "", "This is not JSON: " + text};
        return false;
    }

  private:
    // Where the next value goes; no type when it is to be passed over.
    struct Slot {
        const Type* type = nullptr;
        void* value = nullptr;
        const Case* body = nullptr;
    };

    // The record's member whose value comes next, if it is one's.
    [[nodiscard]] const Field* currentField() const {
        if (frames_.empty() || frames_.back().body != nullptr) {
            return nullptr;
        }
        const auto place = frames_.back().current;
        const auto* record = std::get_if<RecordType>(frames_.back().type);
        return place && record != nullptr ? &record->fields[*place] : nullptr;
    }

    Slot next() {
        if (frames_.empty()) {
            return {&type_, root_};
        }
        Frame& frame = frames_.back();
        if (const auto* list = std::get_if<ListType>(frame.type);
            list != nullptr && frame.body == nullptr) {
            frame.current = frame.current ? *frame.current + 1 : 0;
            return {&list->element(), list->append(frame.value)};
        }
        if (!frame.current) {
            return {};
        }
        if (frame.body != nullptr) {
            return {&frame.body->payload(), frame.value};
        }
        if (const auto* record = std::get_if<RecordType>(frame.type)) {
            const Field& field = record->fields[*frame.current];
            return {&field.type(), field.place(frame.value)};
        }
        const Case& chosen = std::get<ChoiceType>(*frame.type).cases[*frame.current];
        return {frame.type, chosen.choose(frame.value), &chosen};
    }

    bool take(const Scalar& scalar) {
        if (skip_ > 0) {
            return true;
        }
        const Slot slot = next();
        if (slot.type == nullptr) {
            return true;
        }
        const auto* type = std::get_if<ScalarType>(slot.type);
        const Taken taken = type == nullptr ? Taken::WrongType : type->take(scalar, slot.value);
        return taken == Taken::Whole ||
               failFound(taken, *slot.type, std::visit(Describe{}, scalar));
    }

    bool begin(const char* what, bool (*fits)(const Type&)) {
        if (skip_ > 0) {
            ++skip_;
            return true;
        }
        const Slot slot = next();
        if (slot.type == nullptr) {
            skip_ = 1;
            return true;
        }
        if (!fits(*slot.type)) {
            const bool goOn = failFound(Taken::WrongType, *slot.type, what);
            ++skip_;  // this one is open, too
            return goOn;
        }
        if (const auto* list = std::get_if<ListType>(slot.type)) {
            list->clear(slot.value);
        }
        frames_.push_back({.type = slot.type, .value = slot.value, .body = slot.body});
        return true;
    }

    bool finish(const RecordType& record, const Frame& frame) {
        for (std::size_t place = 0; place < record.fields.size(); ++place) {
            const Field& field = record.fields[place];
            if (frame.has(place)) {
                continue;
            }
            if (field.omit == nullptr) {
                return failMissing(field.key);
            }
            field.omit(frame.value);
        }
        return true;
    }

    // The way to the value that is being read.
    [[nodiscard]] std::string path() const {
        std::string text;
        for (const Frame& frame : frames_) {
            if (!frame.current) {
                continue;
            }
            const std::size_t place = *frame.current;
            if (const auto* record = std::get_if<RecordType>(frame.type)) {
                append(text, record->fields[place].key);
            } else if (std::holds_alternative<ListType>(*frame.type)) {
                text += "[" + std::to_string(place) + "]";
            } else if (frame.body != nullptr) {
                append(text, coding::payloadKey);
            } else {
                append(text, std::get<ChoiceType>(*frame.type).cases[place].name);
            }
        }
        return text;
    }

    static void append(std::string& path, std::string_view key) {
        if (!path.empty()) {
            path += '.';
        }
        path += key;
    }

    bool failFound(Taken taken, const Type& type, const std::string& found) {
        const auto kind = taken == Taken::BadValue ? DecodingError::Kind::BadValue
                                                   : DecodingError::Kind::TypeMismatch;
        return fail({kind, path(), "Expected " + expectedOf(type) + ", found " + found});
    }

    bool failMissing(std::string_view key) {
        std::string whole = path();
        append(whole, key);
        return fail({DecodingError::Kind::MissingMember, std::move(whole), "This is missing"});
    }

    // Ends the reading with `error`, but for an error within a choice, whose number of keys matters
    // more: what is left of its case is then passed over. Says whether to go on.
    bool fail(DecodingError error) {
        for (std::size_t depth = frames_.size(); depth > 0; --depth) {
            Frame& frame = frames_[depth - 1];
            if (frame.body == nullptr && std::holds_alternative<ChoiceType>(*frame.type)) {
                frame.pending = std::move(error);
                skip_ = frames_.size() - depth;
                frames_.erase(frames_.begin() + static_cast<std::ptrdiff_t>(depth), frames_.end());
                return true;
            }
        }
        error_ = std::move(error);
        return false;
    }

    void* root_;
    const Type& type_;
    std::vector<Frame> frames_;
    // How many objects and lists are open of what is passed over.
    std::size_t skip_ = 0;
    DecodingError error_;
};

// Appends to one text; remembers the way to what it could not write.
class Writer {
  public:
    [[nodiscard]] std::string& json() { return json_; }

    [[nodiscard]] const EncodingError& error() const { return error_; }

    // NOLINTBEGIN(misc-no-recursion): as deep as the declarations go, which no value changes.

    // Says whether it could.
    bool write(const void* value, const Type& type) {
        return std::visit([this, value](const auto& shape) { return this->write(value, shape); },
                          type);
    }

  private:
    bool write(const void* value, const ScalarType& type) {
        const auto problem = type.append(value, json_);
        error_.problem = problem.value_or("");
        return !problem;
    }

    bool write(const void* list, const ListType& type) {
        json_ += '[';
        for (std::size_t index = 0; index < type.size(list); ++index) {
            if (index > 0) {
                json_ += ',';
            }
            if (!write(type.at(list, index), type.element())) {
                return failedIn("[" + std::to_string(index) + "]");
            }
        }
        json_ += ']';
        return true;
    }

    bool write(const void* record, const RecordType& type) {
        json_ += '{';
        bool isFirst = true;
        for (const std::size_t place : type.sorted) {
            const Field& field = type.fields[place];
            const void* member = field.find(record);
            if (member == nullptr) {
                continue;
            }
            if (!isFirst) {
                json_ += ',';
            }
            isFirst = false;
            writeKey(field.key);
            if (!write(member, field.type())) {
                return failedIn("." + std::string(field.key));
            }
        }
        json_ += '}';
        return true;
    }

    bool write(const void* variant, const ChoiceType& type) {
        const Case& chosen = type.cases[type.index(variant)];
        json_ += '{';
        writeKey(chosen.name);
        json_ += '{';
        if (chosen.payload != nullptr) {
            writeKey(coding::payloadKey);
            if (!write(chosen.find(variant), chosen.payload())) {
                return failedIn("." + std::string(chosen.name) + "." +
                                std::string(coding::payloadKey));
            }
        }
        json_ += "}}";
        return true;
    }

    // NOLINTEND(misc-no-recursion)

    // A declared key needs no escapes.
    void writeKey(std::string_view key) {
        json_ += '"';
        json_ += key;
        json_ += "\":";
    }

    bool failedIn(const std::string& part) {
        error_.path.insert(0, part);
        return false;
    }

    std::string json_;
    EncodingError error_;
};

std::string described(const std::string& path, const std::string& problem) {
    return path.empty() ? problem : path + ": " + problem;
}

}  // namespace

std::string description(const DecodingError& error) { return described(error.path, error.problem); }

std::string description(const EncodingError& error) { return described(error.path, error.problem); }

std::expected<void, DecodingError> decodeInto(void* value, const Type& type,
                                              std::string_view json) {
    // The library takes it for the end of the text, whatever follows.
    if (json.find('\0') != std::string_view::npos) {
        return std::unexpected(DecodingError{DecodingError::Kind::Malformed, "",
                                             "This is not JSON: it holds a zero byte"});
    }
    Reader reader(value, type);
    if (!Json::sax_parse(json, &reader)) {
        return std::unexpected(reader.error());
    }
    return {};
}

std::expected<std::string, EncodingError> encodeFrom(const void* value, const Type& type) {
    Writer writer;
    if (writer.write(value, type)) {
        return std::move(writer.json());
    }
    EncodingError error = writer.error();
    if (error.path.starts_with('.')) {
        error.path.erase(0, 1);
    }
    return std::unexpected(std::move(error));
}

}  // namespace halvo::JSON
