#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/HalvoRecords/Arguments.hpp"
#include "tools/HalvoRecords/Tool.hpp"

namespace halvo::records {

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "status " << outcome.status << ", output:\n"
            << outcome.output << "errors:\n"
            << outcome.errors;
}

namespace {

using ::testing::HasSubstr;
using testing::nineOClock;
using testing::readTestFile;
using testing::sampleSnapshot;
using ::testing::StartsWith;
using testing::writeTestFile;
using Words = std::vector<std::string>;

const std::string keepAliveFile = HALVO_GOLDEN "/keepalive.json";
const std::string widgetsFile = HALVO_GOLDEN "/widgets.json";

Outcome runWith(const Words& words, const std::string& input = "") {
    std::istringstream stream(input);
    return run(words, stream, nineOClock + Seconds{0.75});
}

Outcome fine(const std::string& output) { return {ExitStatus::fine, output, ""}; }

Outcome wrong(const std::string& problem) {
    return {ExitStatus::wrongWords, "",
            "halvo-records: " + problem + " See halvo-records --help.\n"};
}

TEST(ToolTest, Helps) {
    EXPECT_EQ(runWith({"--help"}), fine(helpText));
    EXPECT_EQ(runWith({"--version"}), fine(std::string("halvo-records ") + version + "\n"));
    EXPECT_EQ(runWith({"show", "--help"}), fine(showHelpText));
}

TEST(ToolTest, RefusesWrongWords) {
    EXPECT_EQ(runWith({}), wrong("What is to be done? show, check, link or timeline."));
    EXPECT_EQ(runWith({"check"}), wrong("check needs a FILE."));
    EXPECT_EQ(runWith({"show", "--zone", "Mars/Base"}),
              wrong(R"(--zone: no time zone is named "Mars/Base".)"));
    EXPECT_EQ(runWith({"timeline", "--zone", "\x1B"}),
              wrong("--zone: that is not the name of a time zone."));
}

TEST(ToolTest, ShowsRecordsOneAfterTheOther) {
    const Outcome outcome =
        runWith({"show", keepAliveFile, widgetsFile, "--zone", "Europe/Berlin"});
    EXPECT_EQ(outcome.status, ExitStatus::fine);
    EXPECT_THAT(outcome.output, StartsWith(keepAliveFile + ": a keep-alive state of process 4711\n"
                                                           "  process             4711\n"));
    EXPECT_THAT(outcome.output,
                HasSubstr("  written             2026-11-20 10:00:00 +01:00\n\n" + widgetsFile +
                          ": a widget snapshot of 6 phases, 2 days, 1 list and 1 block\n"
                          "  written           2026-11-20 09:59:55 +01:00\n"));
}

TEST(ToolTest, ShowsWhatItCanOfSeveralFiles) {
    const Outcome outcome = runWith({"show", "/none", keepAliveFile, "--zone", "UTC"});
    EXPECT_EQ(outcome.status, ExitStatus::notFine);
    EXPECT_EQ(outcome.errors, "halvo-records: /none: No such file or directory\n");
    EXPECT_THAT(outcome.output, StartsWith(keepAliveFile + ": a keep-alive state"));
}

TEST(ToolTest, ShowsARecordAsJSON) {
    EXPECT_EQ(runWith({"show", keepAliveFile, "--json"}), fine(R"({
  "appPath": "/Applications/Halvo.app",
  "appReleased": true,
  "bypassNoted": false,
  "clean": false,
  "commitmentUntil": "2026-11-20T10:00:00Z",
  "pid": 4711,
  "ultraHard": true,
  "updatedAt": "2026-11-20T09:00:00Z"
}
)"));
    const Outcome outcome = runWith({"show", widgetsFile, "--json"});
    EXPECT_EQ(JSON::decode<WidgetSnapshot>(outcome.output), sampleSnapshot());
}

TEST(ToolTest, ShowsStandardInput) {
    EXPECT_EQ(runWith({"show", "-", "--json"}, readTestFile(widgetsFile)),
              runWith({"show", widgetsFile, "--json"}));
    EXPECT_EQ(runWith({"show", "-"}, "{").status, ExitStatus::notFine);
}

TEST(ToolTest, ShowsTheFilesOfAGroup) {
    const testing::TemporaryFolder folder;
    setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
    const Outcome none = runWith({"show", "--group", "g"});
    writeTestFile(folder / "g/keepalive.json", readTestFile(keepAliveFile));
    writeTestFile(folder / "g/widgets.json", readTestFile(widgetsFile));
    const Outcome both = runWith({"show", "--group", "g"});
    const Outcome one = runWith({"show", "--group", "g", "--kind", "keepalive", "--json"});
    const Outcome timeline = runWith({"timeline", "--group", "g", "--json"});
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(none, (Outcome{ExitStatus::notFine, "",
                             "halvo-records: " + (folder / "g/keepalive.json") +
                                 ": No such file or directory\nhalvo-records: " +
                                 (folder / "g/widgets.json") + ": No such file or directory\n"}));
    EXPECT_EQ(both.status, ExitStatus::fine);
    EXPECT_THAT(both.output, HasSubstr((folder / "g/keepalive.json") + ": a keep-alive state"));
    EXPECT_THAT(both.output, HasSubstr((folder / "g/widgets.json") + ": a widget snapshot"));
    EXPECT_EQ(one, runWith({"show", keepAliveFile, "--json"}));
    EXPECT_EQ(timeline, runWith({"timeline", widgetsFile, "--json"}));
}

TEST(ToolTest, ChecksFiles) {
    EXPECT_EQ(runWith({"check", keepAliveFile, widgetsFile}),
              fine(keepAliveFile + ": fine, a keep-alive state of process 4711\n" + widgetsFile +
                   ": fine, a widget snapshot of 6 phases, 2 days, 1 list and 1 block\n"));
}

TEST(ToolTest, SaysWhereAFileIsWrongAndChecksTheOthers) {
    const std::string damaged = R"({"pid":"x"})";
    EXPECT_EQ(runWith({"check", "/none", "-", keepAliveFile}, damaged),
              (Outcome{ExitStatus::notFine,
                       "/none: No such file or directory\n"
                       "standard input: pid: Expected a whole number of 32 bits, found \"x\"\n" +
                           keepAliveFile + ": fine, a keep-alive state of process 4711\n",
                       ""}));
}

TEST(ToolTest, RemarksOnWhatIsSuspiciousWithoutFailing) {
    WidgetSnapshot snapshot = sampleSnapshot();
    snapshot.horizon = snapshot.writtenAt - Seconds{1};
    EXPECT_EQ(
        runWith({"check", "-"}, JSON::encode(snapshot).value()),
        fine("standard input: fine, a widget snapshot of 6 phases, 2 days, 1 list and 1 block\n"
             "standard input: remark: horizon is before writtenAt\n"));
}

TEST(ToolTest, DoesNotRemarkWithoutEnd) {
    WidgetSnapshot snapshot = sampleSnapshot();
    snapshot.days.assign(23, snapshot.days.front());
    const Outcome outcome = runWith({"check", "-"}, JSON::encode(snapshot).value());
    EXPECT_THAT(outcome.output, HasSubstr("remark: days[20] has the same start as days[0]\n"
                                          "standard input: and 2 more remarks\n"));
}

TEST(ToolTest, SaysWhatLinksLeadTo) {
    EXPECT_EQ(runWith({"link", "halvo://breathe?style=box&minutes=5"}),
              fine("breathe, style box, 5 minutes\n"));
    EXPECT_EQ(runWith({"link", "halvo://today", "\x1B\xFF"}),
              fine("halvo://today: today\n\\u001b\\xff: main\n"));
    EXPECT_EQ(runWith({"link", "--json", "halvo://today", "halvo://breathe?minutes=5"}),
              fine("{\"screen\":\"today\"}\n{\"screen\":\"breathe\",\"minutes\":5}\n"));
}

TEST(ToolTest, PrintsLinks) {
    EXPECT_EQ(runWith({"link", "--to", "breathe", "--style", "box", "--minutes", "5"}),
              fine("halvo://breathe?style=box&minutes=5\n"));
    EXPECT_EQ(runWith({"link", "--to", "main", "--scheme", "x"}), fine("x://main\n"));
    EXPECT_EQ(runWith({"link", "--to", "main", "--scheme", "1x\n"}),
              wrong("'1x\\n' is no scheme of a URL."));
}

TEST(ToolTest, PrintsATimeline) {
    EXPECT_EQ(runWith({"timeline", widgetsFile, "--zone", "UTC", "--limit", "3", "--from",
                       "2026-11-20T09:09:00Z"}),
              fine(R"(DATE                        WHY     LEFT   STATE
2026-11-20 09:09:00 +00:00  start   1:30   block "Deep work"
2026-11-20 09:09:30 +00:00  minute  1:00   block "Deep work"
2026-11-20 09:10:30 +00:00  phase   49:30  focus "Deep work"
2026-11-20 09:10:30 +00:00  reload
)"));
}

TEST(ToolTest, PrintsATimelineFromTheSecondThatNowLiesIn) {
    EXPECT_EQ(runWith({"timeline", "-", "--limit", "2", "--json"}, readTestFile(widgetsFile)),
              fine(R"({
  "dates": [
    "2026-11-20T09:00:00Z",
    "2026-11-20T09:00:30Z"
  ],
  "reload": "2026-11-20T09:00:30Z"
}
)"));
}

TEST(ToolTest, PrintsATimelineOfASnapshotOnly) {
    EXPECT_EQ(runWith({"timeline", keepAliveFile}),
              (Outcome{ExitStatus::notFine, "",
                       "halvo-records: " + keepAliveFile + ": writtenAt: This is missing\n"}));
}

TEST(ToolTest, ReachesTheEndsOfTheCalendar) {
    for (const char* date : {"0000-01-01T00:00:00Z", "9999-12-31T23:59:59Z"}) {
        for (const char* zone : {"UTC", "Europe/Berlin", "Pacific/Kiritimati"}) {
            const Outcome outcome =
                runWith({"timeline", widgetsFile, "--from", date, "--zone", zone});
            EXPECT_EQ(outcome.status, ExitStatus::fine);
            EXPECT_THAT(outcome.output, HasSubstr("start"));
        }
    }
}

}  // namespace
}  // namespace halvo::records
