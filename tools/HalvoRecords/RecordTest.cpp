#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/HalvoRecords/Record.hpp"

namespace halvo::records {
namespace {

using S = WidgetSnapshot;
using Remarks = std::vector<std::string>;
using testing::nineOClock;
using testing::sampleSnapshot;
using testing::writeTestFile;

constexpr Seconds second{1};
const std::string keepAliveJSON =
    R"({"pid":7,"appPath":"/a","clean":true,"ultraHard":false,"updatedAt":"2026-11-20T09:00:00Z"})";
const std::string unknownName = "The name does not tell which record this is; --kind does";

std::string snapshotJSON() { return JSON::encode(sampleSnapshot()).value(); }

GregorianCalendar berlin() { return GregorianCalendar::named("Europe/Berlin").value(); }

KeepAliveState keepAliveState(const std::string& appPath) {
    KeepAliveState state;
    state.pid = 4711;
    state.appPath = appPath;
    state.commitmentUntil = nineOClock + Seconds{3600};
    state.updatedAt = nineOClock;
    return state;
}

std::expected<Record, std::string> loadInput(const std::string& bytes, RecordKind kind) {
    std::istringstream input(bytes);
    return load("-", kind, input);
}

class RecordTest : public ::testing::Test {
  protected:
    testing::TemporaryFolder folder;

    // In the file `name` that holds `bytes`.
    std::expected<Record, std::string> loadFrom(const std::string& name, const std::string& bytes,
                                                std::optional<RecordKind> kind = std::nullopt) {
        writeTestFile(folder / name, bytes);
        std::istringstream input;
        return load(folder / name, kind, input);
    }

    // What load() says after the path.
    std::string problemWith(const std::string& name, const std::string& bytes,
                            std::optional<RecordKind> kind = std::nullopt) {
        const auto record = loadFrom(name, bytes, kind);
        return record ? "none" : record.error().substr((folder / name).size() + 2);
    }
};

TEST_F(RecordTest, IsToldByTheNameOfItsFile) {
    EXPECT_EQ(loadFrom("widgets.json", snapshotJSON()), Record(sampleSnapshot()));
    EXPECT_EQ(std::get<KeepAliveState>(loadFrom("keepalive.json", keepAliveJSON).value()).pid, 7);
    EXPECT_EQ(problemWith("keepalive.json", snapshotJSON()), "pid: This is missing");
    EXPECT_EQ(problemWith("widgets.json", "{}"), "writtenAt: This is missing");
    for (const char* name : {"backup", "my-widgets.json", "widgets.json.old", "Widgets.json"}) {
        EXPECT_EQ(problemWith(name, snapshotJSON()), unknownName) << name;
    }
}

TEST_F(RecordTest, IsWhatThePersonSays) {
    EXPECT_EQ(problemWith("widgets.json", snapshotJSON(), RecordKind::keepAlive),
              "pid: This is missing");
    EXPECT_EQ(problemWith("backup", snapshotJSON(), RecordKind::widgets), "none");
}

TEST_F(RecordTest, IsReadHoweverDeepItIsNested) {
    const std::string deep(1'000'000, '[');
    EXPECT_TRUE(problemWith("widgets.json", R"({"x":)" + deep).starts_with("This is not JSON: "));
    for (const std::string bytes : {"", "\xFF", "{\"x\":1"}) {
        EXPECT_TRUE(problemWith("widgets.json", bytes).starts_with("This is not JSON: ")) << bytes;
    }
}

TEST_F(RecordTest, SaysWhatIsWrongAsSharedFileDoes) {
    std::string bytes = snapshotJSON();
    bytes.replace(bytes.find(R"("ultraHard")"), 11, R"("soft")");
    const SharedFile<S> file(folder / "widgets.json");
    std::istringstream input;
    EXPECT_EQ(load(file.url(), std::nullopt, input).error(),
              file.url() + ": No such file or directory");
    const auto damaged = loadFrom("widgets.json", bytes);
    EXPECT_EQ(damaged.error(), file.load().error());
    EXPECT_EQ(load(folder.path(), RecordKind::widgets, input).error(),
              SharedFile<S>(folder.path()).load().error());
    EXPECT_EQ(load("", RecordKind::widgets, input).error(), ": No such file or directory");
}

TEST_F(RecordTest, EscapesWhatATerminalObeysInItsMessages) {
    std::istringstream input;
    EXPECT_EQ(load("no\x1B[2J\xFF", RecordKind::widgets, input).error(),
              "no\\u001b[2J\\xff: No such file or directory");
    EXPECT_EQ(load("no\x1B[2J", std::nullopt, input).error(), "no\\u001b[2J: " + unknownName);
    EXPECT_EQ(problemWith("keepalive.json", "{\"pid\":\"\xC2\x9B\"}"),
              R"(pid: Expected a whole number of 32 bits, found "\u009b")");
}

TEST(StandardInputTest, HoldsARecord) {
    EXPECT_EQ(loadInput(snapshotJSON(), RecordKind::widgets), Record(sampleSnapshot()));
    EXPECT_TRUE(loadInput(keepAliveJSON, RecordKind::keepAlive).has_value());
    std::istringstream input(snapshotJSON());
    EXPECT_EQ(load("-", std::nullopt, input).error(), "standard input: " + unknownName);
    EXPECT_EQ(loadInput("{}", RecordKind::widgets).error(),
              "standard input: writtenAt: This is missing");
    EXPECT_EQ(loadInput("{\"pid\":\"\xC2\x9B\"}", RecordKind::keepAlive).error(),
              R"(standard input: pid: Expected a whole number of 32 bits, found "\u009b")");
}

TEST(StandardInputTest, IsNoLongerThanAFileMayBe) {
    std::string bytes = snapshotJSON();
    bytes.resize(shared_file::sizeLimit, ' ');
    EXPECT_TRUE(loadInput(bytes, RecordKind::widgets).has_value());
    bytes += ' ';
    EXPECT_EQ(loadInput(bytes, RecordKind::widgets).error(),
              "standard input: This is longer than any record");
}

TEST(StandardInputTest, SaysThatItCannotBeRead) {
    std::istringstream input(snapshotJSON());
    input.setstate(std::ios::badbit);
    EXPECT_EQ(load("-", RecordKind::widgets, input).error(), "standard input: This cannot be read");
}

TEST(OwnFileTest, IsTheOneThatTheRecordKnows) {
    const testing::TemporaryFolder folder;
    setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
    EXPECT_EQ(ownFile(RecordKind::keepAlive, std::nullopt), KeepAliveState::file().url());
    EXPECT_EQ(ownFile(RecordKind::widgets, std::nullopt), S::file().url());
    unsetenv("XDG_DATA_HOME");
}

TEST(RecordTextTest, SumsARecordUp) {
    EXPECT_EQ(summary(sampleSnapshot()),
              "a widget snapshot of 6 phases, 2 days, 1 list and 1 block");
    EXPECT_EQ(summary(S{}), "a widget snapshot of 0 phases, 0 days, 0 lists and 0 blocks");
    EXPECT_EQ(summary(keepAliveState("")), "a keep-alive state of process 4711");
}

TEST(RecordTextTest, IsJSONWithLocalTimesBesideItsDates) {
    EXPECT_EQ(description(keepAliveState("/Applications/Halvo.app"), berlin()), R"J({
  "appPath": "/Applications/Halvo.app",
  "appReleased": false,
  "bypassNoted": false,
  "clean": false,
  "commitmentUntil": "2026-11-20T10:00:00Z (2026-11-20 11:00:00 +01:00)",
  "pid": 4711,
  "ultraHard": false,
  "updatedAt": "2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)"
}
)J");
}

TEST(RecordTextTest, HasEveryMember) {
    std::string text = description(sampleSnapshot(), berlin());
    EXPECT_NE(text.find(R"J("end": "2026-11-20T09:10:30Z (2026-11-20 10:10:30 +01:00)")J"),
              std::string::npos)
        << text;
    for (std::size_t at = text.find("Z ("); at != std::string::npos; at = text.find("Z (")) {
        text.erase(at + 1, sizeof " (2026-11-20 10:10:30 +01:00)" - 1);
    }
    EXPECT_EQ(text, asJSON(sampleSnapshot()));
    EXPECT_EQ(JSON::decode<S>(text), sampleSnapshot());
}

TEST(RecordTextTest, LetsNoControlCharacterThrough) {
    const KeepAliveState state = keepAliveState("\x1B]0;x\a\xC2\x9B\r");
    for (const std::string& text : {description(state, berlin()), asJSON(state)}) {
        EXPECT_NE(text.find(R"("appPath": "\u001b]0;x\u0007\u009b\r",)"), std::string::npos)
            << text;
    }
}

TEST(RemarksTest, AreNoneOnWhatIsAsItShouldBe) {
    EXPECT_EQ(remarks(sampleSnapshot()), Remarks{});
    EXPECT_EQ(remarks(WidgetSnapshot{}), Remarks{});
    EXPECT_EQ(remarks(KeepAliveState{}), Remarks{});
}

TEST(RemarksTest, PointOutPhasesThatAreNotInOrder) {
    S snapshot = sampleSnapshot();
    snapshot.phases = {{nineOClock + second, S::NoBlocks{}},
                       {nineOClock, S::NoBlocks{}},
                       {nineOClock, S::NothingScheduled{}}};
    EXPECT_EQ(remarks(snapshot), (Remarks{"phases[1] starts before phases[0]",
                                          "phases[2] starts together with phases[1]"}));
}

TEST(RemarksTest, PointOutWhatEndedBeforeItsPhaseStarts) {
    const S::Running over = testing::sampleRun(nineOClock - second);
    const S::Upcoming missed{.name = "",
                             .look = std::nullopt,
                             .start = nineOClock - second - second,
                             .end = nineOClock - second,
                             .level = S::Level::firm};
    S snapshot = sampleSnapshot();
    for (const S::State& state : std::initializer_list<S::State>{
             S::Block{over}, S::Focus{over}, S::FocusFilter{over}, S::Next{missed}}) {
        snapshot.phases = {{nineOClock, state}};
        EXPECT_EQ(remarks(snapshot), Remarks{"phases[0] shows what ended before it starts"})
            << state.index();
    }
    snapshot.phases = {{nineOClock, S::Block{testing::sampleRun(nineOClock)}}};
    EXPECT_EQ(remarks(snapshot), Remarks{});
}

TEST(RemarksTest, PointOutAHorizonBeforeTheWriting) {
    S snapshot = sampleSnapshot();
    snapshot.horizon = snapshot.writtenAt;
    EXPECT_EQ(remarks(snapshot), Remarks{});
    snapshot.horizon = snapshot.writtenAt - second;
    EXPECT_EQ(remarks(snapshot), Remarks{"horizon is before writtenAt"});
}

TEST(RemarksTest, PointOutDaysWithTheSameStart) {
    S snapshot = sampleSnapshot();
    snapshot.days.push_back(snapshot.days.front());
    EXPECT_EQ(remarks(snapshot), Remarks{"days[2] has the same start as days[0]"});
}

}  // namespace
}  // namespace halvo::records
