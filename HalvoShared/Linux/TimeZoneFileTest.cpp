#include <date/tz.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoShared/TimeZoneFile.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/ZoneFile.hpp"

namespace halvo {
namespace {

using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;
using testing::PrivateMount;
using testing::writeTestFile;
using testing::zoneFile;

TEST(ReplacedZoneFilesTest, SayWhyTheyCannotBeRead) {
    const std::string folder = "/usr/share/zoneinfo";
    const PrivateMount files("tmpfs", "none", folder);
    if (!files.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    const std::string path = folder + "/Navajo";
    const auto error = [] {
        const auto file = TimeZoneFile::read("Navajo");
        return file ? "none" : file.error();
    };
    writeTestFile(path, zoneFile(0, '2', "\nABC0\n"));
    EXPECT_EQ(error(), "none");
    std::filesystem::resize_file(path, (1 << 20) + 1);
    EXPECT_EQ(error(), "the time zone file cannot be read: " + path + ": File too large");
    std::filesystem::remove(path);
    EXPECT_EQ(error(), "no time zone is named \"Navajo\"");
    std::filesystem::create_symlink("Navajo", path);
    EXPECT_EQ(error(),
              "the time zone file cannot be read: " + path + ": Too many levels of symbolic links");
}

// The machine's /etc holds nothing but what a test puts there.
class MachineTimeZoneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        etc_.emplace("tmpfs", "none", "/etc");
        if (!etc_->isMounted()) {
            GTEST_SKIP() << "needs the permission to mount a file system";
        }
    }

    static void link(const std::string& target, const std::string& path = "/etc/localtime") {
        std::filesystem::remove(path);
        std::filesystem::create_symlink(target, path);
    }

  private:
    std::optional<PrivateMount> etc_;
};

TEST_F(MachineTimeZoneTest, IsWhatLocaltimeLinksTo) {
    for (const std::string target :
         {"/usr/share/zoneinfo/Europe/Berlin", "../usr/share/zoneinfo/Europe/Berlin",
          "/var/db/timezone/zoneinfo/Europe/Berlin", "/zoneinfo/old/zoneinfo/Europe/Berlin"}) {
        link(target);
        EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin") << target;
    }
}

TEST_F(MachineTimeZoneTest, FollowsLinksOnlyAsFarAsTheFolderOfZones) {
    std::filesystem::create_directories("/etc/zones/deep");
    link("zones/deep/first");
    link("../second", "/etc/zones/deep/first");
    link("/etc/zones/third", "/etc/zones/second");
    link("/usr/share/zoneinfo/Eire", "/etc/zones/third");
    EXPECT_EQ(timeZoneOfMachine(), "Eire") << "there, it is a link to Europe/Dublin";
}

TEST_F(MachineTimeZoneTest, IsWhatTimezoneSaysOnlyWhenLocaltimeIsNoLink) {
    writeTestFile("/etc/timezone", "Europe/Berlin\n");
    EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin");
    writeTestFile("/etc/localtime", zoneFile(0, '2', "\nABC0\n"));
    EXPECT_EQ(timeZoneOfMachine(), "Europe/Berlin");
    for (const std::string target : {"/nowhere", "localtime", "/dev/null"}) {
        link(target);
        EXPECT_EQ(timeZoneOfMachine(), std::nullopt) << target;
    }
    link("/usr/share/zoneinfo/Asia/Tokyo");
    EXPECT_EQ(timeZoneOfMachine(), "Asia/Tokyo");
}

TEST_F(MachineTimeZoneTest, IsUnknownWhenNothingSaysIt) {
    EXPECT_EQ(timeZoneOfMachine(), std::nullopt);
}

// Every zone file in the folder, but for copies of them all that count leap seconds or do not
// ("right", "posix"), and two that the library passes over.
std::vector<std::string> allZones() {
    const std::filesystem::path folder = "/usr/share/zoneinfo";
    std::vector<std::string> names;
    for (auto entry = std::filesystem::recursive_directory_iterator(folder);
         entry != std::filesystem::recursive_directory_iterator(); ++entry) {
        const std::string name = entry->path().lexically_relative(folder);
        if (name == "right" || name == "posix") {
            entry.disable_recursion_pending();
        } else if (name != "Factory" && name != "posixrules" && entry->is_regular_file()) {
            std::string start(4, '\0');
            std::ifstream(entry->path()).read(start.data(), 4);
            if (start == "TZif") {
                names.push_back(name);
            }
        }
    }
    return names;
}

// What changes the offset, in the years 1 to 2037, from that of the first instant on. The library
// knows nothing after them.
constexpr sys_seconds begin = sys_days{year{1} / 1 / 1};
constexpr sys_seconds end = sys_days{year{2038} / 1 / 1};

void append(std::vector<OffsetChange>& changes, const OffsetChange& change) {
    if (changes.empty() || changes.back().offset != change.offset) {
        changes.push_back(change);
    }
}

std::vector<OffsetChange> libraryChanges(const std::string& name) {
    const date::time_zone* zone = date::locate_zone(name);
    std::vector<OffsetChange> changes;
    for (sys_seconds time = begin; time < end;) {
        const date::sys_info info = zone->get_info(time);
        append(changes, {time, info.offset});
        time = info.end;
    }
    return changes;
}

std::vector<OffsetChange> ourChanges(const TimeZoneFile& file) {
    std::vector<OffsetChange> changes;
    append(changes, {begin, file.firstOffset});
    for (const OffsetChange& change : file.changes) {
        if (change.begin >= begin && change.begin < end) {
            append(changes, change);
        }
    }
    return changes;
}

TEST(AllZoneFilesTest, ListTheChangesThatTheLibraryReads) {
    const auto zones = allZones();
    ASSERT_GT(zones.size(), 500U);
    std::size_t count = 0;
    for (const std::string& name : zones) {
        const auto file = TimeZoneFile::read(name);
        ASSERT_TRUE(file.has_value()) << file.error();
        const auto changes = ourChanges(*file);
        EXPECT_EQ(changes, libraryChanges(name)) << name;
        count += changes.size();
    }
    EXPECT_GT(count, 10'000U);
}

}  // namespace
}  // namespace halvo
