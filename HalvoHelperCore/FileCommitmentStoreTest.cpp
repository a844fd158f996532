#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/ItemFlags.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/Printing.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {

namespace {

using namespace std::string_literals;
using testing::Fault;
using testing::LogCapture;
using testing::PrivateMount;
using testing::readTestFile;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;
using Limits = std::numeric_limits<double>;

const HelperCommitment sample{
    "/Applications/Halvo.app",
    501,
    wallDate(1763243700.5),
    Seconds{5312.75},
    Seconds{81088.017807},
    {"9C3A6E2F-51B7-4D08-A6E1-3F0B72C4D915", Seconds{51873.204417375}, wallDate(1763249012.482193)},
    true};

constexpr const char* golden = R"({
  "appPath": "/Applications/Halvo.app",
  "capRemaining": 81088.017807,
  "checkpoint": {
    "bootID": "9C3A6E2F-51B7-4D08-A6E1-3F0B72C4D915",
    "sinceBoot": 51873.204417375,
    "wall": 1763249012.482193
  },
  "locked": true,
  "remaining": 5312.75,
  "startedWall": 1763243700.5,
  "uid": 501
}
)";

// The same record as other writers lay it out: other blanks, another order.
constexpr const char* otherLayout =
    "\t{ \"uid\":501,\"startedWall\" : 1.7632437005e9 ,\r\n\"remaining\":5312.75,"
    "\"locked\":true,\"checkpoint\":{\"wall\":1763249012.482193,\"sinceBoot\":"
    "51873.204417375,\"bootID\":\"9C3A6E2F-51B7-4D08-A6E1-3F0B72C4D915\"},"
    "\"capRemaining\" : 81088.017807, \"appPath\":\"\\/Applications\\u002fHalvo.app\"}\n\n";

// The members of an object, with their values as JSON text.
using Members = std::map<std::string, std::string>;

const Members checkpointMembers{
    {"bootID", "\"boot\""}, {"sinceBoot", "1.5"}, {"wall", "1763249012"}};

std::string textOf(const Members& members) {
    std::string text;
    for (const auto& [key, value] : members) {
        text += (text.empty() ? "{\"" : ", \"") + key + "\": " + value;
    }
    return text.empty() ? "{}" : text + "}";
}

const Members allMembers{
    {"appPath", "\"/Applications/Halvo.app\""},
    {"capRemaining", "86400"},
    {"checkpoint", textOf(checkpointMembers)},
    {"locked", "true"},
    {"remaining", "7200"},
    {"startedWall", "1763243700"},
    {"uid", "501"},
};

// A complete file, but for one member's value.
std::string fileWith(const std::string& key, const std::string& value) {
    Members members = allMembers;
    members[key] = value;
    return textOf(members);
}

std::string fileWithout(const std::string& key) {
    Members members = allMembers;
    members.erase(key);
    return textOf(members);
}

// The same for the members of the checkpoint.
std::string fileWithCheckpoint(const std::string& key, const std::string& value) {
    Members members = checkpointMembers;
    members[key] = value;
    return fileWith("checkpoint", textOf(members));
}

std::string fileWithoutCheckpoint(const std::string& key) {
    Members members = checkpointMembers;
    members.erase(key);
    return fileWith("checkpoint", textOf(members));
}

const UnreadableCommitment nothingSaved{};
const UnreadableCommitment bothSaved{"/Applications/Halvo.app", true};
const UnreadableCommitment noPathSaved{std::nullopt, true};
const UnreadableCommitment noLockSaved{"/Applications/Halvo.app", false};

mode_t permissionsOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

class FileCommitmentStoreTest : public ::testing::Test {
  protected:
    // The file, in its folder, holds `bytes`.
    void write(const std::string& bytes) const {
        std::filesystem::create_directories(folder);
        writeTestFile(file, bytes);
    }

    // What the store makes of a file that holds `bytes`.
    StoredCommitment loaded(const std::string& bytes) {
        write(bytes);
        return store.load();
    }

    // The reason that the last save gave for its failure, which must be all that was logged.
    std::string saveFailure() { return failure("Couldn't save the state: "); }

    std::string removalFailure() { return failure("Couldn't remove the state: "); }

    // What follows `start` in the one error that was logged.
    std::string failure(const std::string& start) {
        const auto messages = log.messages();
        log.clear();
        if (messages.size() != 1 || messages[0].level != LogLevel::Error ||
            !messages[0].text.starts_with(start)) {
            ADD_FAILURE() << messages.size() << " messages";
            return "";
        }
        return messages[0].text.substr(start.size());
    }

    LogCapture log;
    TemporaryFolder disk;
    std::string folder = disk / "com.example.app.helper";
    std::string file = folder + "/commitment.json";
    FileCommitmentStore store{folder};
};

// --- What is written

TEST_F(FileCommitmentStoreTest, WritesTheGoldenFile) {
    store.save(sample);
    EXPECT_EQ(readTestFile(file), golden);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, ReadsTheGoldenFile) {
    EXPECT_EQ(loaded(golden), StoredCommitment(sample));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, ReadsAnyLayoutAndAnyOrder) {
    EXPECT_EQ(loaded(otherLayout), StoredCommitment(sample));
}

TEST_F(FileCommitmentStoreTest, WritesItsKeysSortedWhateverTheyHold) {
    HelperCommitment other = sample;
    other.appPath = "/zzz/capRemaining.app";
    other.locked = false;
    store.save(other);
    const std::string text = readTestFile(file);
    std::size_t position = 0;
    for (const char* key : {"appPath", "capRemaining", "checkpoint", "bootID", "sinceBoot", "wall",
                            "locked", "remaining", "startedWall", "uid"}) {
        const std::size_t found = text.find("\"" + std::string(key) + "\":");
        ASSERT_NE(found, text.npos) << key;
        EXPECT_GE(found, position) << key;
        position = found;
    }
}

TEST_F(FileCommitmentStoreTest, GivesBackWhatWasSaved) {
    store.save(sample);
    EXPECT_EQ(store.load(), StoredCommitment(sample));
    HelperCommitment next = sample;
    next.uid = 4294967295;
    next.locked = false;
    store.save(next);
    EXPECT_EQ(store.load(), StoredCommitment(next));
}

// The bits of every double of a record.
std::vector<std::uint64_t> bitsOf(const HelperCommitment& commitment) {
    std::vector<std::uint64_t> bits;
    for (const double number :
         {commitment.remaining.count(), commitment.capRemaining.count(),
          secondsSince1970(commitment.startedWall), commitment.checkpoint.sinceBoot.count(),
          secondsSince1970(commitment.checkpoint.wall)}) {
        bits.push_back(std::bit_cast<std::uint64_t>(number));
    }
    return bits;
}

TEST_F(FileCommitmentStoreTest, GivesBackEveryDoubleToTheBit) {
    std::vector<double> numbers{0.0,
                                -0.0,
                                1.0,
                                -1.0,
                                0.1,
                                1.0 / 3.0,
                                1763249012.482193,
                                9007199254740991.0,
                                9007199254740993.0,
                                1e15,
                                1e16,
                                1e17,
                                123456789012345680.0,
                                5e-324,
                                Limits::min(),
                                std::nextafter(Limits::min(), 0.0),
                                Limits::max(),
                                Limits::lowest(),
                                std::nextafter(1.0, 2.0),
                                std::nextafter(1.0, 0.0)};
    std::mt19937_64 random(20251115);
    while (numbers.size() < 500) {
        const auto number = std::bit_cast<double>(random());
        if (std::isfinite(number)) {
            numbers.push_back(number);
        }
    }
    for (std::size_t i = 0; i < numbers.size(); i += 5) {
        HelperCommitment saved = sample;
        saved.remaining = Seconds{numbers[i]};
        saved.capRemaining = Seconds{numbers[i + 1]};
        saved.startedWall = wallDate(numbers[i + 2]);
        saved.checkpoint.sinceBoot = Seconds{numbers[i + 3]};
        saved.checkpoint.wall = wallDate(numbers[i + 4]);
        store.save(saved);
        const StoredCommitment stored = store.load();
        const auto* loaded = std::get_if<HelperCommitment>(&stored);
        ASSERT_NE(loaded, nullptr) << i;
        EXPECT_EQ(bitsOf(*loaded), bitsOf(saved)) << i;
    }
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, GivesBackEveryText) {
    for (const std::string& text :
         {""s, "/Applications/\"Two\" \\Words\\.app"s, "/Applications/Hälvö 🍎\u2028.app"s,
          "/a\0b.app"s, "\x01\x1F\x7F\b\f\n\r\t"s, "\xEF\xBB\xBF"s, std::string(100'000, 'x')}) {
        HelperCommitment saved = sample;
        saved.appPath = text;
        saved.checkpoint.bootID = text;
        store.save(saved);
        EXPECT_EQ(store.load(), StoredCommitment(saved));
    }
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, TwoStoresOnOneFolderAreInterchangeable) {
    FileCommitmentStore other(folder);
    store.save(sample);
    EXPECT_EQ(other.load(), StoredCommitment(sample));
    other.remove();
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
}

// --- Folder and permissions

TEST_F(FileCommitmentStoreTest, WithoutItsFolderNothingIsStoredAndSavingMakesItClosedToOthers) {
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    const mode_t mask = umask(0);
    store.save(sample);
    umask(mask);
    EXPECT_EQ(permissionsOf(folder), 0700U);
    EXPECT_EQ(permissionsOf(file), 0600U);
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, MakesTheFoldersAboveToo) {
    FileCommitmentStore deep(disk / "Library/Application Support/com.example.app.helper");
    deep.save(sample);
    EXPECT_EQ(deep.load(), StoredCommitment(sample));
    EXPECT_EQ(permissionsOf(disk / "Library/Application Support/com.example.app.helper"), 0700U);
}

TEST_F(FileCommitmentStoreTest, LeavesThePermissionsOfItsFolderAndSetsThoseOfTheFile) {
    write(golden);
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    store.save(sample);
    EXPECT_EQ(permissionsOf(folder), 0755U);
    EXPECT_EQ(permissionsOf(file), 0600U);
}

TEST_F(FileCommitmentStoreTest, NeverReadsATemporaryFileThatWasLeftOver) {
    std::filesystem::create_directories(folder);
    writeTestFile(folder + "/.commitment.json.new", golden);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
}

// --- Files that are no whole record

TEST_F(FileCommitmentStoreTest, ACompleteFileIsACommitment) {
    const HelperCommitment expected{"/Applications/Halvo.app",
                                    501,
                                    wallDate(1763243700),
                                    Seconds{7200},
                                    Seconds{86400},
                                    {"boot", Seconds{1.5}, wallDate(1763249012)},
                                    true};
    EXPECT_EQ(loaded(textOf(allMembers)), StoredCommitment(expected));
}

TEST_F(FileCommitmentStoreTest, AnExtraMemberIsDroppedAtTheNextSave) {
    Members members = allMembers;
    members["zExtra"] = R"({"appPath": 1, "deep": [1, {"locked": false}]})";
    members["checkpoint"] = textOf(
        {{"bootID", "\"boot\""}, {"sinceBoot", "1.5"}, {"wall", "1763249012"}, {"extra", "null"}});
    const StoredCommitment stored = loaded(textOf(members));
    ASSERT_TRUE(std::holds_alternative<HelperCommitment>(stored));
    store.save(std::get<HelperCommitment>(stored));
    EXPECT_EQ(readTestFile(file).find("xtra"), std::string::npos);
    EXPECT_EQ(store.load(), stored);
}

TEST_F(FileCommitmentStoreTest, WhatIsNoWholeRecordTellsThePathAndTheLockThatAreInIt) {
    EXPECT_EQ(loaded(R"({"appPath": "/Applications/Halvo.app", "locked": true})"),
              StoredCommitment(bothSaved));
    // Every member is required.
    for (const char* key : {"capRemaining", "checkpoint", "remaining", "startedWall", "uid"}) {
        EXPECT_EQ(loaded(fileWithout(key)), StoredCommitment(bothSaved)) << key;
    }
    for (const auto& [key, value] : checkpointMembers) {
        EXPECT_EQ(loaded(fileWithoutCheckpoint(key)), StoredCommitment(bothSaved)) << key;
    }
    EXPECT_EQ(loaded(fileWithout("appPath")), StoredCommitment(noPathSaved));
    EXPECT_EQ(loaded(fileWithout("locked")), StoredCommitment(noLockSaved));
    // And must have its type.
    for (const char* value : {"null", "true", "\"1\"", "\"2025-11-15T21:55:00Z\"", "[1]", "{}"}) {
        for (const char* key : {"capRemaining", "remaining", "startedWall", "uid"}) {
            EXPECT_EQ(loaded(fileWith(key, value)), StoredCommitment(bothSaved)) << key << value;
        }
        for (const char* key : {"sinceBoot", "wall"}) {
            EXPECT_EQ(loaded(fileWithCheckpoint(key, value)), StoredCommitment(bothSaved))
                << key << value;
        }
    }
    for (const char* value : {"null", "true", "1", "[\"a\"]", "{}"}) {
        EXPECT_EQ(loaded(fileWithCheckpoint("bootID", value)), StoredCommitment(bothSaved))
            << value;
        EXPECT_EQ(loaded(fileWith("appPath", value)), StoredCommitment(noPathSaved)) << value;
    }
    for (const char* value : {"null", "1", "0", "\"true\"", "[true]", "{}"}) {
        EXPECT_EQ(loaded(fileWith("locked", value)), StoredCommitment(noLockSaved)) << value;
    }
    for (const char* value : {"null", "1", "true", "\"boot\"", "[]", "{}"}) {
        EXPECT_EQ(loaded(fileWith("checkpoint", value)), StoredCommitment(bothSaved)) << value;
    }
}

TEST_F(FileCommitmentStoreTest, WhatIsNoObjectInJSONTellsNothingAndIsNotNone) {
    const std::string complete = textOf(allMembers);
    const std::string inside = complete.substr(0, complete.size() - 1);
    std::vector<std::string> files{
        "",
        " \n\t",
        "\0"s,
        "null",
        "true",
        "1",
        "\"/Applications/Halvo.app\"",
        "commitment",
        "{",
        "{}",
        "}",
        "{]",
        "[" + complete + "]",
        R"({"AppPath": "/Applications/Halvo.app", "Locked": true})",
        complete + "}",
        complete + complete,
        complete + " x",
        complete + "\0"s,
        complete + "\0rubbish"s,
        complete + "\0"s + complete,
        "{\"appPath\": \"/A.app\", \"locked\": true}\0"s,
        "//\n" + complete,
        inside + ",}",
        inside + " \"zExtra\": 1}",
        inside + ", 'zExtra': 1}",
        inside + ", zExtra: 1}",
        inside + ", \"zExtra\": }",
        inside + ", \"zExtra\": nil}",
        inside + ", \"zExtra\": True}",
        "\xFF\xFE{\0}\0"s,
        "<?xml version=\"1.0\"?><plist/>",
    };
    for (const char* number : {"NaN", "Infinity", "-Infinity", "1e999", "-1e999", "+1", "01", ".5",
                               "1.", "0x10", "1e", "--1", "1_000"}) {
        files.push_back(fileWith("remaining", number));
    }
    for (const std::string& text : {"\"/A\xFF.app\""s, "\"\xC0\xAF\""s, "\"\xED\xA0\x80\""s,
                                    R"("\ud800")"s, R"("\ud800\u0041")"s, R"("\udc00")"s,
                                    R"("\u12")"s, R"("\x41")"s, "\"a\nb\""s, "\"a\0b\""s}) {
        files.push_back(fileWith("appPath", text));
    }
    for (const std::string& bytes : files) {
        EXPECT_EQ(loaded(bytes), StoredCommitment(nothingSaved)) << bytes;
    }
}

TEST_F(FileCommitmentStoreTest, AUserIsAWholeNumberOf32Bits) {
    struct Row {
        const char* text;
        std::uint32_t uid;
    };

    for (const Row row : {Row{"0", 0}, Row{"-0", 0}, Row{"4294967295", 4294967295},
                          Row{"501.0", 501}, Row{"5.01e2", 501}}) {
        const StoredCommitment stored = loaded(fileWith("uid", row.text));
        ASSERT_TRUE(std::holds_alternative<HelperCommitment>(stored)) << row.text;
        EXPECT_EQ(std::get<HelperCommitment>(stored).uid, row.uid);
    }
    for (const char* text :
         {"-1", "501.5", "4294967296", "-2147483648", "18446744073709551615",
          "18446744073709551616", "-9223372036854775809", "1e300", "0.5", "-0.5", "5e-324"}) {
        EXPECT_EQ(loaded(fileWith("uid", text)), StoredCommitment(bothSaved)) << text;
    }
}

TEST_F(FileCommitmentStoreTest, ANumberTooSmallForADoubleIsZero) {
    const StoredCommitment stored = loaded(fileWith("remaining", "1e-999"));
    ASSERT_TRUE(std::holds_alternative<HelperCommitment>(stored));
    EXPECT_EQ(std::get<HelperCommitment>(stored).remaining.count(), 0);
}

// A number of seconds is a double, whatever it is written as.
TEST_F(FileCommitmentStoreTest, AWholeNumberOfSecondsMayHaveMoreDigitsThan64Bits) {
    const StoredCommitment stored = loaded(fileWith("remaining", "-9223372036854775809"));
    ASSERT_TRUE(std::holds_alternative<HelperCommitment>(stored));
    EXPECT_EQ(std::get<HelperCommitment>(stored).remaining.count(), -9223372036854775808.0);
}

TEST_F(FileCommitmentStoreTest, AnEscapedZeroByteIsPartOfThePath) {
    const StoredCommitment stored = loaded(fileWith("appPath", R"("/Applications/a\u0000b.app")"));
    ASSERT_TRUE(std::holds_alternative<HelperCommitment>(stored));
    EXPECT_EQ(std::get<HelperCommitment>(stored).appPath, "/Applications/a\0b.app"s);
}

TEST_F(FileCommitmentStoreTest, AByteOrderMarkInFrontIsPassedOver) {
    EXPECT_EQ(loaded("\xEF\xBB\xBF"s + golden), StoredCommitment(sample));
}

TEST_F(FileCommitmentStoreTest, OfTwoMembersWithOneKeyTheLastCounts) {
    const std::string inside = golden + 1;
    EXPECT_EQ(loaded("{\"uid\": -1, \"locked\": \"true\"," + inside), StoredCommitment(sample));
    std::string text = textOf(allMembers);
    text.back() = ',';
    EXPECT_EQ(loaded(text + "\"locked\": false, \"uid\": -1}"),
              StoredCommitment(UnreadableCommitment{"/Applications/Halvo.app", false}));
}

TEST_F(FileCommitmentStoreTest, AFileCutOffAnywhereIsUnreadable) {
    const std::string whole = golden;
    for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
        EXPECT_EQ(loaded(whole.substr(0, length)), StoredCommitment(nothingSaved)) << length;
    }
    EXPECT_EQ(loaded(whole.substr(0, whole.size() - 1)), StoredCommitment(sample));
}

// Whatever a byte is changed to: a commitment or unreadable, never none, and no crash.
TEST_F(FileCommitmentStoreTest, ADamagedByteIsNeverTakenForNoFile) {
    const std::string whole = golden;
    std::filesystem::create_directories(folder);
    for (std::size_t position = 0; position < whole.size(); ++position) {
        for (const char damage : {'\0', '\xFF', '"', '}', '9'}) {
            std::string bytes = whole;
            bytes[position] = damage;
            writeTestFile(file, bytes);
            EXPECT_FALSE(std::holds_alternative<NoCommitment>(store.load())) << position;
        }
    }
}

// A reader that called itself would need more than the initial thread's 8 MiB of stack here, with
// as little as 42 bytes for each level.
TEST_F(FileCommitmentStoreTest, SurvivesTheDeepestNesting) {
    constexpr std::size_t depth = 200'000;
    const std::string nested = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(loaded(std::string(depth, '[')), StoredCommitment(nothingSaved));
    EXPECT_EQ(loaded(fileWith("remaining", nested)), StoredCommitment(bothSaved));
    const StoredCommitment stored = loaded(fileWith("zExtra", nested));
    EXPECT_TRUE(std::holds_alternative<HelperCommitment>(stored));
    std::string objects;
    for (std::size_t i = 0; i < depth; ++i) {
        objects += R"({"":)";
    }
    EXPECT_EQ(loaded(objects), StoredCommitment(nothingSaved));
}

TEST_F(FileCommitmentStoreTest, ReadsAFileOfOneMebibyteAndNoneThatIsLonger) {
    const std::string longest = golden + std::string((1 << 20) - std::string(golden).size(), ' ');
    EXPECT_EQ(loaded(longest), StoredCommitment(sample));
    EXPECT_EQ(loaded(longest + " "), StoredCommitment(nothingSaved));
    EXPECT_EQ(loaded(longest + longest), StoredCommitment(nothingSaved));
}

TEST_F(FileCommitmentStoreTest, LoadingNeverLogs) {
    store.load();
    loaded("");
    loaded("{}");
    loaded("[");
    loaded(std::string(2 << 20, ' '));
    EXPECT_TRUE(log.isEmpty());
}

// --- Something else in the file's or the folder's place

TEST_F(FileCommitmentStoreTest, AMissingFileIsNone) {
    std::filesystem::create_directories(folder);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
}

TEST_F(FileCommitmentStoreTest, AFolderInTheFilesPlaceIsNoneAndCannotBeReplaced) {
    std::filesystem::create_directories(file);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    store.save(sample);
    EXPECT_EQ(saveFailure(), file + ": Is a directory");
    EXPECT_FALSE(exists(folder + "/.commitment.json.new"));
    store.remove();
    EXPECT_FALSE(exists(folder));
}

TEST_F(FileCommitmentStoreTest, APipeInTheFilesPlaceIsNoneAndIsReplaced) {
    std::filesystem::create_directories(folder);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    store.save(sample);
    EXPECT_EQ(store.load(), StoredCommitment(sample));
}

TEST_F(FileCommitmentStoreTest, ALinkThatLeadsNowhereIsNone) {
    std::filesystem::create_directories(folder);
    ASSERT_EQ(symlink("missing", file.c_str()), 0);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
}

TEST_F(FileCommitmentStoreTest, AFileInTheFoldersPlaceIsNoneAndSavingSaysSo) {
    writeTestFile(folder, "file");
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    store.save(sample);
    EXPECT_EQ(saveFailure(), folder + ": Not a directory");
    EXPECT_EQ(readTestFile(folder), "file");
}

TEST_F(FileCommitmentStoreTest, APipeInTheFoldersPlaceIsNoneAndSavingSaysSo) {
    ASSERT_EQ(mkfifo(folder.c_str(), 0600), 0);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    store.save(sample);
    EXPECT_EQ(saveFailure(), folder + ": Not a directory");
}

TEST_F(FileCommitmentStoreTest, ALinkInTheFoldersPlaceIsFollowed) {
    ASSERT_EQ(mkdir((disk / "elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(symlink("elsewhere", folder.c_str()), 0);
    store.save(sample);
    EXPECT_EQ(store.load(), StoredCommitment(sample));
    EXPECT_EQ(permissionsOf(disk / "elsewhere"), 0755U);
}

TEST_F(FileCommitmentStoreTest, AFileThatCannotBeReadIsNone) {
    write(golden);
    {
        const Fault fault = Fault::failing(SystemCall::open, EACCES);
        EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    }
    const Fault fault = Fault::failing(SystemCall::read, EIO);
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, AFolderThatOthersMayNotEnterIsNoneToThem) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    store.save(sample);
    ASSERT_EQ(chmod(disk.path().c_str(), 0755), 0);
    const auto result = testing::runInChild([this] {
        ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
        EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
        EXPECT_TRUE(log.isEmpty());
        store.save(sample);
        EXPECT_EQ(saveFailure(), folder + ": Permission denied");
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

// --- Saves that fail

TEST_F(FileCommitmentStoreTest, AnyFailureToSaveIsLoggedOnceAndLeavesTheOldFile) {
    struct Row {
        SystemCall call;
        int code;
        std::string reason;
    };

    const std::vector<Row> rows{
        {SystemCall::mkdir, EROFS, folder + ": Read-only file system"},
        {SystemCall::stat, EIO, folder + ": Input/output error"},
        {SystemCall::open, EMFILE, folder + ": Too many open files"},
        {SystemCall::openat, EACCES, folder + "/.commitment.json.new: Permission denied"},
        {SystemCall::fchmod, EPERM, file + ": Operation not permitted"},
        {SystemCall::write, ENOSPC, file + ": No space left on device"},
        {SystemCall::fsync, EIO, file + ": Input/output error"},
        {SystemCall::renameat, EROFS, file + ": Read-only file system"},
    };
    HelperCommitment next = sample;
    next.uid = 502;
    for (const Row& row : rows) {
        write(golden);
        {
            const Fault fault = Fault::failing(row.call, row.code);
            store.save(next);
        }
        EXPECT_EQ(saveFailure(), row.reason);
        EXPECT_EQ(store.load(), StoredCommitment(sample)) << row.reason;
        store.save(next);
        EXPECT_EQ(store.load(), StoredCommitment(next)) << "the next save begins anew";
    }
}

TEST_F(FileCommitmentStoreTest, AFolderWhosePermissionsCannotBeSetIsReported) {
    const Fault fault = Fault::failing(SystemCall::chmod, EPERM);
    store.save(sample);
    EXPECT_EQ(saveFailure(), folder + ": Operation not permitted");
}

TEST_F(FileCommitmentStoreTest, ANumberThatIsNotFiniteIsNotSaved) {
    struct Row {
        const char* name;
        void (*spoil)(HelperCommitment&, double);
    };

    const std::vector<Row> rows{
        {"capRemaining", [](HelperCommitment& c, double bad) { c.capRemaining = Seconds{bad}; }},
        {"remaining", [](HelperCommitment& c, double bad) { c.remaining = Seconds{bad}; }},
        {"startedWall", [](HelperCommitment& c, double bad) { c.startedWall = wallDate(bad); }},
        {"sinceBoot",
         [](HelperCommitment& c, double bad) { c.checkpoint.sinceBoot = Seconds{bad}; }},
        {"wall", [](HelperCommitment& c, double bad) { c.checkpoint.wall = wallDate(bad); }},
    };
    store.save(sample);
    for (const Row& row : rows) {
        for (const double bad : {Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()}) {
            HelperCommitment spoilt = sample;
            row.spoil(spoilt, bad);
            store.save(spoilt);
            EXPECT_EQ(saveFailure(), std::string(row.name) + " is not a finite number");
            EXPECT_EQ(store.load(), StoredCommitment(sample));
        }
    }
}

TEST_F(FileCommitmentStoreTest, TextThatIsNotUTF8IsNotSaved) {
    store.save(sample);
    HelperCommitment badPath = sample;
    badPath.appPath = "/Applications/Caf\xE9.app";
    HelperCommitment badBoot = sample;
    badBoot.checkpoint.bootID = "\xFF";
    for (const HelperCommitment& bad : {badPath, badBoot}) {
        store.save(bad);
        EXPECT_EQ(saveFailure(), "appPath or bootID is not UTF-8 text");
        EXPECT_EQ(store.load(), StoredCommitment(sample));
    }
}

TEST_F(FileCommitmentStoreTest, ARecordThatCannotBeEncodedStillLeavesTheFolderMade) {
    HelperCommitment bad = sample;
    bad.remaining = Seconds{Limits::infinity()};
    store.save(bad);
    EXPECT_EQ(saveFailure(), "remaining is not a finite number");
    EXPECT_TRUE(exists(folder));
    EXPECT_FALSE(exists(file));
}

TEST_F(FileCommitmentStoreTest, AReadOnlyDiskLeavesTheOldFile) {
    store.save(sample);
    const PrivateMount mount("none", folder, folder, MS_BIND);
    if (!mount.makeReadOnly()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    store.save(sample);
    EXPECT_EQ(saveFailure(), folder + "/.commitment.json.new: Read-only file system");
    store.remove();
    EXPECT_EQ(removalFailure(), file + ": Read-only file system");
    EXPECT_EQ(store.load(), StoredCommitment(sample));
}

// --- Removal

TEST_F(FileCommitmentStoreTest, RemovingNothingDoesNothingAndSaysNothing) {
    store.remove();
    EXPECT_TRUE(log.isEmpty());
    EXPECT_FALSE(exists(folder));
    EXPECT_TRUE(exists(disk.path()));
}

TEST_F(FileCommitmentStoreTest, RemovingTakesTheFileAndTheFolder) {
    store.save(sample);
    store.remove();
    EXPECT_FALSE(exists(folder));
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, RemovingTakesWhateverElseIsInTheFolder) {
    store.save(sample);
    std::filesystem::create_directories(folder + "/a/b");
    writeTestFile(folder + "/a/b/c", "");
    ASSERT_EQ(symlink(disk.path().c_str(), (folder + "/link").c_str()), 0);
    writeTestFile(disk / "neighbour", "");
    store.remove();
    EXPECT_FALSE(exists(folder));
    EXPECT_TRUE(exists(disk / "neighbour")) << "a link inside is not followed";
}

TEST_F(FileCommitmentStoreTest, RemovingAFolderThatIsALinkTakesOnlyTheLinkAndTheFile) {
    ASSERT_EQ(mkdir((disk / "elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(symlink("elsewhere", folder.c_str()), 0);
    store.save(sample);
    writeTestFile(disk / "elsewhere/other", "");
    store.remove();
    EXPECT_FALSE(exists(folder));
    EXPECT_FALSE(exists(disk / "elsewhere/commitment.json"));
    EXPECT_TRUE(exists(disk / "elsewhere/other"));
}

TEST_F(FileCommitmentStoreTest, WhatWasRemovedStaysRemovedAfterALossOfPower) {
    store.save(sample);
    const testing::CallTrace trace;
    store.remove();
    EXPECT_EQ(trace.calls(),
              (std::vector<std::string>{"remove " + file, "fsync " + folder, "remove " + folder,
                                        "fsync " + disk.path()}));
}

TEST_F(FileCommitmentStoreTest, AnyFailureToRemoveIsLoggedOnce) {
    struct Row {
        SystemCall call;
        int skip;
        int code;
        std::string reason;
    };

    for (const Row& row : std::vector<Row>{
             {SystemCall::remove, 0, EIO, file + ": Input/output error"},
             {SystemCall::fsync, 0, EIO, folder + ": Input/output error"},
             {SystemCall::open, 0, EMFILE, folder + ": Too many open files"},
             {SystemCall::remove, 1, EBUSY, folder + ": Device or resource busy"},
             {SystemCall::fsync, 1, ENOSPC, disk.path() + ": No space left on device"}}) {
        store.save(sample);
        const Fault fault = Fault::failing(row.call, row.code, row.skip);
        store.remove();
        EXPECT_EQ(removalFailure(), row.reason);
    }
}

TEST_F(FileCommitmentStoreTest, WhatSomebodyElseRemovesMeanwhileIsNoFailure) {
    store.save(sample);
    const Fault fault = Fault::failing(SystemCall::remove, ENOENT);
    store.remove();
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, AFolderThatCannotBeRemovedIsLogged) {
    store.save(sample);
    if (setItemFlags(folder, ItemFlag::systemImmutable) != 0) {
        GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
    }
    store.remove();
    EXPECT_EQ(removalFailure(), file + ": Operation not permitted");
    EXPECT_EQ(store.load(), StoredCommitment(sample));
}

TEST_F(FileCommitmentStoreTest, SavingAfterRemovingBeginsAnew) {
    store.save(sample);
    store.remove();
    store.save(sample);
    EXPECT_EQ(store.load(), StoredCommitment(sample));
    EXPECT_EQ(permissionsOf(folder), 0700U);
}

}  // namespace
}  // namespace halvo
