#include <gtest/gtest.h>

#include <limits>

#include "tests/Support/SampleSnapshot.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

using namespace std::string_literals;
using testing::nineOClock;

constexpr double infinity = std::numeric_limits<double>::infinity();

GregorianCalendar calendarOf(const std::string& zone) {
    return GregorianCalendar::named(zone).value();
}

TEST(PrintableTest, LeavesOrdinaryTextAlone) {
    EXPECT_EQ(printable(""), "");
    EXPECT_EQ(printable("Evening \"off\" \\ ☾ ü 𝄞"), "Evening \"off\" \\ ☾ ü 𝄞");
}

TEST(PrintableTest, EscapesWhatATerminalObeys) {
    EXPECT_EQ(printable("a\x1B[2Jb\r\n\t\a\x7F"), "a\\u001b[2Jb\\u000d\\n\\t\\u0007\\u007f");
    EXPECT_EQ(printable("a\0b"s), "a\\u0000b");
    EXPECT_EQ(printable("\xC2\x9B"), "\\u009b") << "one character that begins a sequence";
    EXPECT_EQ(printable("\xC2\xA0"), "\xC2\xA0") << "the first past the control characters";
}

TEST(PrintableTest, EscapesWhatTurnsTheDirectionOrBreaksTheLine) {
    EXPECT_EQ(printable("\u061C\u200E\u202E\u2028\u2029\u2066\u2069\uFEFF"),
              "\\u061c\\u200e\\u202e\\u2028\\u2029\\u2066\\u2069\\ufeff");
}

TEST(PrintableTest, EscapesBytesThatAreNoText) {
    EXPECT_EQ(printable("a\xFF\x80z"), "a\\xff\\x80z");
    EXPECT_EQ(printable("\xE2\x98"), "\\xe2\\x98") << "cut short";
    EXPECT_EQ(printable("\xC0\x9B"), "\\xc0\\x9b") << "a control character, written too long";
    EXPECT_EQ(printable("\xE2\x1B[m"), "\\xe2\\u001b[m");
    EXPECT_EQ(printable("\xED\xA0\x80"), "\\xed\\xa0\\x80") << "half a pair";
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
    EXPECT_EQ(countdown(Seconds{630}), "10:30");
    EXPECT_EQ(countdown(Seconds{0.1}), "0:01");
    EXPECT_EQ(countdown(Seconds{3599.5}), "1:00:00");
    EXPECT_EQ(countdown(Seconds{3723}), "1:02:03");
    EXPECT_EQ(countdown(Seconds{360000}), "100:00:00");
}

TEST(CountdownTest, IsOverForWhatCannotBeCounted) {
    for (const double span :
         {0.0, -1.0, infinity, -infinity, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(countdown(Seconds{span}), "0:00") << span;
    }
}

TEST(ZonedDateTest, SaysHowFarTheClockIsAheadOfUTC) {
    EXPECT_EQ(zonedDate(nineOClock, calendarOf("UTC")), "2026-11-20 09:00:00 +00:00");
    EXPECT_EQ(zonedDate(nineOClock, calendarOf("Europe/Berlin")), "2026-11-20 10:00:00 +01:00");
    EXPECT_EQ(zonedDate(nineOClock, calendarOf("America/St_Johns")), "2026-11-20 05:30:00 -03:30");
    EXPECT_EQ(zonedDate(nineOClock, calendarOf("Pacific/Kiritimati")),
              "2026-11-20 23:00:00 +14:00");
    EXPECT_EQ(zonedDate(wallDate(-5364662400), calendarOf("Europe/Berlin")),
              "1800-01-01 00:53:28 +00:53:28");
}

TEST(ZonedDateTest, IsCutToTheSecond) {
    EXPECT_EQ(zonedDate(nineOClock + Seconds{0.999}, calendarOf("UTC")),
              "2026-11-20 09:00:00 +00:00");
    EXPECT_EQ(zonedDate(wallDate(-0.5), calendarOf("UTC")), "1969-12-31 23:59:59 +00:00");
}

TEST(ZonedDateTest, IsInUTCWhereTheCalendarDoesNotReach) {
    const GregorianCalendar berlin = calendarOf("Europe/Berlin");
    EXPECT_EQ(zonedDate(wallDate(-62135596801), berlin), "0000-12-31 23:59:59 +00:00");
    EXPECT_EQ(zonedDate(wallDate(253402300800), berlin), "10000-01-01 00:00:00 +00:00");
}

TEST(ZonedDateTest, DoesNotBelieveInEveryNumber) {
    for (const double date :
         {infinity, -infinity, 1e300, -1e15, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(zonedDate(wallDate(date), calendarOf("UTC")), "an unknown time") << date;
    }
}

TEST(TableTest, PutsCellsBelowEachOther) {
    EXPECT_EQ(table({{"a", "bbb", "c"}, {"☾☾", "b"}, {}}, "> "), "> a   bbb  c\n> ☾☾  b\n>\n");
    EXPECT_EQ(table({}, "  "), "");
}

}  // namespace
}  // namespace halvo::records
