#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
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
#include <utility>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/PrivateMount.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::PrivateMount;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double anHour = 3600;

// The instant of a text such as "2024-03-31T10:00" or "1893-03-31T11:06:32", in UTC.
WallDate at(const std::string& text) {
    return RFC3339::parse(text + (text.size() < 19 ? ":00Z" : "Z")).value();
}

GregorianCalendar calendarOf(const std::string& zone) {
    auto calendar = GregorianCalendar::named(zone);
    if (!calendar) {
        throw std::runtime_error(calendar.error());
    }
    return *calendar;
}

// The tables of days come from Python's zoneinfo, asked second by second for the local date; those
// of sums from its arithmetic on local times, with fold=0 on the way forward. Where a comment gives
// the rule, they were checked against it by hand. HalvoKit/Tests compares days and weeks with
// Foundation around every transition of every zone.

TEST(GregorianCalendarTest, KnowsWhereDaysBeginAndEnd) {
    const struct {
        const char* zone;
        std::string date;
        std::string start;
        std::string next;
    } days[] = {
        // The European Union changes at 01:00 UTC on the last Sundays of March and October.
        {"Europe/Berlin", "2024-03-31T10:00", "2024-03-30T23:00", "2024-03-31T22:00"},
        {"Europe/Berlin", "2024-06-30T22:00", "2024-06-30T22:00", "2024-07-01T22:00"},
        {"Europe/Berlin", "2024-10-27T11:00", "2024-10-26T22:00", "2024-10-27T23:00"},
        // Chile goes from 24:00 to 01:00, and back at 24:00.
        {"America/Santiago", "2024-09-08T15:00", "2024-09-08T04:00", "2024-09-09T03:00"},
        {"America/Santiago", "2024-04-06T15:00", "2024-04-06T03:00", "2024-04-07T04:00"},
        // Cuba goes back from 01:00 to 00:00: a day with two midnights.
        {"America/Havana", "2024-11-03T17:00", "2024-11-03T04:00", "2024-11-04T05:00"},
        {"America/Havana", "2024-11-03T05:00", "2024-11-03T04:00", "2024-11-04T05:00"},
        // Samoa went from 2011-12-29 24:00 (-10:00) to 2011-12-31 00:00 (+14:00); on the other
        // side of the date line, Kwajalein had most of 1969-09-30 twice.
        {"Pacific/Apia", "2011-12-29T22:00", "2011-12-29T10:00", "2011-12-30T10:00"},
        {"Pacific/Kwajalein", "1969-09-30T01:00", "1969-09-29T13:00", "1969-10-01T12:00"},
        // Offsets that are no whole hours.
        {"Australia/Lord_Howe", "2024-04-07T01:30", "2024-04-06T13:00", "2024-04-07T13:30"},
        {"Asia/Kathmandu", "1986-01-01T06:15", "1985-12-31T18:30", "1986-01-01T18:15"},
        {"UTC", "2024-02-29T23:59", "2024-02-29T00:00", "2024-03-01T00:00"},
        {"Etc/UTC", "1900-02-28T12:00", "1900-02-28T00:00", "1900-03-01T00:00"},
        // Local mean time: Berlin was 53 min 28 s ahead until 1893-04-01.
        {"Europe/Berlin", "1700-01-01T11:06:32", "1699-12-31T23:06:32", "1700-01-01T23:06:32"},
        {"Europe/Berlin", "1893-04-01T11:00", "1893-03-31T23:06:32", "1893-04-01T23:00"},
        // After the last change that is listed.
        {"Europe/Berlin", "2100-10-31T11:00", "2100-10-30T22:00", "2100-10-31T23:00"},
        {"Europe/Dublin", "2100-10-31T12:00", "2100-10-30T23:00", "2100-11-01T00:00"},
        {"America/Santiago", "4000-09-03T15:00", "4000-09-03T04:00", "4000-09-04T03:00"},
        {"Australia/Lord_Howe", "4000-10-01T01:00", "4000-09-30T13:30", "4000-10-01T13:00"}};

    for (const auto& day : days) {
        SCOPED_TRACE(day.zone + (" " + day.date));
        const auto calendar = calendarOf(day.zone);
        const WallDate lastMoment = at(day.next) - Seconds{0.001};
        for (const WallDate date : {at(day.date), at(day.start), lastMoment}) {
            EXPECT_EQ(calendar.startOfDay(date), at(day.start));
            EXPECT_EQ(calendar.startOfNextDay(date), at(day.next));
        }
    }
}

TEST(GregorianCalendarTest, AddsDaysAndKeepsTheTimeOfDay) {
    const struct {
        const char* zone;
        std::string date;
        int days;
        std::string result;
    } sums[] = {{"Europe/Berlin", "2024-03-30T11:00", 1, "2024-03-31T10:00"},
                {"Europe/Berlin", "2024-07-01T10:00", 721'727, "4000-07-09T10:00"},
                {"Europe/Berlin", "4000-07-09T10:00", -721'727, "2024-07-01T10:00"},
                {"Europe/Berlin", "1800-06-01T11:06:32", 81'820, "2024-06-06T10:00"},
                {"UTC", "2024-02-29T12:00", 0, "2024-02-29T12:00"},
                // A time that is skipped is later by as much; Toronto skipped the half hours around
                // a midnight.
                {"Europe/Berlin", "2024-03-30T01:30", 1, "2024-03-31T01:30"},
                {"Europe/Berlin", "2024-03-30T02:30", 1, "2024-03-31T01:30"},
                {"Europe/Berlin", "2024-04-01T00:30", -1, "2024-03-31T01:30"},
                {"America/Toronto", "1919-03-30T04:45", 1, "1919-03-31T04:45"},
                // Of two times it is the first on the way forward,
                {"Europe/Berlin", "2024-10-26T00:30", 1, "2024-10-27T00:30"},
                {"Europe/Berlin", "2024-10-26T01:00", 1, "2024-10-27T02:00"},
                {"Europe/Berlin", "2024-10-27T01:30", 0, "2024-10-27T01:30"},
                // and on the way back that of the day it comes from: from the winter the second.
                {"Europe/Berlin", "2024-10-28T01:30", -1, "2024-10-27T01:30"},
                {"Europe/Berlin", "2025-07-01T00:30", -247, "2024-10-27T00:30"},
                {"America/Havana", "2024-11-04T05:00", -1, "2024-11-03T05:00"},
                {"America/St_Johns", "2005-10-31T03:30", -1, "2005-10-30T03:30"},
                // Over a day that was skipped, or came twice, it goes by 24 hours for each day.
                {"Pacific/Apia", "2011-12-29T20:00", 1, "2011-12-30T20:00"},
                {"Pacific/Apia", "2011-12-30T09:59:59", 1, "2011-12-31T09:59:59"},
                {"Pacific/Apia", "2011-12-30T20:00", -1, "2011-12-29T20:00"},
                {"Pacific/Kwajalein", "1969-10-01T12:00", -1, "1969-09-29T13:00"}};

    for (const auto& sum : sums) {
        EXPECT_EQ(calendarOf(sum.zone).addingDays(sum.days, at(sum.date)), at(sum.result))
            << sum.zone << " " << sum.date << " " << sum.days;
    }
}

// Newfoundland went back from 00:01 to 23:01 then (zdump: at 2000-10-29 02:31 UTC), so 29 October
// began, was interrupted by the last hour of the 28th, and began again.
TEST(GregorianCalendarTest, StepsForwardEvenWhenTheClockGoesBackAcrossMidnight) {
    const auto calendar = calendarOf("America/St_Johns");
    const auto first = at("2000-10-29T02:30");
    const auto again = at("2000-10-29T03:30");
    const auto between = at("2000-10-29T03:00");
    EXPECT_EQ(calendar.startOfNextDay(at("2000-10-28T14:30")), first);
    EXPECT_EQ(calendar.startOfDay(between), at("2000-10-28T02:30"));
    EXPECT_EQ(calendar.startOfNextDay(between), again);
    EXPECT_EQ(calendar.startOfDay(again), first);
    EXPECT_EQ(calendar.startOfNextDay(first), at("2000-10-30T03:30"));
    EXPECT_EQ(calendar.startOfNextDay(again), at("2000-10-30T03:30"));
}

TEST(GregorianCalendarTest, KeepsFractionsOfASecond) {
    const auto calendar = calendarOf("Europe/Berlin");
    for (const double fraction : {0.25, 0.999'999}) {
        const WallDate date = at("2024-03-30T11:00") + Seconds{fraction};
        EXPECT_EQ(calendar.addingDays(1, date), at("2024-03-31T10:00") + Seconds{fraction});
        EXPECT_EQ(calendar.startOfDay(date), at("2024-03-29T23:00"));
    }
    // Before 1970, where the nearest whole number toward zero is a second later.
    EXPECT_EQ(calendar.startOfDay(wallDate(-anHour - 0.25)), at("1969-12-30T23:00"));
    EXPECT_EQ(calendar.startOfDay(wallDate(-anHour)), at("1969-12-31T23:00"));
    EXPECT_EQ(calendar.addingDays(-1, wallDate(-anHour - 0.25)),
              at("1969-12-30T22:59:59") + Seconds{0.75});
}

TEST(GregorianCalendarTest, GivesNothingForDatesOutsideItsRange) {
    const auto calendar = calendarOf("Europe/Berlin");
    for (const double seconds :
         {infinity, -infinity, 1e300, -1e300, 1e19, 253'402'300'800.0, notANumber,
          std::nextafter(secondsSince1970(at("0001-01-01T00:00")), -infinity)}) {
        const WallDate date = wallDate(seconds);
        EXPECT_TRUE(std::isnan(seconds) || calendar.startOfDay(date) == date) << seconds;
        EXPECT_EQ(std::isnan(secondsSince1970(calendar.startOfDay(date))), std::isnan(seconds));
        EXPECT_EQ(calendar.startOfNextDay(date), std::nullopt) << seconds;
        EXPECT_EQ(calendar.addingDays(0, date), std::nullopt) << seconds;
        EXPECT_EQ(calendar.offset(date), Seconds{0}) << seconds;
    }
}

TEST(GregorianCalendarTest, ServesTheFirstAndTheLastDayOfItsRange) {
    const auto utc = calendarOf("UTC");
    EXPECT_EQ(utc.startOfDay(at("0001-01-01T12:00")), at("0001-01-01T00:00"));
    EXPECT_EQ(utc.startOfNextDay(at("0001-01-01T00:00")), at("0001-01-02T00:00"));
    EXPECT_EQ(utc.startOfNextDay(at("9999-12-30T12:00")), at("9999-12-31T00:00"));
    EXPECT_EQ(utc.startOfNextDay(at("9999-12-31T12:00")), std::nullopt);
    EXPECT_EQ(utc.addingDays(1, at("9999-12-30T12:00")), at("9999-12-31T12:00"));
    for (const auto& zone : {"UTC"s, "Europe/Berlin"s, "America/Santiago"s}) {
        const auto calendar = calendarOf(zone);
        const auto date = at("2024-06-01T12:00");
        EXPECT_EQ(calendar.addingDays(1, at("9999-12-31T12:00")), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(-1, at("0001-01-01T12:00")), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(std::numeric_limits<int>::max(), date), std::nullopt) << zone;
        EXPECT_EQ(calendar.addingDays(std::numeric_limits<int>::min(), date), std::nullopt) << zone;
    }
}

TEST(GregorianCalendarTest, IsAValue) {
    auto calendar = calendarOf("Europe/Berlin");
    const auto copy = calendar;
    const auto date = at("2024-06-01T12:00");
    calendar = calendarOf("UTC");
    EXPECT_EQ(copy.startOfDay(date), at("2024-05-31T22:00"));
    EXPECT_EQ(calendar.startOfDay(date), at("2024-06-01T00:00"));
    const auto moved = std::move(calendar);
    EXPECT_EQ(moved.startOfDay(date), at("2024-06-01T00:00"));
    EXPECT_EQ(calendar.startOfDay(date), at("2024-06-01T00:00")) << "what was moved from stays";
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

// Null unsets TZ.
void setTZ(const char* value) {
    if (value != nullptr) {
        setenv("TZ", value, 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

// The offset of the system's calendar in winter, in hours.
double systemOffset() {
    return GregorianCalendar::system().offset(at("2023-12-01T00:00")) / Seconds{anHour};
}

TEST(SystemCalendarTest, IsThatOfTheZoneThatTZNames) {
    for (const auto* value : {"Asia/Kathmandu", ":Asia/Kathmandu"}) {
        setTZ(value);
        EXPECT_EQ(systemOffset(), 5.75) << value;
    }
}

TEST(SystemCalendarTest, IsElseThatOfTheZoneOfTheMachineElseUTC) {
    const PrivateMount etc("tmpfs", "none", "/etc");
    if (!etc.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    const std::string link = "/etc/localtime";
    std::filesystem::create_symlink("/usr/share/zoneinfo/America/Santiago", link);
    for (const auto* value :
         {static_cast<const char*>(nullptr), "", ":/etc/localtime", "Nowhere"}) {
        setTZ(value);
        EXPECT_EQ(systemOffset(), -3) << "Santiago's";
    }
    setTZ(nullptr);
    for (const char* target : {"/nowhere", "/usr/share/zoneinfo/Mars/Olympus"}) {
        std::filesystem::remove(link);
        std::filesystem::create_symlink(target, link);
        const auto calendar = GregorianCalendar::system();
        EXPECT_EQ(calendar.offset(at("2023-12-01T00:00")), Seconds{0}) << target;
        EXPECT_EQ(calendar.startOfDay(at("2024-06-01T12:00")), at("2024-06-01T00:00"));
        EXPECT_EQ(calendar.startOfNextDay(at("1500-06-01T12:00")), at("1500-06-02T00:00"));
    }
}

// The C library's, in the zone of TZ.
std::int64_t offsetAt(std::int64_t instant) {
    const std::time_t time = instant;
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
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

// How many sums met a time that is skipped, and one that comes twice.
struct Met {
    int skipped = 0;
    int twofold = 0;
};

void checkSum(const GregorianCalendar& calendar, WallDate date, int days, Met& met) {
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
    const auto sum = calendar.addingDays(days, date);
    ASSERT_TRUE(sum.has_value());
    const std::int64_t plain = instant + days * std::int64_t{86'400};
    if (const auto moved = offsetAt(plain) - offsetAt(instant); std::abs(moved) == 86'400) {
        // On the other side of a day that was skipped, or came twice.
        ASSERT_EQ(wholeSecondsOf(*sum), plain);
    } else if (!found.empty()) {
        ASSERT_TRUE(found.contains(wholeSecondsOf(*sum)));
        const auto same = std::ranges::find(found, offsetAt(instant), offsetAt);
        if (days > 0 || same != found.end()) {
            ASSERT_EQ(wholeSecondsOf(*sum), days > 0 ? *found.begin() : *same);
        }
        met.twofold += found.size() > 1 ? 1 : 0;
    } else if (const auto before = offsetAt(target - std::int64_t{2 * 86'400});
               offsetAt(target + std::int64_t{2 * 86'400}) - before < 86'400) {
        // As far after the gap as it would be with the offset before.
        ASSERT_EQ(wholeSecondsOf(*sum), target - before);
        ++met.skipped;
    }
}

// Every change that is listed, and those of the rule until 2100; and every month, in which one may
// have been missed.
TEST(AllZonesTest, ListTheChangesOfTheCLibrary) {
    constexpr std::int64_t end = 4'102'444'800;
    constexpr std::int64_t month = 30 * 86'400;
    std::size_t count = 0;
    for (const std::string& name : allZones()) {
        SCOPED_TRACE(name);
        setTZ(name.c_str());
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

TEST(AllZonesTest, AddDaysAsTheCLibraryWould) {
    const auto zones = allZones();
    ASSERT_GT(zones.size(), 400U);
    constexpr int datesOfAZone = 400;
    std::mt19937_64 random(20'111'230);
    Met met;
    for (const std::string& name : zones) {
        SCOPED_TRACE(name);
        setTZ(name.c_str());
        const auto calendar = calendarOf(name);
        auto changes = TimeZone::read(name).value().changes;
        std::erase_if(changes, [](const OffsetChange& change) {
            const auto seconds = change.begin.time_since_epoch().count();
            return seconds < 0 || seconds > 2'208'988'800;  // 1970 to 2040
        });
        for (int i = 0; i < datesOfAZone; ++i) {
            WallDate date = randomDate(random);
            int days = static_cast<int>(random() % 801) - 400;
            if (!changes.empty() && i % 2 == 0) {
                // From the day of a change, or to it.
                days %= 9;
                const double away = std::uniform_real_distribution(-1.0, 1.0)(random);
                date = changes[random() % changes.size()].begin +
                       Seconds{86'400 * (i % 4 == 0 ? away : away - days)};
            }
            checkSum(calendar, date, days, met);
            ASSERT_FALSE(HasFatalFailure()) << secondsSince1970(date);
        }
    }
    EXPECT_GT(met.skipped, 0);
    EXPECT_GT(met.twofold, 0);
}

}  // namespace
}  // namespace halvo
