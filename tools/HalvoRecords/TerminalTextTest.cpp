#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::records {
namespace {

using namespace std::string_literals;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

TEST(PrintableTest, EscapesWhatATerminalObeysAndWhatIsNoText) {
    const struct {
        std::string text;
        std::string printed;
        const char* why;
    } rows[] = {
        {"", "", ""},
        {"Evening \"off\" \\ ☾ ü 𝄞", "Evening \"off\" \\ ☾ ü 𝄞", "ordinary text"},
        {"a\x1B[2Jb\r\n\t\a\x7F", "a\\u001b[2Jb\\u000d\\n\\t\\u0007\\u007f", "control characters"},
        {"a\0b"s, "a\\u0000b", "a zero byte"},
        {"\xC2\x9B", "\\u009b", "one character that begins a sequence"},
        {"\xC2\xA0", "\xC2\xA0", "the first past the control characters"},
        {"\u061C\u200E\u202E\u2028\u2029\u2066\u2069\uFEFF",
         "\\u061c\\u200e\\u202e\\u2028\\u2029\\u2066\\u2069\\ufeff", "the direction, and lines"},
        {"a\xFF\x80z", "a\\xff\\x80z", "no UTF-8"},
        {"\xE2\x98", "\\xe2\\x98", "cut short"},
        {"\xC0\x9B", "\\xc0\\x9b", "a control character, written too long"},
        {"\xE2\x1B[m", "\\xe2\\u001b[m", "cut short by a control character"},
        {"\xED\xA0\x80", "\\xed\\xa0\\x80", "half a pair"},
    };

    for (const auto& [text, printed, why] : rows) {
        EXPECT_EQ(printable(text), printed) << why;
    }
}

TEST(InQuotesTest, ShowsWhereATextBeginsAndEnds) {
    EXPECT_EQ(inQuotes(""), R"("")");
    EXPECT_EQ(inQuotes(" a "), R"(" a ")");
    EXPECT_EQ(inQuotes("\"\\\n"), R"("\"\\\n")");
}

TEST(IndentedTest, KeepsTheOrderOfMembers) {
    EXPECT_EQ(indented(R"({"b":1,"a":[true,"x"],"c":{}})"),
              "{\n  \"b\": 1,\n  \"a\": [\n    true,\n    \"x\"\n  ],\n  \"c\": {}\n}\n");
}

TEST(IndentedTest, EscapesInTextsWhatATerminalObeys) {
    EXPECT_EQ(indented("[\"\\u001b\xC2\x9B\x7F\u202E☾\\n\"]"),
              "[\n  \"\\u001b\\u009b\\u007f\\u202e☾\\n\"\n]\n");
}

TEST(CountedTest, KnowsOneFromMany) {
    EXPECT_EQ(counted(0, "day"), "0 days");
    EXPECT_EQ(counted(1, "day"), "1 day");
    EXPECT_EQ(counted(2, "day"), "2 days");
}

TEST(CountdownTest, CountsTheSecondThatHasBegun) {
    const std::pair<double, const char*> rows[] = {
        {630, "10:30"},     {0.1, "0:01"},         {545, "9:05"},   {3599.5, "1:00:00"},
        {3723, "1:02:03"},  {360000, "100:00:00"}, {0, "0:00"},     {-1, "0:00"},
        {infinity, "0:00"}, {-infinity, "0:00"},   {1e300, "0:00"}, {notANumber, "0:00"}};
    for (const auto& [span, text] : rows) {
        EXPECT_EQ(countdown(Seconds{span}), text) << span;
    }
}

TEST(ZonedDateTest, SaysHowFarTheClockIsAheadOfUTC) {
    const struct {
        double date;
        const char* zone;
        const char* text;
    } rows[] = {{1795165200, "UTC", "2026-11-20 09:00:00 +00:00"},
                {1795165200, "Europe/Berlin", "2026-11-20 10:00:00 +01:00"},
                {1795165200, "America/St_Johns", "2026-11-20 05:30:00 -03:30"},
                {1795165200, "Pacific/Kiritimati", "2026-11-20 23:00:00 +14:00"},
                {-5364662400, "Europe/Berlin", "1800-01-01 00:53:28 +00:53:28"},
                // Cut to the second.
                {1795165200.999, "UTC", "2026-11-20 09:00:00 +00:00"},
                {-0.5, "UTC", "1969-12-31 23:59:59 +00:00"},
                // Where the calendar does not reach, and no text.
                {-62135596801, "Europe/Berlin", "0000-12-31 23:59:59 +00:00"},
                {253402300800, "Europe/Berlin", "an unknown time"},
                {infinity, "UTC", "an unknown time"},
                {-infinity, "UTC", "an unknown time"},
                {1e300, "UTC", "an unknown time"},
                {notANumber, "UTC", "an unknown time"}};

    for (const auto& [date, zone, text] : rows) {
        EXPECT_EQ(zonedDate(wallDate(date), GregorianCalendar::named(zone).value()), text) << date;
    }
}

TEST(TableTest, PutsCellsBelowEachOther) {
    EXPECT_EQ(table({{"a", "bbb", "c"}, {"☾☾", "b"}, {}}, "> "), "> a   bbb  c\n> ☾☾  b\n>\n");
    EXPECT_EQ(table({}, "  "), "");
}

}  // namespace
}  // namespace halvo::records
