#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "HalvoShared/Coding.hpp"
#include "HalvoShared/JSON.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

enum class Size { small, large };

// A record with each kind of member.
struct Parcel {
    std::string name;
    std::int32_t count{};
    std::optional<std::int64_t> weight;
    bool fragile{};
    std::vector<std::string> labels;
    Size size{};

    bool operator==(const Parcel&) const = default;
};

}  // namespace

template <>
struct coding::Names<Size> {
    static constexpr std::array<std::string_view, 2> texts{"small", "large"};
};

template <>
const coding::Type& coding::Coding<Size>::type() {
    static const Type type = enumeration<Size>();
    return type;
}

template <>
const coding::Type& coding::Coding<Parcel>::type() {
    static const Type type = RecordType({
        required<&Parcel::name>("name"),
        required<&Parcel::count>("count"),
        optional<&Parcel::weight>("weight"),
        defaulted<&Parcel::fragile>("fragile", [] { return true; }),
        required<&Parcel::labels>("labels"),
        required<&Parcel::size>("size"),
    });
    return type;
}

namespace {

using Kind = JSON::DecodingError::Kind;

// What a T is read from `json`, or the error's text.
template <class T>
std::expected<T, std::string> read(const std::string& json) {
    auto value = JSON::decode<T>(json);
    if (!value) {
        return std::unexpected(JSON::description(value.error()));
    }
    return *value;
}

template <class T>
std::string written(const T& value) {
    const auto json = JSON::encode(value);
    return json ? *json : "error: " + JSON::description(json.error());
}

constexpr const char* whole =
    R"({"count":2,"fragile":false,"labels":["a"],"name":"Box","size":"large","weight":7})";

TEST(CodingTest, WritesAndReadsWhatWasDeclaredOnce) {
    const Parcel parcel{"Box", 2, 7, false, {"a"}, Size::large};
    EXPECT_EQ(written(parcel), whole);
    EXPECT_EQ(read<Parcel>(whole), parcel);
}

TEST(CodingTest, WritesKeysInTheOrderOfTheirBytes) {
    const auto& record = std::get<coding::RecordType>(coding::Coding<Parcel>::type());
    std::vector<std::string_view> keys;
    for (const std::size_t place : record.sorted) {
        keys.push_back(record.fields[place].key);
    }
    EXPECT_EQ(keys, (std::vector<std::string_view>{"count", "fragile", "labels", "name", "size",
                                                   "weight"}));
}

TEST(CodingTest, LeavesOutAnOptionalThatIsAbsent) {
    const Parcel parcel{"Box", 2, std::nullopt, false, {}, Size::small};
    EXPECT_EQ(written(parcel),
              R"({"count":2,"fragile":false,"labels":[],"name":"Box","size":"small"})");
    EXPECT_EQ(read<Parcel>(written(parcel)), parcel);
}

TEST(CodingTest, TakesNullForAnOptionalAsAbsent) {
    const auto parcel =
        read<Parcel>(R"({"count":2,"labels":[],"name":"","size":"small","weight":null})");
    ASSERT_TRUE(parcel) << parcel.error();
    EXPECT_EQ(parcel->weight, std::nullopt);
}

TEST(CodingTest, PutsTheDefaultWhereAMemberIsMissingOrNull) {
    for (const char* json :
         {R"({"count":2,"labels":[],"name":"","size":"small"})",
          R"({"count":2,"fragile":null,"labels":[],"name":"","size":"small"})"}) {
        const auto parcel = read<Parcel>(json);
        ASSERT_TRUE(parcel) << parcel.error();
        EXPECT_TRUE(parcel->fragile);
    }
}

TEST(CodingTest, RefusesARecordWithoutARequiredMember) {
    const auto error = JSON::decode<Parcel>(R"({"count":2,"labels":[],"size":"small"})");
    ASSERT_FALSE(error);
    EXPECT_EQ(error.error(), (JSON::DecodingError{Kind::MissingMember, "name", "This is missing"}));
}

TEST(CodingTest, RefusesNullForARequiredMember) {
    const auto error =
        JSON::decode<Parcel>(R"({"count":null,"labels":[],"name":"","size":"small"})");
    ASSERT_FALSE(error);
    EXPECT_EQ(error.error(),
              (JSON::DecodingError{Kind::TypeMismatch, "count",
                                   "Expected a whole number of 32 bits, found null"}));
}

TEST(CodingTest, KeepsToTheRangeOfAnInteger) {
    EXPECT_EQ(read<std::int32_t>("2147483647"), 2147483647);
    EXPECT_EQ(read<std::int32_t>("-2147483648"), std::numeric_limits<std::int32_t>::min());
    EXPECT_FALSE(read<std::int32_t>("2147483648"));
    EXPECT_FALSE(read<std::int32_t>("-2147483649"));
    EXPECT_EQ(read<std::int64_t>("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(read<std::int64_t>("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_FALSE(read<std::int64_t>("9223372036854775808"));
    EXPECT_FALSE(read<std::int64_t>("18446744073709551616"));
    EXPECT_FALSE(read<std::int64_t>("-9223372036854775809"));
    EXPECT_FALSE(read<std::int64_t>("-9223372036854776832"));
    EXPECT_FALSE(read<std::int64_t>("-1" + std::string(400, '0') + "1.0"));
    EXPECT_FALSE(read<std::int64_t>("9223372036854775808.0"));
}

TEST(CodingTest, TakesAnIntegerHoweverItIsSpelled) {
    EXPECT_EQ(read<std::int64_t>("5.0"), 5);
    EXPECT_EQ(read<std::int64_t>("0.5e1"), 5);
    EXPECT_EQ(read<std::int64_t>("-1e3"), -1000);
    EXPECT_EQ(read<std::int64_t>("-9223372036854775808.0"),
              std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(read<std::int64_t>("5.5").error(), "Expected a whole number of 64 bits, found 5.5");
    EXPECT_FALSE(read<std::int64_t>("1e400"));
}

TEST(CodingTest, TakesNoOtherTypeForAScalar) {
    EXPECT_EQ(read<std::int64_t>("\"5\"").error(),
              "Expected a whole number of 64 bits, found \"5\"");
    EXPECT_EQ(read<std::int64_t>("true").error(), "Expected a whole number of 64 bits, found true");
    EXPECT_EQ(read<bool>("1").error(), "Expected true or false, found 1");
    EXPECT_EQ(read<bool>("\"true\"").error(), "Expected true or false, found \"true\"");
    EXPECT_EQ(read<std::string>("5").error(), "Expected a text, found 5");
    EXPECT_EQ(read<std::string>("[]").error(), "Expected a text, found a list");
    EXPECT_EQ(read<std::string>("{}").error(), "Expected a text, found an object");
    EXPECT_EQ(read<WallDate>("0").error(),
              "Expected a date such as \"2026-11-20T09:30:00Z\", found 0");
    EXPECT_EQ(read<UUID>("\"nobody\"").error(),
              "Expected a UUID such as \"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\", found "
              "\"nobody\"");
}

TEST(CodingTest, TellsALongTextByItsLength) {
    EXPECT_EQ(read<bool>('"' + std::string(100'000, 'x') + '"').error(),
              "Expected true or false, found a text of 100000 bytes");
}

TEST(CodingTest, KnowsAnEnumeratorByItsName) {
    EXPECT_EQ(read<Size>("\"large\""), Size::large);
    EXPECT_EQ(written(Size::small), "\"small\"");
    for (const char* json : {"\"Large\"", "\"\"", "\"smal\"", "1", "null"}) {
        const auto size = read<Size>(json);
        ASSERT_FALSE(size);
        EXPECT_EQ(size.error(), std::string("Expected one of \"small\", \"large\", found ") + json);
    }
}

TEST(CodingTest, WritesNoEnumeratorWithoutAName) {
    EXPECT_EQ(written(static_cast<Size>(2)), "error: is none of the values that have a name");
    EXPECT_EQ(written(static_cast<Size>(-1)), "error: is none of the values that have a name");
}

TEST(CodingTest, CountsNoMoreKeysThanItCan) {
    using coding::mostKeys;
    const coding::Field field = coding::required<&Parcel::name>("name");
    EXPECT_EQ(coding::RecordType(std::vector(mostKeys, field)).fields.size(), mostKeys);
    const auto child = testing::runInChild(
        [&] { const coding::RecordType tooMany(std::vector(mostKeys + 1, field)); });
    EXPECT_EQ(child.signal, SIGABRT);
    const auto choice = testing::runInChild(
        [] { const coding::ChoiceType tooMany(std::vector<coding::Case>(mostKeys + 1), nullptr); });
    EXPECT_EQ(choice.signal, SIGABRT);
}

TEST(CodingTest, WritesTextsAsJSONSpellsThem) {
    EXPECT_EQ(written(std::string("plain / text")), "\"plain / text\"");
    EXPECT_EQ(written(std::string("a \"b\" \\ \n\t\x01")), R"("a \"b\" \\ \n\t\u0001")");
    EXPECT_EQ(written(std::string("\xE2\x98\xBE \xF0\x9F\x8C\x99")),
              "\"\xE2\x98\xBE \xF0\x9F\x8C\x99\"");
    EXPECT_EQ(written(std::string("zero\0byte", 9)), R"("zero\u0000byte")");
}

TEST(CodingTest, ReadsBackEveryTextThatItWrites) {
    for (int first = 0; first < 0x80; ++first) {
        const std::string text{'<', static_cast<char>(first), '>'};
        EXPECT_EQ(read<std::string>(written(text)), text) << first;
    }
}

TEST(CodingTest, WritesNoTextThatIsNotUTF8) {
    const Parcel parcel{"Box", 1, 1, false, {"good", "bad \xFF"}, Size::small};
    EXPECT_EQ(written(parcel), "error: labels[1]: is not UTF-8 text");
    EXPECT_EQ(written(std::string("\xED\xA0\x80")), "error: is not UTF-8 text");
}

TEST(CodingTest, WritesNoDateWithoutAText) {
    EXPECT_EQ(written(wallDate(std::nan(""))), "error: is not a date of the years 0 to 9999");
    EXPECT_EQ(written(std::vector<WallDate>{wallDate(0), wallDate(1e18)}),
              "error: [1]: is not a date of the years 0 to 9999");
}

}  // namespace
}  // namespace halvo
