#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/Coding.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::sampleSnapshot;
using State = WidgetSnapshot::State;
using Look = WidgetSnapshot::Look;

enum class Size { small, large };

// A record with each kind of member.
struct Parcel {
    std::string name;
    std::int32_t count{};
    std::optional<std::int64_t> weight;
    bool fragile = true;
    std::vector<std::string> labels;
    Size size{};

    HALVO_RECORD(Parcel, name, count, weight, fragile, labels, size)

    static constexpr bool mayBeMissing(std::string_view key) { return key == "fragile"; }
};

}  // namespace

template <>
inline constexpr std::string_view JSON::names<Size> = "small, large";

namespace {

// What a T is read from `json`, or the error's text.
template <class T>
std::expected<T, std::string> read(const std::string& json) {
    auto value = JSON::decode<T>(json);
    return value ? std::expected<T, std::string>(*std::move(value))
                 : std::unexpected(JSON::description(value.error()));
}

template <class T>
std::string errorOf(const std::string& json) {
    const auto value = read<T>(json);
    return value ? "none" : value.error();
}

template <class T>
std::string written(const T& value) {
    const auto json = JSON::encode(value);
    return json ? *json : "error: " + JSON::description(json.error());
}

// A snapshot's JSON with `from` replaced once, which it must contain.
std::string changed(const std::string& from, const std::string& to) {
    std::string json = written(sampleSnapshot());
    const std::size_t place = json.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    return json.replace(place, from.size(), to);
}

// --- The text

TEST(JSONTest, HasNoBlanksAndKeysInTheOrderOfTheirBytes) {
    EXPECT_EQ(written(WidgetSnapshot()),
              R"({"blockCount":0,"blocks":[],"breathe":{"minutes":0,"style":""},"days":[],)"
              R"("focusMinutes":0,"horizon":"1970-01-01T00:00:00Z","isRunning":false,"lists":[],)"
              R"("phases":[],"writtenAt":"1970-01-01T00:00:00Z"})");
}

TEST(JSONTest, MayHaveBlanksWhenItIsRead) {
    EXPECT_TRUE(JSON::decode<State>(" \n{ \"noBlocks\" :\t{ } }\r\n"));
}

TEST(JSONTest, HasNoZeroByteAnywhere) {
    const std::string json = "{ \"noBlocks\" : { } } ";
    const JSON::Error error{"", "This is not JSON: it holds a zero byte"};
    for (const char* rest : {"", "rubbish", "{}"}) {
        EXPECT_EQ(JSON::decode<State>(json + '\0' + rest).error(), error) << rest;
    }
    for (std::size_t place = 0; place <= json.size(); ++place) {
        EXPECT_EQ(JSON::decode<State>(std::string(json).insert(place, 1, '\0')).error(), error);
    }
}

TEST(JSONTest, SaysWhereATextCeasesToBeJSON) {
    const auto error = JSON::decode<WidgetSnapshot>("{\n  \"phases\": [,]\n}").error();
    EXPECT_EQ(error.path, "");
    EXPECT_TRUE(error.problem.starts_with("This is not JSON: parse error at line 2, column 14"))
        << error.problem;
}

TEST(JSONTest, IsNotReadFromATextThatIsNotJSON) {
    const std::string whole = written(sampleSnapshot());
    for (const std::string& text :
         {""s, " "s, "{"s, "nul"s, whole + "x", whole + whole, whole + ",", whole + " // why",
          "\0"s, "{\"noBlocks\":{},}"s, "{'noBlocks':{}}"s, "{\"a\xFF\":1}"s,
          "{\"a\":\"\xED\xA0\x80\"}"s, "{\"a\":\"\\ud800\"}"s, "{\"a\":\"line\nbreak\"}"s,
          "{\"a\":01}"s, "{\"a\":NaN}"s, "{\"a\":1e999}"s}) {
        const auto snapshot = JSON::decode<WidgetSnapshot>(text);
        ASSERT_FALSE(snapshot.has_value()) << text;
        EXPECT_TRUE(snapshot.error().problem.starts_with("This is not JSON: ")) << text;
    }
    for (std::size_t length = 0; length < whole.size(); ++length) {
        ASSERT_FALSE(JSON::decode<WidgetSnapshot>(whole.substr(0, length))) << length;
    }
}

TEST(JSONTest, TellsOfALongMistakeInShort) {
    const std::string error = errorOf<State>('"' + std::string(1'000'000, 'x'));
    EXPECT_LT(error.size(), 300U);
    EXPECT_TRUE(error.ends_with("xxx…")) << error;
}

TEST(JSONTest, TellsOfAMistakeInUTF8WhateverTheTextHolds) {
    // Cut between characters, not within one.
    std::string text = "[\"";
    for (int i = 0; i < 300; ++i) {
        text += "\xE2\x98\xBE";
        EXPECT_TRUE(isUTF8(errorOf<State>(text))) << errorOf<State>(text);
    }
    EXPECT_TRUE(isUTF8(errorOf<State>("{\"a\xFF\":1}")));
    EXPECT_TRUE(isUTF8(errorOf<State>("\x80")));
}

// Whatever the text, it takes no more stack. A reader that called itself would need more than the
// initial thread's 8 MiB here, with as little as 42 bytes for each level.
TEST(JSONTest, MayBeNestedAsDeepAsItWill) {
    constexpr std::size_t depth = 200'000;
    for (const std::string& opening : {"["s, "{\"a\":"s}) {
        std::string deep;
        for (std::size_t i = 0; i < depth; ++i) {
            deep += opening;
        }
        EXPECT_FALSE(JSON::decode<WidgetSnapshot>("{\"unknown\":" + deep));
        EXPECT_FALSE(JSON::decode<State>("{\"block\":{\"_0\":{\"name\":" + deep));
    }
    const std::string closed =
        "{\"unknown\":" + std::string(depth, '[') + std::string(depth, ']') + ",\"noBlocks\":{}}";
    EXPECT_TRUE(JSON::decode<State>(closed));
}

// --- Records

TEST(JSONTest, WritesAndReadsWhatWasDeclaredOnce) {
    const std::pair<Parcel, const char*> rows[] = {
        {{"Box", 2, 7, false, {"a"}, Size::large},
         R"({"count":2,"fragile":false,"labels":["a"],"name":"Box","size":"large","weight":7})"},
        {{"Box", 2, std::nullopt, false, {}, Size::small},
         R"({"count":2,"fragile":false,"labels":[],"name":"Box","size":"small"})"}};
    for (const auto& [parcel, json] : rows) {
        EXPECT_EQ(written(parcel), json);
        EXPECT_EQ(read<Parcel>(json), parcel);
    }
}

TEST(JSONTest, HasWhatANewRecordHasWhereAMemberMayBeMissing) {
    const std::string rest = R"("count":2,"labels":[],"name":"","size":"small"})";
    for (const char* start : {"{", R"({"fragile":null,)", R"({"weight":null,)",
                              R"({"fragile":false,"fragile":null,"weight":7,"weight":null,)"}) {
        EXPECT_EQ(read<Parcel>(start + rest), (Parcel{"", 2, std::nullopt, true, {}, Size::small}))
            << start;
    }
}

TEST(JSONTest, RefusesARecordWithoutARequiredMember) {
    EXPECT_EQ(JSON::decode<Parcel>(R"({"count":2,"labels":[],"size":"small"})").error(),
              (JSON::Error{"name", "This is missing"}));
    EXPECT_EQ(
        JSON::decode<Parcel>(R"({"count":null,"labels":[],"name":"","size":"small"})").error(),
        (JSON::Error{"count", "Expected a whole number of 32 bits, found null"}));
}

TEST(JSONTest, PassesOverMembersThatARecordDoesNotDeclare) {
    const std::string json =
        changed(R"("writtenAt":)",
                R"("later":{"a":[{"writtenAt":5},[[]],null],"b":{}},"more":7,"writtenAt":)");
    EXPECT_EQ(JSON::decode<WidgetSnapshot>(json), sampleSnapshot());
}

TEST(JSONTest, TakesTheLastOfAKeyThatComesTwice) {
    EXPECT_EQ(read<Look>(R"({"color":"red","symbol":"x","color":"blue"})"), (Look{"blue", "x"}));
    EXPECT_EQ(errorOf<Look>(R"({"color":5,"symbol":"x","color":"blue"})"),
              "color: Expected a text, found 5")
        << "though each must be right";
}

TEST(JSONTest, KeepsNothingOfARecordThatComesAgain) {
    const std::string run = R"({"level":"firm","listNames":["a"],"name":"","names":["a"],)"
                            R"("start":"2026-11-20T09:00:00Z")";
    const std::string last = R"({"level":"firm","listNames":[],"name":"","names":[],)"
                             R"("start":"2026-11-20T09:00:00Z"}})";
    EXPECT_EQ(read<State>(R"({"block":{"_0":)" + run + R"(,"end":"2026-11-20T10:00:00Z"},"_0":)" +
                          last + "}"),
              read<State>(R"({"block":{"_0":)" + last + "}"));
}

TEST(JSONTest, SaysTheWayToWhatIsWrong) {
    const struct {
        const char* from;
        const char* to;
        const char* path;
    } rows[] = {
        {R"("level":"gentle")", R"("level":"mild")", "phases[2].state.focusFilter._0.level"},
        {R"("symbol":"brain")", R"("symbol":5)", "blocks[0].look.symbol"},
        {R"(["Mail","News"])", R"(["Mail",null])", "phases[0].state.block._0.names[1]"},
        {R"("days":[{)", R"("days":[5,{)", "days[0]"},
        {R"("horizon":"2026)", R"("horizon":"26)", "horizon"},
        {R"("color":"indigo",)", "", "blocks[0].look.color"},
        {R"("_0":)", R"("_1":)", "phases[0].state.block._0"}};

    for (const auto& row : rows) {
        const auto error = JSON::decode<WidgetSnapshot>(changed(row.from, row.to)).error();
        EXPECT_EQ(error.path, row.path);
    }
    EXPECT_EQ(errorOf<WidgetSnapshot>("{}"), "writtenAt: This is missing");
}

// --- Values

TEST(JSONTest, TakesAnIntegerInItsRangeHoweverItIsSpelled) {
    using Limits = std::numeric_limits<std::int64_t>;
    EXPECT_EQ(read<std::int32_t>("2147483647"), 2147483647);
    EXPECT_EQ(read<std::int32_t>("-2147483648"), std::numeric_limits<std::int32_t>::min());
    EXPECT_FALSE(read<std::int32_t>("2147483648"));
    EXPECT_FALSE(read<std::int32_t>("-2147483649"));
    const std::pair<const char*, std::int64_t> rows[] = {{"9223372036854775807", Limits::max()},
                                                         {"-9223372036854775808", Limits::min()},
                                                         {"-9223372036854775808.0", Limits::min()},
                                                         {"5.0", 5},
                                                         {"0.5e1", 5},
                                                         {"-1e3", -1000}};
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(read<std::int64_t>(text), number) << text;
    }
    for (const std::string& number :
         {"9223372036854775808"s, "18446744073709551616"s, "-9223372036854775809"s,
          "-9223372036854776832"s, "-1" + std::string(400, '0') + "1.0", "9223372036854775808.0"s,
          "1e400"s}) {
        EXPECT_FALSE(read<std::int64_t>(number)) << number;
    }
}

TEST(JSONTest, SaysWhatWasExpectedAndWhatWasFound) {
    const struct {
        std::string (*errorOf)(const std::string& json);
        std::string json;
        std::string expected;
        std::string found;
    } rows[] = {{errorOf<std::int64_t>, "5.5", "a whole number of 64 bits", ""},
                {errorOf<std::int64_t>, "\"5\"", "a whole number of 64 bits", ""},
                {errorOf<std::int64_t>, "true", "a whole number of 64 bits", ""},
                {errorOf<bool>, "1", "true or false", ""},
                {errorOf<bool>, "\"true\"", "true or false", ""},
                {errorOf<bool>, '"' + std::string(100'000, 'x') + '"', "true or false",
                 "a text of 100000 bytes"},
                {errorOf<std::string>, "5", "a text", ""},
                {errorOf<std::string>, "[]", "a text", "a list"},
                {errorOf<std::string>, "{}", "a text", "an object"},
                {errorOf<State>, "[]", "an object", "a list"},
                {errorOf<State>, "5", "an object", ""},
                {errorOf<WallDate>, "0", "a date such as \"2026-11-20T09:30:00Z\"", ""},
                {errorOf<UUID>, "\"nobody\"",
                 "a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"", ""},
                {errorOf<Size>, "\"Large\"", "one of \"small\", \"large\"", ""},
                {errorOf<Size>, "\"\"", "one of \"small\", \"large\"", ""},
                {errorOf<Size>, "\"smal\"", "one of \"small\", \"large\"", ""},
                {errorOf<Size>, "1", "one of \"small\", \"large\"", ""},
                {errorOf<Size>, "null", "one of \"small\", \"large\"", ""}};

    for (const auto& row : rows) {
        EXPECT_EQ(row.errorOf(row.json), "Expected " + row.expected + ", found " +
                                             (row.found.empty() ? row.json : row.found));
    }
}

TEST(JSONTest, KnowsAnEnumeratorByItsName) {
    EXPECT_EQ(read<Size>("\"large\""), Size::large);
    EXPECT_EQ(written(Size::small), "\"small\"");
    EXPECT_EQ(written(static_cast<Size>(2)), "error: is none of the values that have a name");
    EXPECT_EQ(written(static_cast<Size>(-1)), "error: is none of the values that have a name");
}

TEST(JSONTest, WritesTextsAsJSONSpellsThem) {
    EXPECT_EQ(written("plain / text"s), "\"plain / text\"");
    EXPECT_EQ(written("a \"b\" \\ \n\t\x01"s), R"("a \"b\" \\ \n\t\u0001")");
    EXPECT_EQ(written("\xE2\x98\xBE \xF0\x9F\x8C\x99"s), "\"\xE2\x98\xBE \xF0\x9F\x8C\x99\"");
    EXPECT_EQ(written("zero\0byte"s), R"("zero\u0000byte")");
    for (int first = 0; first < 0x80; ++first) {
        const std::string text{'<', static_cast<char>(first), '>'};
        EXPECT_EQ(read<std::string>(written(text)), text) << first;
    }
}

TEST(JSONTest, WritesNothingThatCouldNotBeRead) {
    const Parcel parcel{"Box", 1, 1, false, {"good", "bad \xFF"}, Size::small};
    EXPECT_EQ(written(parcel), "error: labels[1]: is not UTF-8 text");
    EXPECT_EQ(written("\xED\xA0\x80"s), "error: is not UTF-8 text");
    EXPECT_EQ(written(wallDate(std::nan(""))), "error: is not a date of the years 0 to 9999");
    EXPECT_EQ(written(std::vector<WallDate>{wallDate(0), wallDate(1e18)}),
              "error: [1]: is not a date of the years 0 to 9999");
}

// --- A variant: an object with one key

TEST(JSONTest, AVariantHasOneAlternative) {
    const JSON::Error oneExpected{"", "Invalid number of keys found, expected one."};
    for (const char* json :
         {"{}", R"({"blok":{}})", R"({"nothingScheduled":{},"noBlocks":{}})",
          R"({"block":{},"focus":{}})",
          // Whatever else is wrong inside.
          R"({"block":{"_0":{"name":[[{"a":[]}]],"x":{}}},"focus":5})",
          R"({"block":[[],{}],"focus":{"_0":{}}})", R"({"noBlocks":7,"focus":{"_0":null}})"}) {
        EXPECT_EQ(JSON::decode<State>(json).error(), oneExpected) << json;
    }
    EXPECT_EQ(read<State>(R"({"since":[1,{"block":{}}],"noBlocks":{"why":5}})"),
              State(WidgetSnapshot::NoBlocks{}))
        << "other keys are passed over";
    EXPECT_TRUE(read<State>(R"({"noBlocks":{},"noBlocks":{}})")) << "one key, though twice";
}

TEST(JSONTest, AVariantFailsForWhatIsWrongInItsAlternative) {
    EXPECT_EQ(JSON::decode<State>(R"({"block":{}})").error(),
              (JSON::Error{"block._0", "This is missing"}));
    EXPECT_EQ(
        errorOf<State>(R"({"block":{"_0":{"name":[["a"]],"end":"never"}},"other":{"a":[{}]}})"),
        "block._0.name: Expected a text, found a list");
    EXPECT_EQ(errorOf<State>(R"({"noBlocks":7})"), "noBlocks: Expected an object, found 7");
    EXPECT_EQ(errorOf<State>(R"({"focus":{"_0":null}})"),
              "focus._0: Expected an object, found null");
}

}  // namespace
}  // namespace halvo
