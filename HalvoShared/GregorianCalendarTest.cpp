#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::PrivateMount;
using testing::writeTestFile;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double hour = 3600;

// The instant of a text such as "2024-03-31T10:00" or "1893-03-31T11:06:32", in UTC.
WallDate at(const std::string& text) {
    tm utc{};
    const char* seconds = strptime(text.c_str(), "%Y-%m-%dT%H:%M", &utc);
    EXPECT_TRUE(seconds != nullptr && (*seconds == '\0' || strptime(seconds, ":%S", &utc))) << text;
    return wallDate(static_cast<double>(timegm(&utc)));
}

// The inverse of at(), so that what differs can be read; a fraction follows in seconds.
std::string text(std::optional<WallDate> date) {
    if (!date) {
        return "nothing";
    }
    const double seconds = secondsSince1970(*date);
    const double fraction = seconds - std::floor(seconds);
    const std::time_t time = static_cast<std::time_t>(std::floor(seconds));
    tm utc{};
    gmtime_r(&time, &utc);
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02dT%02d:%02d:%02d", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    std::string result = buffer.data();
    if (utc.tm_sec == 0) {
        result.resize(result.size() - 3);
    }
    return result + (fraction == 0 ? "" : "+" + std::to_string(fraction));
}

GregorianCalendar calendarOf(const std::string& zone) {
    auto calendar = GregorianCalendar::named(zone);
    if (!calendar) {
        throw std::runtime_error(calendar.error());
    }
    return *calendar;
}

struct Day {
    std::string zone;
    std::string date;
    std::string start;
    std::string next;
};

// Expects each day's ends, asked for at `date`, at the day's first instant and in its last moment.
void expectDays(const std::vector<Day>& days) {
    for (const Day& day : days) {
        SCOPED_TRACE(day.zone + " " + day.date);
        const auto calendar = calendarOf(day.zone);
        const WallDate lastMoment = at(day.next) - Seconds{0.001};
        for (const WallDate date : {at(day.date), at(day.start), lastMoment}) {
            EXPECT_EQ(text(calendar.startOfDay(date)), day.start);
            EXPECT_EQ(text(calendar.startOfNextDay(date)), day.next);
        }
    }
}

struct Sum {
    std::string zone;
    std::string date;
    int days;
    std::string result;
};

void expectSums(const std::vector<Sum>& sums) {
    for (const Sum& sum : sums) {
        EXPECT_EQ(text(calendarOf(sum.zone).addingDays(sum.days, at(sum.date))), sum.result)
            << sum.zone << " " << sum.date << " " << sum.days;
    }
}

// The tables of days come from Python's zoneinfo, asked second by second for the local date; those
// of sums from its arithmetic on local times, with fold=0 on the way forward. Where a comment gives
// the rule, they were checked against it by hand.

// The European Union changes at 01:00 UTC on the last Sundays of March and October, the United
// States at 02:00 on the second Sunday of March and the first of November.
TEST(GregorianCalendarTest, KnowsDaysOf23And25Hours) {
    expectDays({
        {"Europe/Berlin", "2024-03-31T10:00", "2024-03-30T23:00", "2024-03-31T22:00"},
        {"Europe/Berlin", "2024-06-30T22:00", "2024-06-30T22:00", "2024-07-01T22:00"},
        {"Europe/Berlin", "2024-10-27T11:00", "2024-10-26T22:00", "2024-10-27T23:00"},
        {"America/New_York", "2024-03-10T16:00", "2024-03-10T05:00", "2024-03-11T04:00"},
        {"America/New_York", "2024-11-03T17:00", "2024-11-03T04:00", "2024-11-04T05:00"},
        {"Europe/Dublin", "2024-03-31T11:00", "2024-03-31T00:00", "2024-03-31T23:00"},
        {"Europe/Dublin", "2024-10-27T12:00", "2024-10-26T23:00", "2024-10-28T00:00"},
    });
}

// Chile, Egypt and Lebanon go from 24:00 to 01:00, and back at 24:00 or 00:00.
TEST(GregorianCalendarTest, BeginsADayWithoutMidnightAtItsFirstInstant) {
    expectDays({
        {"America/Santiago", "2024-09-08T15:00", "2024-09-08T04:00", "2024-09-09T03:00"},
        {"America/Santiago", "2024-04-06T15:00", "2024-04-06T03:00", "2024-04-07T04:00"},
        {"Africa/Cairo", "2024-04-26T09:00", "2024-04-25T22:00", "2024-04-26T21:00"},
        {"Africa/Cairo", "2024-10-31T09:00", "2024-10-30T21:00", "2024-10-31T22:00"},
        {"Asia/Beirut", "2024-03-31T09:00", "2024-03-30T22:00", "2024-03-31T21:00"},
        {"Asia/Beirut", "2024-10-26T09:00", "2024-10-25T21:00", "2024-10-26T22:00"},
        {"America/Nuuk", "2024-03-30T14:00", "2024-03-30T02:00", "2024-03-31T01:00"},
    });
}

// Cuba goes back from 01:00 to 00:00.
TEST(GregorianCalendarTest, BeginsADayWithTwoMidnightsAtTheFirst) {
    expectDays({
        {"America/Havana", "2024-11-03T17:00", "2024-11-03T04:00", "2024-11-04T05:00"},
        {"America/Havana", "2024-11-03T05:00", "2024-11-03T04:00", "2024-11-04T05:00"},
        {"America/Havana", "2024-03-10T16:00", "2024-03-10T05:00", "2024-03-11T04:00"},
    });
}

// Newfoundland went back from 00:01 to 23:01 then (zdump: at 2000-10-29 02:31 UTC), so 29 October
// began, was interrupted by the last hour of the 28th, and began again.
TEST(GregorianCalendarTest, StepsForwardEvenWhenTheClockGoesBackAcrossMidnight) {
    const auto calendar = calendarOf("America/St_Johns");
    const auto first = at("2000-10-29T02:30");
    const auto again = at("2000-10-29T03:30");
    const auto between = at("2000-10-29T03:00");
    EXPECT_EQ(text(calendar.startOfNextDay(at("2000-10-28T14:30"))), text(first));
    EXPECT_EQ(text(calendar.startOfDay(between)), "2000-10-28T02:30");
    EXPECT_EQ(text(calendar.startOfNextDay(between)), text(again));
    EXPECT_EQ(text(calendar.startOfDay(again)), text(first));
    EXPECT_EQ(text(calendar.startOfNextDay(first)), "2000-10-30T03:30");
    EXPECT_EQ(text(calendar.startOfNextDay(again)), "2000-10-30T03:30");
}

// Samoa went from 2011-12-29 24:00 (-10:00) to 2011-12-31 00:00 (+14:00).
TEST(GregorianCalendarTest, PassesOverADayThatTheZoneSkipped) {
    expectDays({
        {"Pacific/Apia", "2011-12-29T22:00", "2011-12-29T10:00", "2011-12-30T10:00"},
        {"Pacific/Apia", "2011-12-30T22:00", "2011-12-30T10:00", "2011-12-31T10:00"},
        {"Pacific/Kwajalein", "1993-08-21T00:00", "1993-08-20T12:00", "1993-08-21T12:00"},
    });
    // A sum that meets it goes on by 24 hours for each day, to the same time of the day after.
    expectSums({
        {"Pacific/Apia", "2011-12-29T20:00", 1, "2011-12-30T20:00"},
        {"Pacific/Apia", "2011-12-29T10:00", 1, "2011-12-30T10:00"},
        {"Pacific/Apia", "2011-12-30T09:59:59", 1, "2011-12-31T09:59:59"},
        {"Pacific/Apia", "2011-12-29T20:00", 2, "2011-12-31T20:00"},
        {"Pacific/Apia", "2011-12-30T20:00", -1, "2011-12-29T20:00"},
        {"Pacific/Apia", "2011-12-30T10:00", -1, "2011-12-29T10:00"},
        {"Pacific/Apia", "2011-12-30T20:00", -2, "2011-12-28T20:00"},
        {"Pacific/Kwajalein", "1993-08-21T12:00", -1, "1993-08-20T12:00"},
    });
}

// The other side of the date line: Kwajalein had most of 1969-09-30 twice.
TEST(GregorianCalendarTest, KnowsADayOf47Hours) {
    expectDays({{"Pacific/Kwajalein", "1969-09-30T01:00", "1969-09-29T13:00", "1969-10-01T12:00"}});
}

TEST(GregorianCalendarTest, KnowsOffsetsThatAreNoWholeHours) {
    expectDays({
        {"Australia/Lord_Howe", "2024-04-07T01:30", "2024-04-06T13:00", "2024-04-07T13:30"},
        {"Australia/Lord_Howe", "2024-10-06T01:00", "2024-10-05T13:30", "2024-10-06T13:00"},
        {"Asia/Kathmandu", "2024-01-01T06:15", "2023-12-31T18:15", "2024-01-01T18:15"},
        {"Asia/Kathmandu", "1985-12-31T17:30", "1985-12-30T18:30", "1985-12-31T18:30"},
        {"Asia/Kathmandu", "1986-01-01T06:15", "1985-12-31T18:30", "1986-01-01T18:15"},
    });
}

TEST(GregorianCalendarTest, KnowsUTC) {
    expectDays({
        {"UTC", "2024-02-29T23:59", "2024-02-29T00:00", "2024-03-01T00:00"},
        {"UTC", "1970-01-01T00:00", "1970-01-01T00:00", "1970-01-02T00:00"},
        {"UTC", "4000-02-29T12:00", "4000-02-29T00:00", "4000-03-01T00:00"},
        {"Etc/UTC", "1900-02-28T12:00", "1900-02-28T00:00", "1900-03-01T00:00"},
    });
}

// Local mean time: Berlin was 53 min 28 s ahead until 1893-04-01, New York 4 h 56 min 2 s behind
// until noon on 1883-11-18.
TEST(GregorianCalendarTest, KnowsTheTimeBeforeTheFirstChange) {
    expectDays({
        {"Europe/Berlin", "1700-01-01T11:06:32", "1699-12-31T23:06:32", "1700-01-01T23:06:32"},
        {"Europe/Berlin", "1893-03-31T11:06:32", "1893-03-30T23:06:32", "1893-03-31T23:06:32"},
        {"Europe/Berlin", "1893-04-01T11:00", "1893-03-31T23:06:32", "1893-04-01T23:00"},
        {"Europe/Berlin", "1945-05-24T09:00", "1945-05-23T22:00", "1945-05-24T21:00"},
        {"Europe/Berlin", "1969-12-31T11:00", "1969-12-30T23:00", "1969-12-31T23:00"},
        {"America/New_York", "1800-06-01T16:56:02", "1800-06-01T04:56:02", "1800-06-02T04:56:02"},
        {"America/New_York", "1883-11-18T23:00", "1883-11-18T04:56:02", "1883-11-19T05:00"},
        {"Asia/Kathmandu", "1900-01-01T06:18:44", "1899-12-31T18:18:44", "1900-01-01T18:18:44"},
    });
}

TEST(GregorianCalendarTest, KnowsSummerTimeAfterTheLastListedChange) {
    expectDays({
        {"Europe/Berlin", "2040-03-25T10:00", "2040-03-24T23:00", "2040-03-25T22:00"},
        {"Europe/Berlin", "2040-10-28T11:00", "2040-10-27T22:00", "2040-10-28T23:00"},
        {"Europe/Berlin", "2100-07-01T10:00", "2100-06-30T22:00", "2100-07-01T22:00"},
        {"Europe/Berlin", "2100-10-31T11:00", "2100-10-30T22:00", "2100-10-31T23:00"},
        {"Europe/Berlin", "4000-03-26T10:00", "4000-03-25T23:00", "4000-03-26T22:00"},
        {"Europe/Berlin", "4000-07-01T10:00", "4000-06-30T22:00", "4000-07-01T22:00"},
        {"Europe/Dublin", "2040-07-01T11:00", "2040-06-30T23:00", "2040-07-01T23:00"},
        {"Europe/Dublin", "2100-10-31T12:00", "2100-10-30T23:00", "2100-11-01T00:00"},
        {"America/New_York", "4000-07-01T16:00", "4000-07-01T04:00", "4000-07-02T04:00"},
        {"America/Santiago", "2040-01-01T15:00", "2040-01-01T03:00", "2040-01-02T03:00"},
        {"America/Santiago", "2040-09-02T15:00", "2040-09-02T04:00", "2040-09-03T03:00"},
        {"America/Santiago", "2100-01-01T15:00", "2100-01-01T03:00", "2100-01-02T03:00"},
        {"America/Santiago", "4000-01-01T15:00", "4000-01-01T03:00", "4000-01-02T03:00"},
        {"America/Santiago", "4000-07-01T16:00", "4000-07-01T04:00", "4000-07-02T04:00"},
        {"America/Santiago", "4000-09-03T15:00", "4000-09-03T04:00", "4000-09-04T03:00"},
        {"Africa/Cairo", "2040-04-27T09:00", "2040-04-26T22:00", "2040-04-27T21:00"},
        {"America/Nuuk", "2040-03-24T14:00", "2040-03-24T02:00", "2040-03-25T01:00"},
        {"America/Nuuk", "2040-10-27T13:00", "2040-10-27T01:00", "2040-10-28T02:00"},
        {"America/Nuuk", "2100-07-01T13:00", "2100-07-01T01:00", "2100-07-02T01:00"},
        {"America/Nuuk", "4000-03-25T14:00", "4000-03-25T02:00", "4000-03-26T01:00"},
        {"America/Nuuk", "4000-07-01T13:00", "4000-07-01T01:00", "4000-07-02T01:00"},
        {"Asia/Jerusalem", "2040-10-28T10:00", "2040-10-27T21:00", "2040-10-28T22:00"},
        {"Asia/Jerusalem", "2100-07-01T09:00", "2100-06-30T21:00", "2100-07-01T21:00"},
        {"Asia/Jerusalem", "4000-03-24T09:00", "4000-03-23T22:00", "4000-03-24T21:00"},
        {"Asia/Jerusalem", "4000-07-01T09:00", "4000-06-30T21:00", "4000-07-01T21:00"},
        {"Australia/Lord_Howe", "4000-10-01T01:00", "4000-09-30T13:30", "4000-10-01T13:00"},
        {"Antarctica/Troll", "2040-03-25T10:00", "2040-03-25T00:00", "2040-03-25T22:00"},
    });
}

TEST(GregorianCalendarTest, KeepsTheTimeOfDayAcrossAChange) {
    expectSums({
        {"Europe/Berlin", "2024-03-30T11:00", 1, "2024-03-31T10:00"},
        {"Europe/Berlin", "2024-10-26T10:00", 1, "2024-10-27T11:00"},
        {"Europe/Berlin", "2024-02-28T11:00", 366, "2025-02-28T11:00"},
        {"Europe/Berlin", "2024-07-01T10:00", 721'727, "4000-07-09T10:00"},
        {"Europe/Berlin", "4000-07-09T10:00", -721'727, "2024-07-01T10:00"},
        {"Europe/Berlin", "1800-06-01T11:06:32", 81'820, "2024-06-06T10:00"},
        {"America/Santiago", "2024-01-01T15:00", 721'727, "4000-01-09T15:00"},
        {"UTC", "2024-02-29T12:00", 0, "2024-02-29T12:00"},
    });
}

TEST(GregorianCalendarTest, MovesATimeThatIsSkippedForwardByTheGap) {
    expectSums({
        {"Europe/Berlin", "2024-03-30T01:30", 1, "2024-03-31T01:30"},
        {"Europe/Berlin", "2024-03-30T02:30", 1, "2024-03-31T01:30"},
        {"Europe/Berlin", "2024-04-01T00:30", -1, "2024-03-31T01:30"},
        {"America/Havana", "2024-03-09T05:30", 1, "2024-03-10T05:30"},
        {"America/Santiago", "2024-09-07T04:00", 1, "2024-09-08T04:00"},
        {"Africa/Cairo", "2024-04-24T22:15", 1, "2024-04-25T22:15"},
        {"Australia/Lord_Howe", "2024-10-04T15:40", 1, "2024-10-05T15:40"},
        {"Asia/Kathmandu", "1985-12-30T18:35", 1, "1985-12-31T18:35"},
        {"Asia/Jerusalem", "4000-03-23T00:30", 1, "4000-03-24T00:30"},
        {"Europe/Dublin", "2100-03-27T01:30", 1, "2100-03-28T01:30"},
    });
}

// Greenland skips the last hour of a Saturday, Toronto skipped the half hours around a midnight.
TEST(GregorianCalendarTest, MovesATimeThatIsSkippedAtTheEndOfADayToTheNext) {
    expectSums({
        {"America/Nuuk", "4000-03-24T01:30", 2, "4000-03-26T01:30"},
        {"America/Toronto", "1919-03-30T04:45", 1, "1919-03-31T04:45"},
    });
}

TEST(GregorianCalendarTest, TakesTheFirstOfTwoTimesOnTheWayForward) {
    expectSums({
        {"Europe/Berlin", "2024-10-26T00:30", 1, "2024-10-27T00:30"},
        {"Europe/Berlin", "2024-10-26T01:00", 1, "2024-10-27T02:00"},
        {"Europe/Berlin", "2024-01-01T01:30", 300, "2024-10-27T00:30"},
        {"Europe/Berlin", "2024-10-27T01:30", 0, "2024-10-27T01:30"},
        {"America/Havana", "2024-11-02T04:30", 1, "2024-11-03T04:30"},
        {"America/Santiago", "2024-04-06T02:30", 1, "2024-04-07T02:30"},
        {"Australia/Lord_Howe", "2024-04-05T14:45", 1, "2024-04-06T14:45"},
        {"America/Nuuk", "4000-10-28T00:30", 1, "4000-10-29T00:30"},
        {"Asia/Jerusalem", "4000-10-27T22:30", 1, "4000-10-28T22:30"},
        {"Europe/Dublin", "2100-10-30T00:30", 1, "2100-10-31T00:30"},
    });
}

// As the day that it comes from goes: from the winter the second, from the summer the first.
TEST(GregorianCalendarTest, TakesTheTimeWithTheSameOffsetOnTheWayBack) {
    expectSums({
        {"Europe/Berlin", "2024-10-28T01:30", -1, "2024-10-27T01:30"},
        {"Europe/Berlin", "2025-07-01T00:30", -247, "2024-10-27T00:30"},
        {"America/Havana", "2024-11-04T05:00", -1, "2024-11-03T05:00"},
        {"America/Havana", "2024-11-04T05:00", -2, "2024-11-02T04:00"},
        {"America/St_Johns", "2005-10-31T03:30", -1, "2005-10-30T03:30"},
        {"Pacific/Kwajalein", "1969-10-01T12:00", -1, "1969-09-29T13:00"},
        {"Pacific/Kwajalein", "1969-10-01T12:00", -2, "1969-09-28T13:00"},
    });
}

TEST(GregorianCalendarTest, KeepsFractionsOfASecond) {
    const auto calendar = calendarOf("Europe/Berlin");
    for (const double fraction : {0.25, 0.999'999}) {
        const WallDate date = at("2024-03-30T11:00") + Seconds{fraction};
        EXPECT_EQ(text(calendar.addingDays(1, date)),
                  text(at("2024-03-31T10:00") + Seconds{fraction}));
        EXPECT_EQ(text(calendar.startOfDay(date)), "2024-03-29T23:00");
    }
    // Before 1970, where the nearest whole number toward zero is a second later.
    EXPECT_EQ(text(calendar.startOfDay(wallDate(-hour - 0.25))), "1969-12-30T23:00");
    EXPECT_EQ(text(calendar.startOfDay(wallDate(-hour))), "1969-12-31T23:00");
    EXPECT_EQ(text(calendar.addingDays(-1, wallDate(-hour - 0.25))),
              "1969-12-30T22:59:59+0.750000");
}

TEST(GregorianCalendarTest, GivesNothingForDatesOutsideItsRange) {
    const auto calendar = calendarOf("Europe/Berlin");
    for (const double seconds :
         {infinity, -infinity, 1e300, -1e300, 1e19, 253'402'300'800.0,
          std::nextafter(secondsSince1970(at("0001-01-01T00:00")), -infinity)}) {
        EXPECT_EQ(calendar.startOfDay(wallDate(seconds)), wallDate(seconds)) << seconds;
        EXPECT_EQ(calendar.startOfNextDay(wallDate(seconds)), std::nullopt) << seconds;
        EXPECT_EQ(calendar.addingDays(0, wallDate(seconds)), std::nullopt) << seconds;
        EXPECT_EQ(calendar.offset(wallDate(seconds)), Seconds{0}) << seconds;
    }
    EXPECT_TRUE(std::isnan(secondsSince1970(calendar.startOfDay(wallDate(notANumber)))));
    EXPECT_EQ(calendar.startOfNextDay(wallDate(notANumber)), std::nullopt);
    EXPECT_EQ(calendar.addingDays(0, wallDate(notANumber)), std::nullopt);
    EXPECT_EQ(calendar.offset(wallDate(notANumber)), Seconds{0});
}

TEST(GregorianCalendarTest, ServesTheFirstAndTheLastDayOfItsRange) {
    const auto utc = calendarOf("UTC");
    EXPECT_EQ(text(utc.startOfDay(at("0001-01-01T12:00"))), "0001-01-01T00:00");
    EXPECT_EQ(text(utc.startOfNextDay(at("0001-01-01T00:00"))), "0001-01-02T00:00");
    EXPECT_EQ(text(utc.startOfNextDay(at("9999-12-30T12:00"))), "9999-12-31T00:00");
    EXPECT_EQ(utc.startOfNextDay(at("9999-12-31T12:00")), std::nullopt);
    EXPECT_EQ(text(utc.addingDays(1, at("9999-12-30T12:00"))), "9999-12-31T12:00");
    for (const auto& zone : {"UTC"s, "Europe/Berlin"s, "America/Santiago"s}) {
        const auto calendar = calendarOf(zone);
        const auto date = at("2024-06-01T12:00");
        EXPECT_EQ(calendar.addingDays(1, at("9999-12-31T12:00")), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(-1, at("0001-01-01T12:00")), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(std::numeric_limits<int>::max(), date), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(std::numeric_limits<int>::min(), date), std::nullopt) << zone;
    }
}

TEST(GregorianCalendarTest, KnowsHowFarClocksAreAheadOfUTC) {
    const GregorianCalendar berlin = calendarOf("Europe/Berlin");
    EXPECT_EQ(berlin.offset(at("1800-01-01T00:00")), Seconds{3208});
    EXPECT_EQ(berlin.offset(at("2026-03-29T00:59:59") + Seconds{0.75}), Seconds{hour});
    EXPECT_EQ(berlin.offset(at("2026-03-29T01:00")), Seconds{2 * hour});
    EXPECT_EQ(berlin.offset(at("2026-10-25T00:59:59")), Seconds{2 * hour});
    EXPECT_EQ(berlin.offset(at("2026-10-25T01:00")), Seconds{hour});
    EXPECT_EQ(berlin.offset(at("9026-07-01T00:00")), Seconds{2 * hour});
    EXPECT_EQ(calendarOf("America/St_Johns").offset(at("2026-11-20T00:00")), Seconds{-3.5 * hour});
    EXPECT_EQ(calendarOf("UTC").offset(at("2026-11-20T00:00")), Seconds{0});
}

TEST(GregorianCalendarTest, KnowsItsZone) {
    EXPECT_EQ(calendarOf("Europe/Berlin").zoneName(), "Europe/Berlin");
    EXPECT_EQ(calendarOf("Eire").zoneName(), "Eire");
}

TEST(GregorianCalendarTest, SaysWhyThereIsNone) {
    EXPECT_EQ(GregorianCalendar::named("Mars/Olympus").error(),
              "no time zone is named \"Mars/Olympus\"");
}

TEST(GregorianCalendarTest, IsAValue) {
    auto calendar = calendarOf("Europe/Berlin");
    const auto copy = calendar;
    const auto date = at("2024-06-01T12:00");
    calendar = calendarOf("UTC");
    EXPECT_EQ(text(copy.startOfDay(date)), "2024-05-31T22:00");
    EXPECT_EQ(text(calendar.startOfDay(date)), "2024-06-01T00:00");
    const auto moved = std::move(calendar);
    EXPECT_EQ(moved.zoneName(), "UTC");
    EXPECT_EQ(calendar.zoneName(), "UTC") << "what was moved from stays";
}

TEST(GregorianCalendarTest, AllocatesNothingToAnswer) {
    const auto calendar = calendarOf("America/Santiago");
    double sum = 0;
    const std::size_t before = testing::mallocsMade();
    for (const double seconds : {1.7e9, 5e9, 6.4e10}) {
        const WallDate date = wallDate(seconds);
        sum += secondsSince1970(calendar.startOfDay(date));
        sum += secondsSince1970(*calendar.startOfNextDay(date));
        sum += secondsSince1970(*calendar.addingDays(7, date));
    }
    EXPECT_EQ(testing::mallocsMade(), before);
    EXPECT_GT(sum, 0);
}

// Sets or unsets TZ while it lives.
class TZ {
  public:
    explicit TZ(const char* value) {
        if (const char* before = std::getenv("TZ")) {
            before_ = before;
        }
        set(value);
    }

    TZ(const TZ&) = delete;
    TZ& operator=(const TZ&) = delete;

    ~TZ() { set(before_ ? before_->c_str() : nullptr); }

  private:
    static void set(const char* value) {
        if (value != nullptr) {
            setenv("TZ", value, 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

    std::optional<std::string> before_;
};

// As a part of the system: its /etc holds nothing but this link.
void linkLocalTime(const std::string& target) {
    std::filesystem::create_symlink(target, "/etc/localtime");
}

TEST(SystemCalendarTest, IsThatOfTheZoneThatTZNames) {
    for (const auto* value : {"Asia/Kathmandu", ":Asia/Kathmandu"}) {
        const TZ zone(value);
        EXPECT_EQ(GregorianCalendar::system().zoneName(), "Asia/Kathmandu") << value;
    }
}

TEST(SystemCalendarTest, IsElseThatOfTheZoneOfTheMachine) {
    const PrivateMount etc("tmpfs", "none", "/etc");
    if (!etc.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    linkLocalTime("/usr/share/zoneinfo/America/Santiago");
    for (const auto* value :
         {static_cast<const char*>(nullptr), "", ":/etc/localtime", "Nowhere"}) {
        const TZ zone(value);
        EXPECT_EQ(GregorianCalendar::system().zoneName(), "America/Santiago");
    }
}

TEST(SystemCalendarTest, IsThatOfUTCWhenTheZoneCannotBeTold) {
    const PrivateMount etc("tmpfs", "none", "/etc");
    if (!etc.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    const TZ zone(nullptr);
    const auto expectUTC = [] {
        const auto calendar = GregorianCalendar::system();
        EXPECT_EQ(calendar.zoneName(), "UTC");
        EXPECT_EQ(text(calendar.startOfDay(at("2024-06-01T12:00"))), "2024-06-01T00:00");
        EXPECT_EQ(text(calendar.startOfNextDay(at("1500-06-01T12:00"))), "1500-06-02T00:00");
    };
    expectUTC();
    linkLocalTime("/nowhere");
    expectUTC();
    std::filesystem::remove("/etc/localtime");
    linkLocalTime("/usr/share/zoneinfo/Mars/Olympus");
    expectUTC();
    std::filesystem::remove("/etc/localtime");
    writeTestFile("/etc/localtime", "not a link");
    expectUTC();
}

// What the C library makes of instants, in the zone of TZ.
tm localTimeOf(std::int64_t instant) {
    const std::time_t time = instant;
    tm local{};
    localtime_r(&time, &local);
    return local;
}

std::int64_t offsetAt(std::int64_t instant) { return localTimeOf(instant).tm_gmtoff; }

// The days from 1970-01-01 to the local date.
std::int64_t localDayAt(std::int64_t instant) {
    const std::int64_t local = instant + offsetAt(instant);
    return (local - (local % 86'400 + 86'400) % 86'400) / 86'400;
}

std::int64_t wholeSecondsOf(WallDate date) {
    return static_cast<std::int64_t>(std::floor(secondsSince1970(date)));
}

// Every name in the list that comes with the zone files: lines "Z NAME ..." and "L TARGET NAME".
std::vector<std::string> allZones() {
    std::ifstream lines("/usr/share/zoneinfo/tzdata.zi");
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("Z ")) {
            names.insert(line.substr(2, line.find(' ', 2) - 2));
        } else if (line.starts_with("L ")) {
            names.insert(line.substr(line.rfind(' ') + 1));
        }
    }
    return {names.begin(), names.end()};
}

// Most around the changes that files list; some before and after all of them.
WallDate randomDate(std::mt19937_64& random) {
    const std::array<std::pair<double, double>, 4> spans{{
        {-3e9, 2.3e9},     // 1874 to 2042
        {-3e9, 2.3e9},     //
        {2.3e9, 6.5e10},   // to 4029
        {-6e10, 2.53e11},  // 68 to 9987
    }};
    const auto& [from, to] = spans[random() % spans.size()];
    return wallDate(std::uniform_real_distribution(from, to)(random));
}

class Property {
  public:
    explicit Property(const GregorianCalendar& calendar) : calendar_(calendar) {}

    void check(WallDate date, int days) {
        checkDay(date);
        checkSum(date, days);
    }

    // How many sums met a time that is skipped, and one that comes twice.
    [[nodiscard]] int skipped() const { return skipped_; }

    [[nodiscard]] int twofold() const { return twofold_; }

  private:
    void checkDay(WallDate date) const {
        const std::int64_t day = localDayAt(wholeSecondsOf(date));
        const WallDate start = calendar_.startOfDay(date);
        const auto next = calendar_.startOfNextDay(date);
        ASSERT_TRUE(next.has_value());
        ASSERT_LE(start, date);
        ASSERT_LT(date, *next);
        ASSERT_EQ(calendar_.startOfDay(start), start);
        ASSERT_EQ(localDayAt(wholeSecondsOf(start)), day);
        ASSERT_NE(localDayAt(wholeSecondsOf(start) - 1), day);
        ASSERT_GT(localDayAt(wholeSecondsOf(*next)), day);
        ASSERT_LE(localDayAt(wholeSecondsOf(*next) - 1), day);
        ASSERT_EQ(*next, WallDate(Seconds(static_cast<double>(wholeSecondsOf(*next)))));
    }

    void checkSum(WallDate date, int days) {
        const std::int64_t instant = wholeSecondsOf(date);
        const std::int64_t target = instant + offsetAt(instant) + days * std::int64_t{86'400};
        // The instants with that local time: its offset is that before, amid or after the day.
        std::set<std::int64_t> found;
        for (const std::int64_t away : {-2, 0, 2}) {
            const std::int64_t candidate = target - offsetAt(target + away * 86'400);
            if (candidate + offsetAt(candidate) == target) {
                found.insert(candidate);
            }
        }
        const auto sum = calendar_.addingDays(days, date);
        ASSERT_TRUE(sum.has_value());
        const std::int64_t plain = instant + days * std::int64_t{86'400};
        if (const auto moved = offsetAt(plain) - offsetAt(instant); std::abs(moved) == 86'400) {
            // On the other side of a day that was skipped, or came twice.
            ASSERT_EQ(wholeSecondsOf(*sum), plain);
        } else if (!found.empty()) {
            ASSERT_TRUE(found.contains(wholeSecondsOf(*sum)));
            if (days > 0) {
                ASSERT_EQ(wholeSecondsOf(*sum), *found.begin());
            }
            twofold_ += found.size() > 1 ? 1 : 0;
        } else if (const auto before = offsetAt(target - std::int64_t{2 * 86'400});
                   offsetAt(target + std::int64_t{2 * 86'400}) - before < 86'400) {
            // As far after the gap as it would be with the offset before.
            ASSERT_EQ(wholeSecondsOf(*sum), target - before);
            ++skipped_;
        }
    }

    const GregorianCalendar& calendar_;
    int skipped_ = 0;
    int twofold_ = 0;
};

// Every change that is listed, and those of the rule until 2100; and every month, in which one may
// have been missed.
TEST(AllZonesTest, ListTheChangesOfTheCLibrary) {
    constexpr std::int64_t end = 4'102'444'800;
    constexpr std::int64_t month = 30 * 86'400;
    std::size_t count = 0;
    for (const std::string& name : allZones()) {
        SCOPED_TRACE(name);
        const TZ tz(name.c_str());
        const auto zone = TimeZone::read(name);
        ASSERT_TRUE(zone.has_value()) << zone.error();
        for (std::size_t i = 1; i + 1 < zone->changes.size(); ++i, ++count) {
            const std::int64_t begin = zone->changes[i].begin.time_since_epoch().count();
            if (begin > end) {
                break;
            }
            ASSERT_EQ(offsetAt(begin - 1), zone->changes[i - 1].offset.count()) << begin;
            ASSERT_EQ(offsetAt(begin), zone->changes[i].offset.count()) << begin;
        }
        const GregorianCalendar calendar(*zone);
        for (std::int64_t instant = -3'000'000'000; instant < 2'300'000'000; instant += month) {
            const WallDate date = wallDate(static_cast<double>(instant));
            ASSERT_EQ(calendar.offset(date), std::chrono::seconds{offsetAt(instant)}) << instant;
        }
    }
    EXPECT_GT(count, 50'000U);
}

TEST(AllZonesTest, AgreeWithTheCLibrary) {
    const auto zones = allZones();
    ASSERT_GT(zones.size(), 400U);
    constexpr int datesOfAZone = 400;
    std::mt19937_64 random(20'111'230);
    int skipped = 0;
    int twofold = 0;
    for (const std::string& name : zones) {
        SCOPED_TRACE(name);
        const TZ zone(name.c_str());
        const auto calendar = calendarOf(name);
        Property property(calendar);
        for (int i = 0; i < datesOfAZone; ++i) {
            const WallDate date = randomDate(random);
            property.check(date, static_cast<int>(random() % 801) - 400);
            ASSERT_FALSE(HasFatalFailure()) << text(date);
        }
        skipped += property.skipped();
        twofold += property.twofold();
    }
    EXPECT_GT(skipped, 0);
    EXPECT_GT(twofold, 0);
}

}  // namespace
}  // namespace halvo
