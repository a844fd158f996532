#include <gtest/gtest.h>

#include <string>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace halvo {
namespace {

using testing::sampleSnapshot;
using Kind = JSON::DecodingError::Kind;
using State = WidgetSnapshot::State;

// A snapshot's JSON with `from` replaced once, which it must contain.
std::string changed(const std::string& from, const std::string& to) {
    std::string json = JSON::encode(sampleSnapshot()).value();
    const std::size_t place = json.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    return json.replace(place, from.size(), to);
}

std::string pathOfErrorIn(const std::string& json) {
    const auto snapshot = JSON::decode<WidgetSnapshot>(json);
    EXPECT_FALSE(snapshot.has_value());
    return snapshot ? "" : snapshot.error().path;
}

JSON::DecodingError errorOf(const std::string& state) {
    const auto decoded = JSON::decode<State>(state);
    EXPECT_FALSE(decoded.has_value()) << state;
    return decoded ? JSON::DecodingError{} : decoded.error();
}

const JSON::DecodingError oneExpected{Kind::TypeMismatch, "",
                                      "Invalid number of keys found, expected one."};

TEST(JSONTest, HasNoBlanks) {
    const std::string json = JSON::encode(WidgetSnapshot()).value();
    EXPECT_EQ(json,
              R"({"blockCount":0,"blocks":[],"breathe":{"minutes":0,"style":""},"days":[],)"
              R"("focusMinutes":0,"horizon":"1970-01-01T00:00:00Z","isRunning":false,"lists":[],)"
              R"("phases":[],"writtenAt":"1970-01-01T00:00:00Z"})");
}

TEST(JSONTest, MayHaveBlanksWhenItIsRead) {
    EXPECT_TRUE(JSON::decode<State>(" \n{ \"noBlocks\" :\t{ } }\r\n"));
}

TEST(JSONTest, HasNoZeroByteAnywhere) {
    const std::string json = "{ \"noBlocks\" : { } } ";
    const JSON::DecodingError error{Kind::Malformed, "", "This is not JSON: it holds a zero byte"};
    for (const char* rest : {"", "rubbish", "{}"}) {
        EXPECT_EQ(errorOf(json + '\0' + rest), error) << rest;
    }
    for (std::size_t place = 0; place <= json.size(); ++place) {
        EXPECT_EQ(errorOf(std::string(json).insert(place, 1, '\0')), error) << place;
    }
}

TEST(JSONTest, SaysTheWayToABadMember) {
    EXPECT_EQ(pathOfErrorIn(changed(R"("level":"gentle")", R"("level":"mild")")),
              "phases[2].state.focusFilter._0.level");
    EXPECT_EQ(pathOfErrorIn(changed(R"("symbol":"brain")", R"("symbol":5)")),
              "blocks[0].look.symbol");
    EXPECT_EQ(pathOfErrorIn(changed(R"(["Mail","News"])", R"(["Mail",null])")),
              "phases[0].state.block._0.names[1]");
    EXPECT_EQ(pathOfErrorIn(changed(R"("days":[{)", R"("days":[5,{)")), "days[0]");
    EXPECT_EQ(pathOfErrorIn(changed(R"("horizon":"2026)", R"("horizon":"26)")), "horizon");
}

TEST(JSONTest, SaysTheWayToAMissingMember) {
    EXPECT_EQ(pathOfErrorIn(changed(R"("color":"indigo",)", "")), "blocks[0].look.color");
    EXPECT_EQ(pathOfErrorIn(changed(R"("_0":)", R"("_1":)")), "phases[0].state.block._0");
    EXPECT_EQ(pathOfErrorIn("{}"), "writtenAt");
}

TEST(JSONTest, SaysWhatWasExpectedAndWhatWasFound) {
    const auto error =
        JSON::decode<WidgetSnapshot>(changed(R"("level":"gentle")", R"("level":"mild")")).error();
    EXPECT_EQ(error.kind, Kind::BadValue);
    EXPECT_EQ(JSON::description(error),
              "phases[2].state.focusFilter._0.level: Expected one of \"gentle\", \"firm\", "
              "\"ultraHard\", found \"mild\"");
}

TEST(JSONTest, SaysWhereATextCeasesToBeJSON) {
    const auto error = JSON::decode<WidgetSnapshot>("{\n  \"phases\": [,]\n}").error();
    EXPECT_EQ(error.kind, Kind::Malformed);
    EXPECT_EQ(error.path, "");
    EXPECT_TRUE(error.problem.starts_with("This is not JSON: parse error at line 2, column 14"))
        << error.problem;
}

TEST(JSONTest, IsNotReadFromATextThatIsNotJSON) {
    using namespace std::string_literals;
    const std::string whole = JSON::encode(sampleSnapshot()).value();
    for (const std::string& text :
         {""s, " "s, "{"s, "nul"s, whole + "x", whole + whole, whole + ",", whole + " // why",
          "\0"s, "{\"noBlocks\":{},}"s, "{'noBlocks':{}}"s, "{\"a\xFF\":1}"s,
          "{\"a\":\"\xED\xA0\x80\"}"s, "{\"a\":\"\\ud800\"}"s, "{\"a\":\"line\nbreak\"}"s,
          "{\"a\":01}"s, "{\"a\":NaN}"s, "{\"a\":1e999}"s}) {
        const auto snapshot = JSON::decode<WidgetSnapshot>(text);
        ASSERT_FALSE(snapshot.has_value()) << text;
        EXPECT_EQ(snapshot.error().kind, Kind::Malformed) << text;
    }
}

TEST(JSONTest, IsCutAnywhereAndThenNotRead) {
    const std::string whole = JSON::encode(sampleSnapshot()).value();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        ASSERT_FALSE(JSON::decode<WidgetSnapshot>(whole.substr(0, length))) << length;
    }
}

TEST(JSONTest, TellsOfALongMistakeInShort) {
    const auto error = JSON::decode<State>('"' + std::string(1'000'000, 'x')).error();
    EXPECT_LT(error.problem.size(), 300U);
    EXPECT_TRUE(error.problem.ends_with("xxx…")) << error.problem;
}

TEST(JSONTest, TellsOfAMistakeInUTF8WhateverTheTextHolds) {
    // Cut between characters, not within one.
    std::string text = "[\"";
    for (int i = 0; i < 300; ++i) {
        text += "\xE2\x98\xBE";
        const auto cut = JSON::decode<State>(text);
        ASSERT_FALSE(cut.has_value());
        EXPECT_TRUE(isUTF8(cut.error().problem)) << cut.error().problem;
    }
    EXPECT_TRUE(isUTF8(JSON::decode<State>("{\"a\xFF\":1}").error().problem));
    EXPECT_TRUE(isUTF8(JSON::decode<State>("\x80").error().problem));
}

TEST(JSONTest, PassesOverMembersThatARecordDoesNotDeclare) {
    const std::string json =
        changed(R"("writtenAt":)",
                R"("later":{"a":[{"writtenAt":5},[[]],null],"b":{}},"more":7,"writtenAt":)");
    EXPECT_EQ(JSON::decode<WidgetSnapshot>(json), sampleSnapshot());
}

TEST(JSONTest, TakesTheLastOfAKeyThatComesTwice) {
    EXPECT_EQ(JSON::decode<WidgetSnapshot>(changed(R"("phases":[)",
                                                   R"("phases":[{"start":"1970-01-01T00:00:00Z",)"
                                                   R"("state":{"noBlocks":{}}}],"phases":[)")),
              sampleSnapshot());
    EXPECT_EQ(JSON::decode<WidgetSnapshot::Look>(R"({"color":"red","symbol":"x","color":"blue"})"),
              (WidgetSnapshot::Look{"blue", "x"}));
}

TEST(JSONTest, AValueThatIsBadFailsTheWholeThoughTheKeyComesAgain) {
    EXPECT_FALSE(JSON::decode<WidgetSnapshot::Look>(R"({"color":5,"symbol":"x","color":"blue"})"));
}

// A choice: an object with one key.

TEST(JSONTest, AChoiceWithoutACaseFails) {
    EXPECT_EQ(errorOf("{}"), oneExpected);
    EXPECT_EQ(errorOf(R"({"blok":{}})"), oneExpected);
}

TEST(JSONTest, AChoiceWithTwoCasesFails) {
    EXPECT_EQ(errorOf(R"({"nothingScheduled":{},"noBlocks":{}})"), oneExpected);
    EXPECT_EQ(errorOf(R"({"block":{},"focus":{}})"), oneExpected);
}

TEST(JSONTest, AChoiceWithTwoCasesFailsForThatWhateverElseIsWrongInside) {
    EXPECT_EQ(errorOf(R"({"block":{"_0":{"name":[[{"a":[]}]],"x":{}}},"focus":5})"), oneExpected);
    EXPECT_EQ(errorOf(R"({"block":[[],{}],"focus":{"_0":{}}})"), oneExpected);
    EXPECT_EQ(errorOf(R"({"noBlocks":7,"focus":{"_0":null}})"), oneExpected);
}

TEST(JSONTest, AChoiceWithOneCaseFailsForWhatIsWrongInside) {
    EXPECT_EQ(errorOf(R"({"block":{}})"),
              (JSON::DecodingError{Kind::MissingMember, "block._0", "This is missing"}));
    EXPECT_EQ(errorOf(R"({"block":{"_0":{"name":[["a"]],"end":"never"}},"other":{"a":[{}]}})"),
              (JSON::DecodingError{Kind::TypeMismatch, "block._0.name",
                                   "Expected a text, found a list"}));
    EXPECT_EQ(errorOf(R"({"noBlocks":7})"),
              (JSON::DecodingError{Kind::TypeMismatch, "noBlocks", "Expected an object, found 7"}));
    EXPECT_EQ(
        errorOf(R"({"focus":{"_0":null}})"),
        (JSON::DecodingError{Kind::TypeMismatch, "focus._0", "Expected an object, found null"}));
}

TEST(JSONTest, AChoiceMustBeAnObject) {
    for (const char* json : {"\"noBlocks\"", "[]", "null", "5"}) {
        EXPECT_EQ(errorOf(json).kind, Kind::TypeMismatch) << json;
    }
}

TEST(JSONTest, AChoicePassesOverKeysThatAreNoCases) {
    EXPECT_EQ(JSON::decode<State>(R"({"since":[1,{"block":{}}],"noBlocks":{"why":5}})"),
              State(WidgetSnapshot::NoBlocks{}));
}

// Whatever the text, it takes no more stack. A reader that called itself would need more than the
// initial thread's 8 MiB here, with as little as 42 bytes for each level.

TEST(JSONTest, MayBeNestedAsDeepAsItWill) {
    constexpr std::size_t depth = 200'000;
    for (const std::string& opening : {std::string("["), std::string("{\"a\":")}) {
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

}  // namespace
}  // namespace halvo
