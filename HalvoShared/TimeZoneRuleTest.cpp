#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "HalvoShared/TimeZoneRule.hpp"

namespace halvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;

using Rule = TimeZoneRule;

// Expects that `text` says when summer begins and ends in `inYear`.
void expectSummer(std::string_view text, int inYear, sys_seconds begin, sys_seconds end) {
    SCOPED_TRACE(text);
    const auto rule = Rule::parse(text);
    ASSERT_TRUE(rule.has_value());
    const auto changes = rule->changes(year{inYear});
    ASSERT_TRUE(changes.has_value());
    EXPECT_EQ(changes->at(0).begin, begin) << (changes->at(0).begin - begin).count();
    EXPECT_EQ(changes->at(1).begin, end) << (changes->at(1).begin - end).count();
    EXPECT_EQ(changes->at(0).offset, rule->summer->offset);
    EXPECT_EQ(changes->at(1).offset, rule->standardOffset);
}

TEST(TimeZoneRuleTest, ReadsAnOffsetThatNeverChanges) {
    EXPECT_EQ(Rule::parse("UTC0"), (Rule{0s, std::nullopt}));
    EXPECT_EQ(Rule::parse("JST-9"), (Rule{9h, std::nullopt}));
    EXPECT_EQ(Rule::parse("MST+7"), (Rule{-7h, std::nullopt}));
    EXPECT_EQ(Rule::parse("<-0930>9:30"), (Rule{-9h - 30min, std::nullopt}));
    EXPECT_EQ(Rule::parse("LMT-0:53:28"), (Rule{53min + 28s, std::nullopt}));
    EXPECT_EQ(Rule::parse("JST-9")->changes(year{2024}), std::nullopt);
}

TEST(TimeZoneRuleTest, ReadsASummerTime) {
    EXPECT_EQ(Rule::parse("CET-1CEST,M3.5.0,M10.5.0/3"),
              (Rule{1h, Rule::SummerTime{2h,
                                         {Rule::WeekdayOfMonth{3, 5, 0}, 2h},
                                         {Rule::WeekdayOfMonth{10, 5, 0}, 3h}}}));
    EXPECT_EQ(Rule::parse("ABC3DEF2:30,J60/0,365/-1:30:15"),
              (Rule{-3h, Rule::SummerTime{-2h - 30min,
                                          {Rule::DayButLeapDay{60}, 0h},
                                          {Rule::DayOfYear{365}, -1h - 30min - 15s}}}));
}

TEST(TimeZoneRuleTest, ReadsAWinterTimeInPlaceOfASummerTime) {
    EXPECT_EQ(Rule::parse("IST-1GMT0,M10.5.0,M3.5.0/1"),
              (Rule{1h, Rule::SummerTime{0h,
                                         {Rule::WeekdayOfMonth{10, 5, 0}, 2h},
                                         {Rule::WeekdayOfMonth{3, 5, 0}, 1h}}}));
}

TEST(TimeZoneRuleTest, RefusesWhatIsNoRule) {
    for (const std::string_view text : {"",
                                        "0",
                                        "UT0",
                                        "UTC",
                                        "UTC-",
                                        "UTC--1",
                                        "UTC-+1",
                                        "UTC25",
                                        "UTC0:60",
                                        "UTC0:0:60",
                                        "UTC0:",
                                        "UTC0 ",
                                        "<UTC",
                                        "<UTC>",
                                        "<ab>0",
                                        "CET-1CEST",
                                        "CET-1CEST,",
                                        "CET-1CEST,M3.5.0",
                                        "CET-1CEST,M3.5.0,",
                                        "CET-1CEST,M3.5.0,M10.5.0,",
                                        "CET-1CEST,M0.5.0,M10.5.0",
                                        "CET-1CEST,M13.5.0,M10.5.0",
                                        "CET-1CEST,M3.0.0,M10.5.0",
                                        "CET-1CEST,M3.6.0,M10.5.0",
                                        "CET-1CEST,M3.5.7,M10.5.0",
                                        "CET-1CEST,M3.5,M10.5.0",
                                        "CET-1CEST,M3.5.0/168,M10.5.0",
                                        "CET-1CEST,M3.5.0/,M10.5.0",
                                        "CET-1CEST,J0,J100",
                                        "CET-1CEST,J366,J100",
                                        "CET-1CEST,366,100",
                                        "CET-1CEST,-1,100",
                                        "CET-1CE,M3.5.0,M10.5.0",
                                        "CET-1CEST,M3.99999999999.0,M10.5.0",
                                        "CET-1CEST-25,M3.5.0,M10.5.0"}) {
        EXPECT_EQ(Rule::parse(text), std::nullopt) << text;
    }
    EXPECT_EQ(Rule::parse(std::string("UTC0\0", 5)), std::nullopt);
}

// Worked out by hand: the last Sunday of March 2024 is the 31st, that of October the 27th.
TEST(TimeZoneRuleTest, CountsTheTimeOfAChangeOnTheClockBeforeIt) {
    expectSummer("CET-1CEST,M3.5.0,M10.5.0/3", 2024, sys_days{year{2024} / 3 / 31} + 1h,
                 sys_days{year{2024} / 10 / 27} + 1h);
}

// By hand: 2024 began on a Monday; its first Friday in March is the 1st, its second the 8th.
TEST(TimeZoneRuleTest, CountsWeeksFromTheFirstSuchDayOfTheMonth) {
    expectSummer("ABC0DEF,M3.1.5/0,M3.2.5/1", 2024, sys_days{year{2024} / 3 / 1},
                 sys_days{year{2024} / 3 / 8});
}

// By hand: the last Sundays of March and October 4000 are the 26th and the 29th.
TEST(TimeZoneRuleTest, TakesTimesBeforeMidnightAndAfterTheDay) {
    expectSummer("<-02>2<-01>,M3.5.0/-1,M10.5.0/0", 4000, sys_days{year{4000} / 3 / 26} + 1h,
                 sys_days{year{4000} / 10 / 29} + 1h);
    // The fourth Thursday of March 2040 is the 22nd; 50 hours later it is 02:00 on the 24th.
    expectSummer("EET-2EEST,M3.4.4/50,M10.4.4/50", 2040, sys_days{year{2040} / 3 / 24} + 0h,
                 sys_days{year{2040} / 10 / 27} - 1h);
}

// By hand: J60 is 1 March in every year; day 60 counted from 0 is 1 March only in common ones.
TEST(TimeZoneRuleTest, CountsTheLeapDayOnlyWhereItIsToldTo) {
    for (const int inYear : {2023, 2024}) {
        expectSummer("ABC0DEF,J59/0,J60/1", inYear, sys_days{year{inYear} / 2 / 28},
                     sys_days{year{inYear} / 3 / 1});
    }
    expectSummer("ABC0DEF,59/0,60/1", 2023, sys_days{year{2023} / 3 / 1},
                 sys_days{year{2023} / 3 / 2});
    expectSummer("ABC0DEF,59/0,60/1", 2024, sys_days{year{2024} / 2 / 29},
                 sys_days{year{2024} / 3 / 1});
}

// The example of RFC 8536 (3.3.1) for summer time all year: each ends as the next begins.
TEST(TimeZoneRuleTest, LetsASummerEndAsTheNextBegins) {
    const auto rule = Rule::parse("XXX3EDT4,0/0,J365/23");
    ASSERT_TRUE(rule.has_value());
    for (const int inYear : {2023, 2024}) {
        EXPECT_EQ(rule->changes(year{inYear})->at(1).begin,
                  rule->changes(year{inYear + 1})->at(0).begin);
    }
}

}  // namespace
}  // namespace halvo
