#include <gtest/gtest.h>

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
using testing::sampleRun;
using testing::sampleSnapshot;

constexpr Seconds second{1};
constexpr Seconds minute{60};
constexpr Seconds hour{3600};
const std::string keepAliveJSON =
    R"({"pid":7,"appPath":"/a","clean":true,"ultraHard":false,"updatedAt":"2026-11-20T09:00:00Z"})";
const std::string unknownName = "The name does not tell which record this is; --kind does";

std::string snapshotJSON() { return JSON::encode(sampleSnapshot()).value(); }

GregorianCalendar calendarOf(const std::string& zone) {
    return GregorianCalendar::named(zone).value();
}

KeepAliveState keepAliveState(const std::string& appPath) {
    KeepAliveState state;
    state.pid = 4711;
    state.appPath = appPath;
    state.commitmentUntil = nineOClock + hour;
    state.updatedAt = nineOClock;
    return state;
}

// What load() says of `file` and of standard input.
std::string errorOf(const std::string& file, const std::string& kind,
                    const std::string& inputBytes = "") {
    std::istringstream input(inputBytes);
    const auto record = load(file, kind, input);
    return record ? "none" : record.error();
}

TEST(RecordTest, IsReadAsTheNameOfItsFileOrThePersonSays) {
    const testing::TemporaryFolder folder;

    const struct {
        std::string name;
        std::string kind;
        std::string bytes;
        std::string error;
    } rows[] = {
        {"widgets.json", "", snapshotJSON(), "none"},
        {"keepalive.json", "", keepAliveJSON, "none"},
        {"backup", "widgets", snapshotJSON(), "none"},
        {"widgets.json", "keepalive", keepAliveJSON, "none"},
        {"keepalive.json", "", snapshotJSON(), "pid: This is missing"},
        {"widgets.json", "keepalive", snapshotJSON(), "pid: This is missing"},
        {"widgets.json", "", "{}", "writtenAt: This is missing"},
        {"keepalive.json", "keepalive", "{\"pid\":\"\xC2\x9B\"}",
         R"(pid: Expected a whole number of 32 bits, found "\u009b")"},
        {"backup", "", snapshotJSON(), unknownName},
        {"my-widgets.json", "", snapshotJSON(), unknownName},
        {"widgets.json.old", "", snapshotJSON(), unknownName},
        {"Widgets.json", "", snapshotJSON(), unknownName},
    };

    for (const auto& [name, kind, bytes, error] : rows) {
        const std::string file = folder / name;
        testing::writeTestFile(file, bytes);
        const bool isFine = error == "none";
        EXPECT_EQ(errorOf(file, kind), isFine ? error : file + ": " + error);
        EXPECT_EQ(errorOf("-", kind, bytes), kind.empty() ? "standard input: " + unknownName
                                             : isFine     ? error
                                                          : "standard input: " + error);
    }
    std::istringstream input(snapshotJSON());
    EXPECT_EQ(load("-", "widgets", input), Record(sampleSnapshot()));
}

TEST(RecordTest, SaysWhatIsWrongAsSharedFileDoes) {
    const testing::TemporaryFolder folder;
    const std::string file = folder / "widgets.json";
    EXPECT_EQ(errorOf(file, ""), file + ": No such file or directory");
    EXPECT_EQ(errorOf(folder.path(), "widgets"), SharedFile<S>(folder.path()).load().error());
    testing::writeTestFile(file, R"({"writtenAt":5})");
    EXPECT_EQ(errorOf(file, ""), SharedFile<S>(file).load().error());
    EXPECT_EQ(errorOf("", "widgets"), ": No such file or directory");
    EXPECT_EQ(errorOf("no\x1B[2J\xFF", "widgets"), "no\\u001b[2J\\xff: No such file or directory");
    EXPECT_EQ(errorOf("no\x1B[2J", ""), "no\\u001b[2J: " + unknownName);
}

TEST(StandardInputTest, IsNoLongerThanAFileMayBe) {
    std::string bytes = snapshotJSON();
    bytes.resize(shared_file::sizeLimit, ' ');
    EXPECT_EQ(errorOf("-", "widgets", bytes), "none");
    EXPECT_EQ(errorOf("-", "widgets", bytes + ' '),
              "standard input: This is longer than any record");
}

TEST(StandardInputTest, SaysThatItCannotBeRead) {
    std::istringstream input(snapshotJSON());
    input.setstate(std::ios::badbit);
    EXPECT_EQ(load("-", "widgets", input).error(), "standard input: This cannot be read");
}

TEST(RecordTextTest, SumsARecordUp) {
    EXPECT_EQ(summary(sampleSnapshot()),
              "a widget snapshot of 6 phases, 2 days, 1 list and 1 block");
    EXPECT_EQ(summary(S{}), "a widget snapshot of 0 phases, 0 days, 0 lists and 0 blocks");
    EXPECT_EQ(summary(keepAliveState("")), "a keep-alive state of process 4711");
}

TEST(RecordTextTest, IsJSONWithLocalTimesBesideItsDates) {
    const GregorianCalendar berlin = calendarOf("Europe/Berlin");
    EXPECT_EQ(asJSON(keepAliveState("\x1B]0;x\a\xC2\x9B\r"), &berlin), R"J({
  "appPath": "\u001b]0;x\u0007\u009b\r",
  "appReleased": false,
  "bypassNoted": false,
  "clean": false,
  "commitmentUntil": "2026-11-20T10:00:00Z (2026-11-20 11:00:00 +01:00)",
  "pid": 4711,
  "ultraHard": false,
  "updatedAt": "2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)"
}
)J") << "and no control character comes through";
    std::string text = asJSON(sampleSnapshot(), &berlin);
    EXPECT_TRUE(text.contains(R"J("end": "2026-11-20T09:10:30Z (2026-11-20 10:10:30 +01:00)")J"));
    for (std::size_t at = text.find("Z ("); at != std::string::npos; at = text.find("Z (")) {
        text.erase(at + 1, sizeof " (2026-11-20 10:10:30 +01:00)" - 1);
    }
    EXPECT_EQ(text, asJSON(sampleSnapshot()));
    EXPECT_EQ(JSON::decode<S>(text), sampleSnapshot());
}

TEST(RemarksTest, PointOutWhatIsSuspicious) {
    EXPECT_EQ(remarks(KeepAliveState{}), Remarks{});
    const S::Running over = sampleRun(nineOClock - second);
    const S::Upcoming missed{.name = "",
                             .look = std::nullopt,
                             .start = nineOClock - second - second,
                             .end = nineOClock - second,
                             .level = S::Level::firm};
    const Remarks isOver{"phases[0] shows what ended before it starts"};

    const struct {
        std::vector<S::Phase> phases;
        Remarks remarks;
    } rows[] = {{{}, {}},
                {sampleSnapshot().phases, {}},
                {{{nineOClock + second, S::NoBlocks{}},
                  {nineOClock, S::NoBlocks{}},
                  {nineOClock, S::NothingScheduled{}}},
                 {"phases[1] starts before phases[0]", "phases[2] starts together with phases[1]"}},
                {{{nineOClock, S::Block{over}}}, isOver},
                {{{nineOClock, S::Focus{over}}}, isOver},
                {{{nineOClock, S::FocusFilter{over}}}, isOver},
                {{{nineOClock, S::Next{missed}}}, isOver},
                {{{nineOClock, S::Block{sampleRun(nineOClock)}}}, {}}};

    S snapshot = sampleSnapshot();
    for (const auto& row : rows) {
        snapshot.phases = row.phases;
        EXPECT_EQ(remarks(snapshot), row.remarks);
    }
    snapshot.horizon = snapshot.writtenAt;
    EXPECT_EQ(remarks(snapshot), Remarks{});
    snapshot.horizon = snapshot.writtenAt - second;
    snapshot.days.push_back(snapshot.days.front());
    EXPECT_EQ(remarks(snapshot),
              (Remarks{"horizon is before writtenAt", "days[2] has the same start as days[0]"}));
}

// The column WHY of the timeline, a row after the other.
std::string reasonsOf(const S& snapshot, const TimelineRequest& request, const char* zone = "UTC") {
    std::istringstream lines(timelineText(snapshot, request, calendarOf(zone)));
    std::string all;
    for (std::string line; std::getline(lines, line);) {
        const std::string rest = line.substr(line.find("  ") + 2);
        const std::string why = rest.substr(rest.find_first_not_of(' '));
        all += why.substr(0, why.find("  ")) + "|";
    }
    return all;
}

TEST(TimelineTest, SaysWhyEachDateIsThere) {
    const WallDate midnight = nineOClock + hour * 15;
    S snapshot = sampleSnapshot();
    EXPECT_EQ(
        reasonsOf(snapshot, {.from = nineOClock + hour, .countdownSpan = Seconds{0}}, "Asia/Tokyo"),
        "WHY|start, phase|phase|midnight|phase|phase|reload|");
    snapshot.phases = {{midnight - minute * 2, S::Block{sampleRun(midnight + minute)}},
                       {midnight + minute, S::NothingScheduled{}}};
    EXPECT_EQ(reasonsOf(snapshot, {.from = midnight - minute * 2}),
              "WHY|start, phase|minute|midnight, minute|phase|reload|");
    snapshot.phases = {{nineOClock, S::Block{sampleRun(midnight + hour)}}};
    EXPECT_EQ(reasonsOf(snapshot, {.from = nineOClock, .countdownSpan = minute}),
              "WHY|start, phase|minute|midnight|reload|")
        << "no minutes past the span";
    snapshot.phases = {{nineOClock, S::Block{sampleRun(nineOClock + minute * 3)}},
                       {nineOClock + minute * 2, S::NothingScheduled{}},
                       {nineOClock - hour, S::NoBlocks{}}};
    EXPECT_EQ(reasonsOf(snapshot, {.from = nineOClock}),
              "WHY|start, phase|minute|phase|midnight|reload|")
        << "a minute of a phase that another one overlaps";
}

TEST(TimelineTest, IsATable) {
    const GregorianCalendar berlin = calendarOf("Europe/Berlin");
    const TimelineRequest request{.from = nineOClock + minute * 9, .countdownSpan = minute * 2};
    EXPECT_EQ(timelineText(sampleSnapshot(), request, berlin),
              R"(DATE                        WHY       LEFT   STATE
2026-11-20 10:09:00 +01:00  start     1:30   block "Deep work"
2026-11-20 10:09:30 +01:00  minute    1:00   block "Deep work"
2026-11-20 10:10:30 +01:00  phase     49:30  focus "Deep work"
2026-11-20 10:11:00 +01:00  minute    49:00  focus "Deep work"
2026-11-20 11:00:00 +01:00  phase     -      focus filter "Deep work"
2026-11-20 12:00:00 +01:00  phase     -      next "Evening \"off\"\n\\ ☾"
2026-11-20 22:00:00 +01:00  phase     -      nothing scheduled
2026-11-20 23:53:20 +01:00  phase     -      no blocks
2026-11-21 00:00:00 +01:00  midnight  -      no blocks
2026-11-21 00:00:00 +01:00  reload
)");
}

TEST(TimelineTest, IsJSON) {
    const GregorianCalendar utc = calendarOf("UTC");
    EXPECT_EQ(timelineJSON(sampleSnapshot(), {.from = nineOClock, .limit = 2}, utc), R"({
  "dates": [
    "2026-11-20T09:00:00Z",
    "2026-11-20T09:00:30Z"
  ],
  "reload": "2026-11-20T09:00:30Z"
}
)");
    EXPECT_EQ(timelineJSON(S{}, {.from = wallDate(253402300799)}, utc),
              "{\n  \"dates\": [\n    \"9999-12-31T23:59:59Z\"\n  ],\n  \"reload\": null\n}\n")
        << "the records have no text for a later date";
}

}  // namespace
}  // namespace halvo::records
