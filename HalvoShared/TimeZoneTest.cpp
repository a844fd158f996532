#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/TimeZone.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;
using testing::PrivateMount;
using testing::writeTestFile;

std::string bytesOf(std::int64_t value, int count) {
    std::string bytes;
    for (int i = count; i > 0; --i) {
        bytes.push_back(static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * (i - 1))));
    }
    return bytes;
}

// A file of tzfile(5) with kinds of time of these offsets, in hours.
struct ZoneFile {
    // '\0' has one part, and no footer.
    char version = '2';
    std::string footer = "\nABC0\n";
    std::vector<int> kinds{0};
    std::vector<std::int64_t> times = {};
    std::string kindsOfTimes = {};

    [[nodiscard]] std::string part(int bytesOfTime) const {
        std::string bytes = "TZif"s + version + std::string(15 + 12, '\0') +
                            bytesOf(static_cast<std::int64_t>(times.size()), 4) +
                            bytesOf(static_cast<std::int64_t>(kinds.size()), 4) + bytesOf(4, 4);
        for (const std::int64_t time : times) {
            bytes += bytesOf(time, bytesOfTime);
        }
        bytes += kindsOfTimes;
        for (const int offset : kinds) {
            bytes += bytesOf(std::int64_t{offset} * 3600, 4) + "\0\0"s;
        }
        return bytes + "ABC\0"s;
    }

    [[nodiscard]] std::string bytes() const {
        return version == '\0' ? part(4) : part(4) + part(8) + footer;
    }
};

// A sound file, but for the byte `place` of its second part.
std::string zoneFileWith(std::size_t place, char byte) {
    std::string file = ZoneFile{}.bytes();
    file.at(ZoneFile{}.part(4).size() + place) = byte;
    return file;
}

std::string readError(const std::string& bytes) {
    const auto zone = TimeZone::parse(bytes, "Iran");
    return zone ? "none" : zone.error();
}

TimeZone zoneOf(const ZoneFile& file) { return TimeZone::parse(file.bytes(), "Iran").value(); }

std::vector<OffsetChange> changesOf(const ZoneFile& file) { return zoneOf(file).changes; }

std::string nameError(const std::string& name) {
    const auto zone = TimeZone::read(name);
    return zone ? "none" : zone.error();
}

constexpr const char* damaged = "the file of the time zone \"Iran\" is damaged";
constexpr OffsetChange end{sys_seconds::max(), seconds::max()};

constexpr sys_seconds instant(std::int64_t second) { return sys_seconds{seconds{second}}; }

constexpr sys_seconds date(int y, unsigned month, unsigned day) {
    return sys_days{year{y} / std::chrono::month{month} / std::chrono::day{day}};
}

TEST(TimeZoneTest, HasTheChangesOfAFile) {
    const ZoneFile file{
        .kinds = {1, 2}, .times = {-5'000'000'000, 0, 7, 8}, .kindsOfTimes = "\1\1\0\0"s};
    EXPECT_EQ(changesOf(file),
              (std::vector<OffsetChange>{
                  {sys_seconds::min(), 1h}, {instant(-5'000'000'000), 2h}, {instant(7), 1h}, end}))
        << "but for those that change no offset";
}

TEST(TimeZoneTest, MayHaveNoRule) {
    // Version 1 has none, and times of four bytes; later ones may leave it empty.
    for (const auto& [version, footer] : {std::pair('\0', ""), std::pair('2', "\n\n")}) {
        EXPECT_EQ(changesOf({.version = version,
                             .footer = footer,
                             .kinds = {1, 2},
                             .times = {-2},
                             .kindsOfTimes = "\1"}),
                  (std::vector<OffsetChange>{{sys_seconds::min(), 1h}, {instant(-2), 2h}, end}));
    }
}

TEST(TimeZoneTest, RefusesADamagedFile) {
    for (const auto& bytes : {""s, "TZi"s, "TZif"s, "TZif2"s, "<html>\n\n"s}) {
        EXPECT_EQ(readError(bytes), damaged);
    }
    for (const auto* footer :
         {"", "ABC0", "\nABC0", "ABC0\n", "\n", "\nABC0\n\n", "\n\x1B\n", "\nABC0\n\nABC0\n"}) {
        EXPECT_EQ(readError(ZoneFile{.footer = footer}.bytes()), damaged) << footer;
    }
}

TEST(TimeZoneTest, RefusesAFileWhoseTablesLeadAstray) {
    ASSERT_EQ(readError(ZoneFile{.times = {0, 1}, .kindsOfTimes = "\0\0"s}.bytes()), "none");
    for (const auto& [what, bytes] :
         {std::pair{"no second part", zoneFileWith(0, 'X')},
          {"no kind of time", zoneFileWith(39, 0)},
          {"more kinds of time than there are", zoneFileWith(39, 9)},
          {"a number of them below zero", zoneFileWith(36, '\x80')},
          {"more of them than fit into memory", zoneFileWith(36, '\x7F')},
          {"no name", zoneFileWith(43, 0)},
          {"a name without an end", zoneFileWith(53, 'x')},
          {"a name past the last", zoneFileWith(49, 4)},
          {"an offset of years ahead", zoneFileWith(44, '\x7F')},
          {"an offset of years behind", zoneFileWith(44, '\x80')},
          {"27 hours ahead", ZoneFile{.kinds = {27}}.bytes()},
          {"27 hours behind", ZoneFile{.kinds = {-27}}.bytes()},
          {"two changes at one time", ZoneFile{.times = {0, 0}, .kindsOfTimes = "\0\0"s}.bytes()},
          {"a change before the last", ZoneFile{.times = {2, 1}, .kindsOfTimes = "\0\0"s}.bytes()},
          {"a change to no kind of time", ZoneFile{.times = {0}, .kindsOfTimes = "\1"}.bytes()}}) {
        EXPECT_EQ(readError(bytes), damaged) << what;
    }
    EXPECT_EQ(readError(ZoneFile{.kinds = {26, -26}}.bytes()), "none");
}

TEST(TimeZoneTest, RefusesAFileThatEndsEarlyWhereverThatIs) {
    const std::string whole = ZoneFile{.times = {0, 1}, .kindsOfTimes = "\0\0"s}.bytes();
    ASSERT_EQ(readError(whole), "none");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(readError(whole.substr(0, size)), damaged) << size;
        // The end is there, and what should come before it is not.
        if (size > 4 && size < whole.size() - 6) {
            EXPECT_EQ(readError(whole.substr(0, size) + "\nABC0\n"), damaged) << size;
        }
    }
}

TEST(TimeZoneTest, RefusesAFileThatCountsLeapSeconds) {
    std::string bytes = zoneFileWith(31, 1);
    bytes.insert(bytes.size() - 6, 12, '\1');
    EXPECT_EQ(readError(bytes), "the file of the time zone \"Iran\" counts leap seconds");
}

// What begins a file may be older than the calendar, even than the world.
TEST(TimeZoneTest, MayListChangesOutsideTheRangeOfTheCalendar) {
    constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    constexpr sys_seconds y2000 = date(2000, 1, 1);
    const auto calendarOf = [](const std::vector<std::int64_t>& times, const std::string& kinds) {
        const ZoneFile file{.footer = "\nABC-1DEF,M3.5.0,M10.5.0/3\n",
                            .kinds = {1, 2, 3},
                            .times = times,
                            .kindsOfTimes = kinds};
        return GregorianCalendar(zoneOf(file));
    };
    for (const std::int64_t second : {least + 1, std::int64_t{-576'460'752'303'423'488}}) {
        const auto old = calendarOf({least, second, y2000.time_since_epoch().count()}, "\1\2\0"s);
        EXPECT_EQ(old.offset(date(1, 1, 1)), Seconds{3 * 3600});
        EXPECT_EQ(old.offset(y2000 - 1s), Seconds{3 * 3600});
        EXPECT_EQ(old.offset(y2000), Seconds{3600});
        EXPECT_EQ(old.offset(date(2000, 7, 1)), Seconds{2 * 3600}) << "the rule's";
        EXPECT_EQ(old.addingDays(-365 * 1000, date(2000, 6, 1)), date(1001, 1, 29) + 23h);
        EXPECT_EQ(old.addingDays(1, date(1500, 6, 1)), WallDate(date(1500, 6, 2)));
    }
    const auto late =
        calendarOf({y2000.time_since_epoch().count(), 253'402'300'800, most}, "\1\2\0"s);
    EXPECT_EQ(late.offset(y2000 - 1s), Seconds{3600});
    EXPECT_EQ(late.offset(y2000), Seconds{2 * 3600});
    EXPECT_EQ(late.offset(date(9999, 12, 31)), Seconds{2 * 3600});
    EXPECT_EQ(late.startOfNextDay(date(9999, 12, 31) + 23h), std::nullopt);
}

// From the 10th to the 12th, and an hour later back to the 11th.
TEST(TimeZoneTest, MaySkipADayAndGoBackToIt) {
    const auto second = [](sys_seconds instant) { return instant.time_since_epoch().count(); };
    const sys_seconds back = date(2024, 6, 11) + 30min;
    const ZoneFile file{
        .kinds = {0, 26}, .times = {second(back - 1h), second(back)}, .kindsOfTimes = "\1\0"s};
    const GregorianCalendar calendar(zoneOf(file));
    EXPECT_EQ(calendar.startOfDay(back + 12h), WallDate(back));
}

// Worked out by hand.
TEST(TimeZoneRuleTest, SaysHowItGoesOn) {
    const struct {
        std::string rule;
        OffsetChange first;
        OffsetChange second;
    } rows[] = {
        // The last Sunday of March 2024 is the 31st, that of October the 27th; the time of a
        // change is counted on the clock before it.
        {"CET-1CEST,M3.5.0,M10.5.0/3", {date(2024, 3, 31) + 1h, 2h}, {date(2024, 10, 27) + 1h, 1h}},
        {"CET-1CEST,M3.5.0,M10.5.0/3", {date(1900, 3, 25) + 1h, 2h}, {date(1900, 10, 28) + 1h, 1h}},
        // A winter time in the place of a summer time; one that ends in the next year.
        {"IST-1GMT0,M10.5.0,M3.5.0/1", {date(2024, 10, 27) + 1h, 0h}, {date(2025, 3, 30) + 1h, 1h}},
        {"ABC3DEF2:30,J60/0,365/-1:30:15",
         {date(2023, 3, 1) + 3h, -150min},
         {date(2024, 1, 1) + 59min + 45s, -3h}},
        {"LMT-0:53:28LST,J60/0,J61/+0",
         {date(2023, 3, 1) - 3208s, 6808s},
         {date(2023, 3, 2) - 6808s, 3208s}},
        {"<-01>+1<+01:02>-1:02,J60/0,J61/1:2",
         {date(2023, 3, 1) + 1h, 62min},
         {date(2023, 3, 2), -1h}},
        // 2024 began on a Monday; its first Friday in March is the 1st, its second the 8th.
        {"ABC0DEF,M3.1.5/0,M3.2.5/1", {date(2024, 3, 1), 1h}, {date(2024, 3, 8), 0h}},
        // Times before midnight and after the day: the last Sundays of March and October 4000
        // are the 26th and the 29th; the fourth Thursday of March 2040 is the 22nd, and 50
        // hours later it is 02:00 on the 24th.
        {"<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
         {date(4000, 3, 26) + 1h, -1h},
         {date(4000, 10, 29) + 1h, -2h}},
        {"EET-2EEST,M3.4.4/50,M10.4.4/50", {date(2040, 3, 24), 3h}, {date(2040, 10, 27) - 1h, 2h}},
        {"ABC0DEF,J100/-167,J100/167",
         {date(2023, 4, 10) - 167h, 1h},
         {date(2023, 4, 10) + 166h, 0h}},
        // J60 is 1 March in every year; day 60 counted from 0 is so only in common ones.
        {"ABC0DEF,J59/0,J60/1", {date(2023, 2, 28), 1h}, {date(2023, 3, 1), 0h}},
        {"ABC0DEF,J59/0,J60/1", {date(2024, 2, 28), 1h}, {date(2024, 3, 1), 0h}},
        {"ABC0DEF,59/0,60/1", {date(2023, 3, 1), 1h}, {date(2023, 3, 2), 0h}},
        {"ABC0DEF,59/0,60/1", {date(2024, 2, 29), 1h}, {date(2024, 3, 1), 0h}},
        // Changes that fall into the years beside theirs, to the end of the calendar's range.
        {"ABC0DEF,J364/100,J2/0", {date(9999, 1, 1) + 23h, 0h}, {date(9999, 1, 3) + 4h, 1h}}};

    for (const auto& [rule, first, second] : rows) {
        SCOPED_TRACE(rule);
        const TimeZone zone = zoneOf({.footer = "\n" + rule + "\n"});
        EXPECT_EQ(zone.at(first.begin), (OffsetSpan{first.begin, second.begin, first.offset}));
        EXPECT_EQ(zone.at(second.begin - 1s), zone.at(first.begin));
        EXPECT_EQ(zone.at(second.begin).begin, second.begin);
        EXPECT_EQ(zone.at(second.begin).offset, second.offset);
    }
}

// Around each border of the 400 years, and far from all of them.
TEST(TimeZoneRuleTest, ComesAgainEvery400Years) {
    constexpr std::chrono::days cycle{146'097};
    const TimeZone zone = zoneOf({.footer = "\nCET-1CEST,M3.5.0,M10.5.0/3\n",
                                  .kinds = {1},
                                  .times = {date(2020, 6, 1).time_since_epoch().count()},
                                  .kindsOfTimes = "\0"s});
    ASSERT_EQ(zone.repeatsFrom, date(2022, 1, 1));
    for (const int y : {2022, 2421, 2422, 2821, 9999}) {
        EXPECT_EQ(zone.at(date(y, 7, 1)).offset, 2h) << y;
        EXPECT_EQ(zone.at(date(y, 12, 31)).offset, 1h) << y;
    }
    for (sys_seconds instant = date(2022, 1, 1); instant < date(2025, 1, 1); instant += 13h) {
        const OffsetSpan span = zone.at(instant);
        ASSERT_TRUE(span.begin <= instant && instant < span.end);
        for (const int times : {1, 2, 19}) {
            const auto later = times * cycle;
            ASSERT_EQ(zone.at(instant + later),
                      (OffsetSpan{span.begin + later, span.end + later, span.offset}));
        }
    }
}

// The example of RFC 8536 (3.3.1) for summer time all year: each ends as the next begins.
TEST(TimeZoneRuleTest, LetsASummerEndAsTheNextBegins) {
    const TimeZone zone = zoneOf({.footer = "\nXXX3EDT4,0/0,J365/23\n"});
    ASSERT_EQ(zone.changes.size(), 4U) << "until the year 405";
    EXPECT_EQ(zone.changes[1], (OffsetChange{date(0, 1, 1) + 3h, -4h}));
    for (const int y : {1, 404, 405, 2024, 9999}) {
        const OffsetSpan span = zone.at(date(y, 1, 1) + 3h);
        EXPECT_EQ(span.offset, -4h) << y;
        EXPECT_TRUE(span.begin <= date(y, 1, 1) && date(y + 1, 1, 1) < span.end + 3h) << y;
    }
}

TEST(TimeZoneRuleTest, FollowsTheLastChangeThatIsListed) {
    const sys_seconds last = date(2025, 3, 30) + 1h;
    const auto changes = changesOf({.footer = "\nABC-1DEF,M3.5.0,M10.5.0/3\n",
                                    .kinds = {5, 1},
                                    .times = {last.time_since_epoch().count()},
                                    .kindsOfTimes = "\1"});
    ASSERT_GT(changes.size(), 3U);
    EXPECT_EQ(changes[1], (OffsetChange{last, 1h})) << "not the rule's of the same time";
    EXPECT_EQ(changes[2], (OffsetChange{date(2026, 3, 29) + 1h, 2h}));
}

TEST(TimeZoneRuleTest, IsRefusedWhenItCannotBeRead) {
    const auto error = [](const std::string& rule) {
        return readError(ZoneFile{.footer = "\n" + rule + "\n"}.bytes());
    };
    for (const auto* rule : {"UTC0", "JST-9", "MST+7", "<-0930>9:30", "UTC24:59:59"}) {
        EXPECT_EQ(error(rule), "none") << rule;
    }
    const std::string why = "the time zone \"Iran\" has a rule that cannot be read: ";
    for (const std::string rule :
         {"0", "UT0", "UTC", "UTC-", "UTC--1", "UTC--0", "UTC-+1", "UTC25", "UTC0:60", "UTC0:0:60",
          "UTC0:", "UTC0 ", "<UTC", "<UTC>", "<ab>0", "CET-1CE,M3.5.0,M10.5.0"}) {
        EXPECT_EQ(error(rule), why + rule);
    }
    std::istringstream rests(
        "|,|,M3.5.0|,M3.5.0,|,M3.5.0,M10.5.0,|,M0.5.0,M10.5.0|,M13.5.0,M10.5.0|"
        ",M3.0.0,M10.5.0|,M3.6.0,M10.5.0|,M3.5.7,M10.5.0|,M3.5,M10.5.0|,M3.5.0/168,M10.5.0|"
        ",M3.5.0/-168,M10.5.0|,M3.5.0/,M10.5.0|,J0,J100|,J366,J100|,366,100|,-1,100|"
        ",M3.99999999999.0,M10.5.0|-25,M3.5.0,M10.5.0");
    for (std::string rest; std::getline(rests, rest, '|');) {
        const std::string rule = "CET-1CEST" + rest;
        EXPECT_EQ(error(rule), why + rule);
    }
}

TEST(TimeZoneNameTest, IsAPathInTheFolderOfZones) {
    for (const auto* name : {"Asia/Kathmandu", "Eire", "Etc/GMT+12", "America/Port-au-Prince"}) {
        EXPECT_EQ(nameError(name), "none");
    }
    std::istringstream names(
        "|.|..|/|../zoneinfo/UTC|./UTC|Etc/./UTC|Etc//UTC|Europe/../Europe/Berlin|"
        "../../etc/passwd|/etc/passwd|/usr/share/zoneinfo/UTC|Europe|Europe/|UTC/|"
        "Etc/UTC/x|Etc/UTC |Etc\\UTC|~|zone.tab|zone1970.tab|tzdata.zi|leapseconds|"
        "Mars/Olympus|CET-1CEST");
    for (std::string name; std::getline(names, name, '|');) {
        EXPECT_EQ(nameError(name), "no time zone is named \"" + name + "\"");
    }
}

// That of macOS overlooks it unless told otherwise.
TEST(TimeZoneNameTest, TellsCaseApartWhereTheFileSystemDoes) {
    const bool isOverlooked = std::filesystem::exists("/usr/share/zoneinfo/europe/berlin");
    EXPECT_EQ(TimeZone::read("europe/berlin").has_value(), isOverlooked);
}

TEST(TimeZoneNameTest, IsNotRepeatedWhenItCannotBeOne) {
    for (const auto& name : {"Europe/Berlin\0"s, "\0"s, "Europe\nBerlin"s, "Z\xC3\xBCrich"s,
                             std::string(1'000'000, 'x')}) {
        EXPECT_EQ(nameError(name), "that is not the name of a time zone");
    }
}

// Folders of the system that hold nothing but what a test puts there.
class OwnFoldersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!etc_.isMounted() || !zones_.isMounted()) {
            GTEST_SKIP() << "needs the permission to mount a file system";
        }
    }

    static void link(const std::string& target, const std::string& path = "/etc/localtime") {
        std::filesystem::remove(path);
        std::filesystem::create_symlink(target, path);
    }

  private:
    PrivateMount etc_{"tmpfs", "none", "/etc"};
    PrivateMount zones_{"tmpfs", "none", "/usr/share/zoneinfo"};
};

TEST_F(OwnFoldersTest, SayWhyAZoneCannotBeRead) {
    const std::string path = "/usr/share/zoneinfo/Navajo";
    writeTestFile(path, ZoneFile{}.bytes());
    EXPECT_EQ(nameError("Navajo"), "none");
    std::filesystem::resize_file(path, (1 << 20) + 1);
    EXPECT_EQ(nameError("Navajo"),
              "the time zone file cannot be read: " + path + ": File too large");
    std::filesystem::remove(path);
    EXPECT_EQ(nameError("Navajo"), "no time zone is named \"Navajo\"");
    link("Navajo", path);
    EXPECT_EQ(nameError("Navajo"),
              "the time zone file cannot be read: " + path + ": Too many levels of symbolic links");
}

TEST_F(OwnFoldersTest, AreReadAnewByEachCalendar) {
    const std::string path = "/usr/share/zoneinfo/Turkey";
    writeTestFile(path, ZoneFile{.kinds = {2}}.bytes());
    const auto before = GregorianCalendar::named("Turkey").value();
    writeTestFile(path, ZoneFile{.kinds = {3}}.bytes());
    EXPECT_EQ(GregorianCalendar::named("Turkey")->offset(date(2024, 6, 1)), Seconds{3 * 3600});
    EXPECT_EQ(before.offset(date(2024, 6, 1)), Seconds{2 * 3600});
}

TEST_F(OwnFoldersTest, HaveTheZoneOfTheMachineWhereLocaltimeLinksTo) {
    for (const std::string target :
         {"/usr/share/zoneinfo/Europe/Berlin", "../usr/share/zoneinfo/Europe/Berlin",
          "/var/db/timezone/zoneinfo/Europe/Berlin", "/zoneinfo/old/zoneinfo/Europe/Berlin"}) {
        link(target);
        EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin") << target;
    }
    // Links are followed only as far as the folder of zones.
    std::filesystem::create_directories("/etc/zones/deep");
    link("zones/deep/first");
    link("../second", "/etc/zones/deep/first");
    link("/etc/zones/third", "/etc/zones/second");
    link("/usr/share/zoneinfo/Eire", "/etc/zones/third");
    EXPECT_EQ(timeZoneOfMachine(), "Eire") << "there, it is a link to Europe/Dublin";
}

TEST_F(OwnFoldersTest, HaveItInTimezoneOnlyWhenLocaltimeIsNoLink) {
    EXPECT_EQ(timeZoneOfMachine(), std::nullopt) << "nothing says it";
    writeTestFile("/etc/timezone", "Europe/Berlin\n");
    EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin");
    writeTestFile("/etc/localtime", ZoneFile{}.bytes());
    EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin");
    for (const std::string target : {"/nowhere", "localtime", "/dev/null"}) {
        link(target);
        EXPECT_EQ(timeZoneOfMachine(), std::nullopt) << target;
    }
    link("/usr/share/zoneinfo/Asia/Tokyo");
    EXPECT_EQ(timeZoneOfMachine(), "Asia/Tokyo");
}

}  // namespace
}  // namespace halvo
