#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoShared/TimeZoneFile.hpp"
#include "tests/Support/ZoneFile.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using std::chrono::seconds;
using std::chrono::sys_seconds;
using testing::zoneFile;

std::string errorOf(const std::string& bytes) {
    const auto file = TimeZoneFile::parse(bytes, "Iran");
    return file ? "none" : file.error();
}

constexpr const char* damaged = "the file of the time zone \"Iran\" is damaged";

// Where the second part of zoneFile() begins.
constexpr std::size_t partSize = 54;

// A sound file but for the byte `place` of its second part.
std::string zoneFileWith(std::size_t place, char byte) {
    std::string file = zoneFile(0, '2', "\nABC0\n");
    file.at(partSize + place) = byte;
    return file;
}

// A file with two changes, at 0 and at `second`, the latter to the kind of time `type`.
std::string zoneFileWithChanges(char second, char type) {
    std::string file = zoneFileWith(35, 2);  // how many changes there are
    const std::string times = std::string(15, '\0') + second + '\0' + type;
    return file.insert(partSize + 44, times);
}

TEST(TimeZoneFileTest, HasOffsetsChangesAndARule) {
    const auto file = TimeZoneFile::parse(zoneFileWithChanges(7, 0), "Iran");
    ASSERT_TRUE(file.has_value()) << file.error();
    EXPECT_EQ(file->firstOffset, seconds{0});
    EXPECT_EQ(file->changes, (std::vector<OffsetChange>{{sys_seconds{seconds{0}}, seconds{0}},
                                                        {sys_seconds{seconds{7}}, seconds{0}}}));
    EXPECT_EQ(file->rule, TimeZoneRule::parse("ABC0"));
}

TEST(TimeZoneFileTest, HasNoRuleInVersion1OrWhenThatIsEmpty) {
    for (const auto& bytes : {zoneFile(-7200, '\0', ""), zoneFile(-7200, '2', "\n\n")}) {
        const auto file = TimeZoneFile::parse(bytes, "Iran");
        ASSERT_TRUE(file.has_value()) << file.error();
        EXPECT_EQ(file->firstOffset, seconds{-7200});
        EXPECT_TRUE(file->changes.empty());
        EXPECT_EQ(file->rule, std::nullopt);
    }
}

TEST(TimeZoneFileTest, CountsTimesInTheFirstPartWithFourBytes) {
    std::string bytes = zoneFile(3600, '\0', "");
    bytes.at(35) = 1;                         // how many changes there are
    bytes.insert(44, "\xFF\xFF\xFF\xFE\0"s);  // two seconds before 1970
    const auto file = TimeZoneFile::parse(bytes, "Iran");
    ASSERT_TRUE(file.has_value()) << file.error();
    EXPECT_EQ(file->changes,
              (std::vector<OffsetChange>{{sys_seconds{seconds{-2}}, seconds{3600}}}));
}

TEST(TimeZoneFileTest, RefusesADamagedFile) {
    for (const auto& bytes :
         {""s, "TZi"s, "TZif"s, "TZif2"s, "<html>\n\n"s, zoneFile(0, '2', ""),
          zoneFile(0, '2', "ABC0"), zoneFile(0, '2', "\nABC0"), zoneFile(0, '2', "ABC0\n"),
          zoneFile(0, '2', "\n"), zoneFile(0, '2', "\nABC0\n\n"), zoneFile(0, '2', "\n\x1B\n")}) {
        EXPECT_EQ(errorOf(bytes), damaged);
    }
}

TEST(TimeZoneFileTest, RefusesARuleThatCannotBeRead) {
    EXPECT_EQ(errorOf(zoneFile(0, '2', "\nABC-1DEF\n")),
              "the time zone \"Iran\" has a rule that cannot be read: ABC-1DEF");
}

TEST(TimeZoneFileTest, RefusesAFileWhoseTablesLeadAstray) {
    ASSERT_EQ(errorOf(zoneFileWithChanges(1, 0)), "none") << "it is sound but for what follows";
    for (const auto& [what, bytes] : {std::pair{"no second part", zoneFileWith(0, 'X')},
                                      {"no kind of time", zoneFileWith(39, 0)},
                                      {"more kinds of time than there are", zoneFileWith(39, 9)},
                                      {"a number of them below zero", zoneFileWith(36, '\x80')},
                                      {"no name", zoneFileWith(43, 0)},
                                      {"a name without an end", zoneFileWith(53, 'x')},
                                      {"a name past the last", zoneFileWith(49, 4)},
                                      {"an offset of years ahead", zoneFileWith(44, '\x7F')},
                                      {"an offset of years behind", zoneFileWith(44, '\x80')},
                                      {"two changes at one time", zoneFileWithChanges(0, 0)},
                                      {"a change to no kind of time", zoneFileWithChanges(1, 1)}}) {
        EXPECT_EQ(errorOf(bytes), damaged) << what;
    }
}

TEST(TimeZoneFileTest, RefusesAFileThatEndsEarlyWhereverThatIs) {
    const std::string whole = zoneFileWithChanges(1, 0);
    ASSERT_EQ(errorOf(whole), "none");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(errorOf(whole.substr(0, size)), damaged) << size;
        // The end is there, and what should come before it is not.
        if (size > 4 && size < whole.size() - 6) {
            EXPECT_EQ(errorOf(whole.substr(0, size) + "\nABC0\n"), damaged) << size;
        }
    }
}

TEST(TimeZoneFileTest, RefusesAFileThatCountsLeapSeconds) {
    std::string bytes = zoneFileWith(31, 1);
    bytes.insert(partSize + 54, 12, '\1');
    EXPECT_EQ(errorOf(bytes), "the file of the time zone \"Iran\" counts leap seconds");
}

TEST(TimeZoneFileTest, ReadsTheFileOfAZone) {
    const auto file = TimeZoneFile::read("Asia/Kathmandu");
    ASSERT_TRUE(file.has_value()) << file.error();
    EXPECT_EQ(file->firstOffset, seconds{20'476});
    // zdump: at 1985-12-31 18:30 UTC. More may follow that change nothing.
    const OffsetChange last{sys_seconds{seconds{504'901'800}}, seconds{20'700}};
    EXPECT_EQ(std::ranges::count(file->changes, last), 1);
    EXPECT_EQ(file->rule, TimeZoneRule::parse("<+0545>-5:45"));
}

TEST(TimeZoneFileTest, ReadsNothingOutsideTheFolder) {
    for (const auto& name : {"."s, ".."s, "../zoneinfo/UTC"s, "./UTC"s, "Etc/./UTC"s, "Etc//UTC"s,
                             "/usr/share/zoneinfo/UTC"s, "UTC/"s, "Etc/UTC/x"s, "Etc/UTC "s,
                             "Etc\\UTC"s, "~"s, "zone.tab"s}) {
        const auto file = TimeZoneFile::read(name);
        ASSERT_FALSE(file.has_value()) << name;
        EXPECT_EQ(file.error(), "no time zone is named \"" + name + "\"");
    }
}

}  // namespace
}  // namespace halvo
