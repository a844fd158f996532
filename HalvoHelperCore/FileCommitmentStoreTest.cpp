#include <gtest/gtest.h>
#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/Printing.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using testing::Fault;
using testing::LogCapture;
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

// A complete file, but for the value of `key`, of the record or its checkpoint, which is left out
// where `value` is empty.
std::string fileWith(const std::string& key, const std::string& value) {
    std::map<std::string, std::string> checkpoint{
        {"bootID", "\"boot\""}, {"sinceBoot", "1.5"}, {"wall", "1763249012"}};
    std::map<std::string, std::string> record{
        {"appPath", "\"/Applications/Halvo.app\""},
        {"capRemaining", "86400"},
        {"locked", "true"},
        {"remaining", "7200"},
        {"startedWall", "1763243700"},
        {"uid", "501"},
    };
    (checkpoint.contains(key) ? checkpoint : record)[key] = value;
    const auto textOf = [](const std::map<std::string, std::string>& members) {
        std::string text;
        for (const auto& [name, content] : members) {
            if (!content.empty()) {
                text += (text.empty() ? "{\"" : ", \"") + name + "\": " + content;
            }
        }
        return text + "}";
    };
    record.try_emplace("checkpoint", textOf(checkpoint));
    return textOf(record);
}

const std::string completeFile = fileWith("uid", "501");

const UnreadableCommitment nothingSaved{};
const UnreadableCommitment bothSaved{"/Applications/Halvo.app", true};
const UnreadableCommitment noPathSaved{std::nullopt, true};
const UnreadableCommitment noLockSaved{"/Applications/Halvo.app", false};

mode_t permissionsOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class FileCommitmentStoreTest : public ::testing::Test {
  protected:
    // The file, in its folder, holds `bytes`.
    void write(const std::string& bytes) const {
        fs::create_directories(folder);
        writeTestFile(file, bytes);
    }

    // What the store makes of a file that holds `bytes`.
    StoredCommitment loaded(const std::string& bytes) {
        write(bytes);
        return store.load();
    }

    // The commitment in the file.
    HelperCommitment held() {
        const StoredCommitment stored = store.load();
        const auto* commitment = std::get_if<HelperCommitment>(&stored);
        EXPECT_NE(commitment, nullptr);
        return commitment == nullptr ? HelperCommitment{} : *commitment;
    }

    // The commitment in a file that holds `bytes`.
    HelperCommitment commitmentIn(const std::string& bytes) {
        SCOPED_TRACE(bytes);
        write(bytes);
        return held();
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

// Keys are sorted whatever they hold: the values of the golden file are not.
TEST_F(FileCommitmentStoreTest, WritesAndReadsTheGoldenFile) {
    EXPECT_EQ(loaded(golden), StoredCommitment(sample));
    EXPECT_EQ(loaded(otherLayout), StoredCommitment(sample));
    EXPECT_EQ(loaded("\xEF\xBB\xBF"s + golden), StoredCommitment(sample)) << "a byte order mark";
    EXPECT_TRUE(store.save(sample));
    EXPECT_EQ(readTestFile(file), golden);
    HelperCommitment next = sample;
    next.uid = 4294967295;
    next.locked = false;
    store.save(next);
    EXPECT_EQ(FileCommitmentStore(folder).load(), StoredCommitment(next));
    EXPECT_TRUE(log.isEmpty());
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
    std::vector<double> numbers{0.0, -0.0, 0.1, 1.0 / 3.0, 1e15, 1e16, 1e17, 5e-324};
    for (const double number :
         {1763249012.482193, 9007199254740991.0, 9007199254740993.0, Limits::min(), Limits::max(),
          Limits::lowest(), std::nextafter(Limits::min(), 0.0), std::nextafter(1.0, 2.0)}) {
        numbers.push_back(number);
    }
    std::mt19937_64 random(20251115);
    while (numbers.size() < 500) {
        const auto number = std::bit_cast<double>(random());
        if (std::isfinite(number)) {
            numbers.push_back(number);
        }
    }
    for (auto next = numbers.begin(); next != numbers.end();) {
        HelperCommitment saved = sample;
        saved.remaining = Seconds{*next++};
        saved.capRemaining = Seconds{*next++};
        saved.startedWall = wallDate(*next++);
        saved.checkpoint.sinceBoot = Seconds{*next++};
        saved.checkpoint.wall = wallDate(*next++);
        EXPECT_TRUE(store.save(saved));
        EXPECT_EQ(bitsOf(held()), bitsOf(saved));
    }
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

// --- Files that are no whole record

TEST_F(FileCommitmentStoreTest, AnUnknownMemberIsDroppedAtTheNextSave) {
    const HelperCommitment expected{"/Applications/Halvo.app",
                                    501,
                                    wallDate(1763243700),
                                    Seconds{7200},
                                    Seconds{86400},
                                    {"boot", Seconds{1.5}, wallDate(1763249012)},
                                    true};
    EXPECT_EQ(loaded(completeFile), StoredCommitment(expected));
    for (const char* value : {R"({"appPath": 1, "deep": [1, {"locked": false}]})", "null"}) {
        EXPECT_EQ(loaded(fileWith("zExtra", value)), StoredCommitment(expected));
    }
    store.save(expected);
    EXPECT_EQ(readTestFile(file).find("xtra"), std::string::npos);
}

TEST_F(FileCommitmentStoreTest, WhatIsNoWholeRecordTellsThePathAndTheLockThatAreInIt) {
    EXPECT_EQ(loaded(R"({"appPath": "/Applications/Halvo.app", "locked": true})"),
              StoredCommitment(bothSaved));

    struct Row {
        const char* key;
        // What is of another type; empty: it is missing.
        std::vector<const char*> values;
        UnreadableCommitment saved;
    };

    const std::vector<const char*> notNumbers{
        "", "null", "true", "\"1\"", "\"2025-11-15T21:55:00Z\"", "[1]", "{}"};
    for (const Row& row : std::vector<Row>{
             {"capRemaining", notNumbers, bothSaved},
             {"remaining", notNumbers, bothSaved},
             {"startedWall", notNumbers, bothSaved},
             {"uid", notNumbers, bothSaved},
             {"sinceBoot", notNumbers, bothSaved},
             {"wall", notNumbers, bothSaved},
             {"bootID", {"", "null", "true", "1", "[\"a\"]", "{}"}, bothSaved},
             {"checkpoint", {"", "null", "1", "true", "\"boot\"", "[]", "{}"}, bothSaved},
             {"appPath", {"", "null", "true", "1", "[\"a\"]", "{}"}, noPathSaved},
             {"locked", {"", "null", "1", "0", "\"true\"", "[true]", "{}"}, noLockSaved}}) {
        for (const char* value : row.values) {
            EXPECT_EQ(loaded(fileWith(row.key, value)), StoredCommitment(row.saved))
                << row.key << " " << value;
        }
    }
}

TEST_F(FileCommitmentStoreTest, WhatIsNoObjectInJSONTellsNothingAndIsNotNone) {
    const std::string& complete = completeFile;
    const std::string inside = complete.substr(0, complete.size() - 1);
    std::vector<std::string> files{"", "\0"s, "\xFF\xFE{\0}\0"s, "[" + complete + "]"};
    for (const char* bytes : {" \n\t", "null", "true", "1", "\"/Applications/Halvo.app\"",
                              "commitment", "{", "{}", "}", "{]", "<?xml version=\"1.0\"?><plist/>",
                              R"({"AppPath": "/Applications/Halvo.app", "Locked": true})"}) {
        files.emplace_back(bytes);
    }
    for (const std::string& end : {"}"s, complete, " x"s, "\0"s, "\0rubbish"s, "\0"s + complete}) {
        files.push_back(complete + end);
    }
    for (const std::string& start : {"//\n"s, "{\"appPath\": \"/A.app\", \"locked\": true}\0"s}) {
        files.push_back(start + complete);
    }
    for (const char* end : {",}", " \"zExtra\": 1}", ", 'zExtra': 1}", ", zExtra: 1}",
                            ", \"zExtra\": }", ", \"zExtra\": nil}", ", \"zExtra\": True}"}) {
        files.push_back(inside + end);
    }
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
    for (const auto& [text, uid] : std::map<std::string, std::uint32_t>{
             {"0", 0}, {"-0", 0}, {"4294967295", 4294967295}, {"501.0", 501}, {"5.01e2", 501}}) {
        EXPECT_EQ(commitmentIn(fileWith("uid", text)).uid, uid) << text;
    }
    for (const char* text :
         {"-1", "501.5", "4294967296", "-2147483648", "18446744073709551615",
          "18446744073709551616", "-9223372036854775809", "1e300", "0.5", "-0.5", "5e-324"}) {
        EXPECT_EQ(loaded(fileWith("uid", text)), StoredCommitment(bothSaved)) << text;
    }
}

// A number of seconds is a double, whatever it is written as; an escaped zero byte is one.
TEST_F(FileCommitmentStoreTest, TakesWhatJSONCanSpell) {
    EXPECT_EQ(commitmentIn(fileWith("remaining", "1e-999")).remaining.count(), 0);
    EXPECT_EQ(commitmentIn(fileWith("remaining", "-9223372036854775809")).remaining.count(),
              -9223372036854775808.0);
    EXPECT_EQ(commitmentIn(fileWith("appPath", R"("/Applications/a\u0000b.app")")).appPath,
              "/Applications/a\0b.app"s);
}

TEST_F(FileCommitmentStoreTest, OfTwoMembersWithOneKeyTheLastCounts) {
    const std::string inside = golden + 1;
    EXPECT_EQ(loaded("{\"uid\": -1, \"locked\": \"true\"," + inside), StoredCommitment(sample));
    std::string text = completeFile;
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
    fs::create_directories(folder);
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
    commitmentIn(fileWith("zExtra", nested));
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

// --- Something else in the file's or the folder's place

TEST_F(FileCommitmentStoreTest, WhatIsNoFileIsNone) {
    struct Row {
        const char* what;
        std::function<void()> make;
        // Why nothing can be saved in its place; empty: it is replaced.
        std::string failure;
    };

    for (const Row& row : std::vector<Row>{
             {"a left-over of a save",
              [&] { writeTestFile(folder + "/.commitment.json.new", golden); }, ""},
             {"a pipe", [&] { EXPECT_EQ(mkfifo(file.c_str(), 0600), 0); }, ""},
             {"a link that leads nowhere", [&] { fs::create_symlink("missing", file); }, ""},
             {"a folder", [&] { fs::create_directories(file); }, file + ": Is a directory"},
             {"a file in the folder's place",
              [&] {
                  fs::remove_all(folder);
                  writeTestFile(folder, "file");
              },
              folder + ": Not a directory"}}) {
        SCOPED_TRACE(row.what);
        fs::remove_all(folder);
        fs::create_directories(folder);
        row.make();
        EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
        EXPECT_TRUE(log.isEmpty());
        EXPECT_EQ(store.save(sample), row.failure.empty());
        if (row.failure.empty()) {
            EXPECT_EQ(held(), sample);
        } else {
            EXPECT_EQ(saveFailure(), row.failure);
            EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
        }
        EXPECT_FALSE(fs::exists(folder + "/.commitment.json.new"));
    }
}

TEST_F(FileCommitmentStoreTest, ALinkInTheFoldersPlaceIsFollowedAndRemovedAlone) {
    ASSERT_EQ(mkdir((disk / "elsewhere").c_str(), 0755), 0);
    fs::create_symlink("elsewhere", folder);
    store.save(sample);
    EXPECT_EQ(store.load(), StoredCommitment(sample));
    EXPECT_EQ(permissionsOf(disk / "elsewhere"), 0755U);
    writeTestFile(disk / "elsewhere/other", "");
    store.remove();
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder)));
    EXPECT_FALSE(fs::exists(disk / "elsewhere/commitment.json"));
    EXPECT_TRUE(fs::exists(disk / "elsewhere/other"));
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

// --- Saves that fail

// Which failures there are FilesTest knows.
TEST_F(FileCommitmentStoreTest, AnyFailureToSaveIsLoggedOnceAndLeavesTheOldFile) {
    HelperCommitment next = sample;
    next.uid = 502;
    for (const auto& [call, reason] :
         {std::pair(SystemCall::mkdir, folder), std::pair(SystemCall::write, file)}) {
        write(golden);
        {
            const Fault fault = Fault::failing(call, ENOSPC);
            EXPECT_FALSE(store.save(next));
        }
        EXPECT_EQ(saveFailure(), reason + ": No space left on device");
        EXPECT_EQ(held(), sample);
        EXPECT_TRUE(store.save(next)) << "the next save begins anew";
        EXPECT_EQ(held(), next);
    }
}

TEST_F(FileCommitmentStoreTest, WhatJSONCannotCarryIsNotSaved) {
    struct Row {
        std::string reason;
        std::function<void(HelperCommitment&)> spoil;
    };

    const std::string noText = "appPath or bootID is not UTF-8 text";
    std::vector<Row> rows{
        {noText, [](HelperCommitment& c) { c.appPath = "/Applications/Caf\xE9.app"; }},
        {noText, [](HelperCommitment& c) { c.checkpoint.bootID = "\xFF"; }}};
    for (const double bad : {Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()}) {
        const std::string reason = " is not a finite number";
        const auto add = [&](const std::string& name, const auto& spoil) {
            rows.push_back({name + reason, spoil});
        };
        add("capRemaining", [bad](HelperCommitment& c) { c.capRemaining = Seconds{bad}; });
        add("remaining", [bad](HelperCommitment& c) { c.remaining = Seconds{bad}; });
        add("startedWall", [bad](HelperCommitment& c) { c.startedWall = wallDate(bad); });
        add("sinceBoot", [bad](HelperCommitment& c) { c.checkpoint.sinceBoot = Seconds{bad}; });
        add("wall", [bad](HelperCommitment& c) { c.checkpoint.wall = wallDate(bad); });
    }
    for (const StoredCommitment& before :
         {StoredCommitment(NoCommitment{}), StoredCommitment(sample)}) {
        for (const Row& row : rows) {
            HelperCommitment spoilt = sample;
            row.spoil(spoilt);
            store.save(spoilt);
            EXPECT_EQ(saveFailure(), row.reason);
            EXPECT_EQ(store.load(), before);
            EXPECT_TRUE(fs::exists(folder)) << "made all the same";
        }
        store.save(sample);
    }
}

// --- Removal

TEST_F(FileCommitmentStoreTest, RemovingTakesTheFolderWithAllThatIsInIt) {
    store.remove();
    EXPECT_TRUE(fs::exists(disk.path())) << "nothing to remove is no failure";
    store.save(sample);
    fs::create_directories(folder + "/a/b");
    writeTestFile(folder + "/a/b/c", "");
    fs::create_directory_symlink(disk.path(), folder + "/link");
    writeTestFile(disk / "neighbour", "");
    store.remove();
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(fs::exists(disk / "neighbour")) << "a link inside is not followed";
    EXPECT_EQ(store.load(), StoredCommitment(NoCommitment{}));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(FileCommitmentStoreTest, WhatWasRemovedStaysRemovedAfterALossOfPower) {
    store.save(sample);
    const testing::CallTrace trace;
    store.remove();
    EXPECT_EQ(trace.calls(),
              (std::vector<std::string>{"remove " + file, "fsync " + folder, "remove " + folder,
                                        "fsync " + disk.path()}));
}

TEST_F(FileCommitmentStoreTest, AFolderThatAKilledHelperMadeIsSyncedBeforeTheFirstRecordInIt) {
    ASSERT_TRUE(fs::create_directory(folder));
    const testing::CallTrace trace;
    ASSERT_TRUE(store.save(sample));
    ASSERT_FALSE(trace.calls().empty());
    EXPECT_EQ(trace.calls().front(), "fsync " + disk.path());
    EXPECT_TRUE(store.save(sample));
    EXPECT_EQ(std::ranges::count(trace.calls(), "fsync " + disk.path()), 1);
}

TEST_F(FileCommitmentStoreTest, AFolderThatCannotBeExaminedIsSyncedBeforeTheFirstRecordInIt) {
    ASSERT_TRUE(fs::create_directory(folder));
    const testing::CallTrace trace;
    const Fault fault = Fault::failing(SystemCall::access, EIO);
    ASSERT_TRUE(store.save(sample));
    EXPECT_EQ(trace.calls().front(), "fsync " + disk.path());
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

TEST_F(FileCommitmentStoreTest, WhatAnotherProcessRemovesMeanwhileIsNoFailure) {
    store.save(sample);
    const Fault fault = Fault::failing(SystemCall::remove, ENOENT);
    store.remove();
    EXPECT_TRUE(log.isEmpty());
}

}  // namespace
}  // namespace halvo
