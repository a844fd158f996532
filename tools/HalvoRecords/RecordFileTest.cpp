#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/HalvoRecords/RecordFile.hpp"

namespace halvo::records {
namespace {

using testing::sampleSnapshot;
using testing::writeTestFile;

const std::string keepAliveJSON =
    R"({"pid":7,"appPath":"/a","clean":true,"ultraHard":false,"updatedAt":"2026-11-20T09:00:00Z"})";

std::string snapshotJSON() { return JSON::encode(sampleSnapshot()).value(); }

class RecordFileTest : public ::testing::Test {
  protected:
    testing::TemporaryFolder folder;

    // The problem with the file `name` that holds `bytes`, without its path.
    std::string problemWith(const std::string& name, const std::string& bytes,
                            std::optional<RecordKind> kind = std::nullopt) {
        const std::string path = folder / name;
        writeTestFile(path, bytes);
        std::istringstream input;
        const auto record = load(path, kind, input);
        if (record) {
            return "none";
        }
        return record.error().starts_with(path + ": ") ? record.error().substr(path.size() + 2)
                                                       : "no path in: " + record.error();
    }

    std::expected<Record, std::string> loadFrom(const std::string& name, const std::string& bytes) {
        writeTestFile(folder / name, bytes);
        std::istringstream input;
        return load(folder / name, std::nullopt, input);
    }
};

std::expected<Record, std::string> loadInput(const std::string& bytes) {
    std::istringstream input(bytes);
    return load("-", std::nullopt, input);
}

TEST_F(RecordFileTest, IsToldByItsName) {
    EXPECT_EQ(loadFrom("widgets.json", snapshotJSON()), Record(sampleSnapshot()));
    EXPECT_EQ(std::get<KeepAliveState>(loadFrom("keepalive.json", keepAliveJSON).value()).pid, 7);
    EXPECT_EQ(problemWith("keepalive.json", snapshotJSON()), "pid: This is missing");
    EXPECT_EQ(problemWith("widgets.json", "{}"), "writtenAt: This is missing");
}

TEST_F(RecordFileTest, IsElseToldByItsMembers) {
    EXPECT_EQ(loadFrom("backup", snapshotJSON()), Record(sampleSnapshot()));
    EXPECT_EQ(std::get<KeepAliveState>(loadFrom("my-keepalive.json", keepAliveJSON).value()).pid,
              7);
    EXPECT_EQ(problemWith("backup", R"({"pid":7})"), "appPath: This is missing");
}

TEST_F(RecordFileTest, IsToldByItsOwnMembersAlone) {
    EXPECT_EQ(problemWith("x", R"({"a":{"pid":7},"b":[{"phases":[]}],"c":"pid"})"),
              "This is neither a keep-alive state nor a widget snapshot");
    EXPECT_EQ(problemWith("x", R"({"a":{"pid":[{}]},"writtenAt":1})").substr(0, 9), "writtenAt");
}

TEST_F(RecordFileTest, IsWhatThePersonSays) {
    EXPECT_EQ(problemWith("widgets.json", snapshotJSON(), RecordKind::keepAlive),
              "pid: This is missing");
    EXPECT_EQ(problemWith("keepalive.json", snapshotJSON(), RecordKind::widgets), "none");
}

TEST_F(RecordFileTest, IsNeitherWhenNothingTells) {
    for (const char* bytes :
         {"{}", "[]", "7", "null", R"("pid")", R"(["pid"])", R"([{"pid":7}])"}) {
        EXPECT_EQ(problemWith("x", bytes),
                  "This is neither a keep-alive state nor a widget snapshot")
            << bytes;
    }
}

TEST_F(RecordFileTest, SaysThatATextIsNoJSON) {
    for (const std::string bytes : {"", "{", "\xFF", "pid", "{\"x\":1"}) {
        EXPECT_TRUE(problemWith("x", bytes).starts_with("This is not JSON: ")) << bytes;
    }
}

TEST_F(RecordFileTest, IsReadHoweverDeepItIsNested) {
    const std::string deep(1'000'000, '[');
    EXPECT_EQ(problemWith("x", deep), "This is neither a keep-alive state nor a widget snapshot");
    EXPECT_TRUE(problemWith("widgets.json", R"({"x":)" + deep).starts_with("This is not JSON: "));
    EXPECT_EQ(problemWith("x", deep + std::string(deep.size(), ']')),
              "This is neither a keep-alive state nor a widget snapshot");
}

TEST_F(RecordFileTest, SaysWhereItIsWrongAsSharedFileDoes) {
    std::string bytes = snapshotJSON();
    bytes.replace(bytes.find(R"("ultraHard")"), 11, R"("soft")");
    const std::string path = folder / "widgets.json";
    writeTestFile(path, bytes);
    std::istringstream input;
    EXPECT_EQ(load(path, std::nullopt, input).error(),
              SharedFile<WidgetSnapshot>(path).load().error());
}

TEST_F(RecordFileTest, SaysWhyItCannotBeRead) {
    std::istringstream input;
    EXPECT_EQ(load(folder / "none", std::nullopt, input).error(),
              (folder / "none") + ": No such file or directory");
    EXPECT_EQ(load(folder.path(), std::nullopt, input).error(),
              SharedFile<WidgetSnapshot>(folder.path()).load().error());
    EXPECT_EQ(load("", std::nullopt, input).error(), ": No such file or directory");
}

TEST_F(RecordFileTest, EscapesWhatATerminalObeysInItsMessages) {
    std::istringstream input;
    EXPECT_EQ(load("no\x1B[2J\xFF", std::nullopt, input).error(),
              "no\\u001b[2J\\xff: No such file or directory");
    EXPECT_EQ(problemWith("keepalive.json", "{\"pid\":\"\xC2\x9B\"}"),
              R"(pid: Expected a whole number of 32 bits, found "\u009b")");
}

TEST(StandardInputTest, HoldsARecord) {
    EXPECT_EQ(loadInput(snapshotJSON()), Record(sampleSnapshot()));
    EXPECT_EQ(std::get<KeepAliveState>(loadInput(keepAliveJSON).value()).pid, 7);
}

TEST(StandardInputTest, IsNamedInMessages) {
    EXPECT_EQ(loadInput("{}").error(),
              "standard input: This is neither a keep-alive state nor a widget snapshot");
    EXPECT_TRUE(loadInput("").error().starts_with("standard input: This is not JSON: "));
}

TEST(StandardInputTest, IsNoLongerThanAFileMayBe) {
    std::string bytes = snapshotJSON();
    bytes.resize(shared_file::sizeLimit, ' ');
    EXPECT_TRUE(loadInput(bytes).has_value());
    bytes += ' ';
    EXPECT_EQ(loadInput(bytes).error(), "standard input: This is longer than any record");
}

TEST(StandardInputTest, SaysThatItCannotBeRead) {
    std::istringstream input(snapshotJSON());
    input.setstate(std::ios::badbit);
    EXPECT_EQ(load("-", std::nullopt, input).error(), "standard input: This cannot be read");
}

// In a folder for data of its own: a container that is asked for is made.
class OwnFileTest : public ::testing::Test {
  protected:
    testing::TemporaryFolder folder;

    void SetUp() override { setenv("XDG_DATA_HOME", folder.path().c_str(), 1); }

    void TearDown() override { unsetenv("XDG_DATA_HOME"); }
};

TEST_F(OwnFileTest, IsTheOneThatTheRecordKnows) {
    EXPECT_EQ(ownFile(RecordKind::keepAlive, std::nullopt), KeepAliveState::file().url());
    EXPECT_EQ(ownFile(RecordKind::widgets, std::nullopt), WidgetSnapshot::file().url());
}

TEST_F(OwnFileTest, LiesInTheGroupThatIsAskedFor) {
    EXPECT_EQ(ownFile(RecordKind::keepAlive, "com.example.group"),
              folder / "com.example.group/keepalive.json");
    EXPECT_EQ(ownFile(RecordKind::widgets, "com.example.group"),
              folder / "com.example.group/widgets.json");
}

TEST_F(OwnFileTest, HasOneNameInEveryGroup) {
    for (const RecordKind kind : {RecordKind::keepAlive, RecordKind::widgets}) {
        const std::string own = ownFile(kind, std::nullopt);
        const std::string inGroup = ownFile(kind, "com.example.group");
        EXPECT_EQ(own.substr(own.rfind('/')), inGroup.substr(inGroup.rfind('/')));
    }
}

}  // namespace
}  // namespace halvo::records
