#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/HalvoRecords/Tool.hpp"

namespace halvo::tools {

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "status " << outcome.status << ", output:\n"
            << outcome.output << "errors:\n"
            << outcome.errors;
}

}  // namespace halvo::tools

namespace halvo::records {
namespace {

namespace ExitStatus = tools::ExitStatus;

using testing::ChildResult;
using ::testing::HasSubstr;
using testing::nineOClock;
using testing::readTestFile;
using testing::sampleRun;
using testing::sampleSnapshot;
using ::testing::StartsWith;
using testing::writeTestFile;
using tools::Outcome;
using S = WidgetSnapshot;
using Words = std::vector<std::string>;
using namespace std::string_literals;

const std::string keepAliveFile = HALVO_GOLDEN "/keepalive.json";
const std::string widgetsFile = HALVO_GOLDEN "/widgets.json";
const std::string widgetsAreFine =
    ": fine, a widget snapshot of 6 phases, 2 days, 1 list "
    "and 1 block\n";

Outcome runWith(const Words& words, const std::string& input = "") {
    std::istringstream stream(input);
    return run(words, stream, nineOClock + Seconds{0.75});
}

Outcome fine(const std::string& output) { return {ExitStatus::fine, output, ""}; }

Outcome usageError(const std::string& problem) {
    return {ExitStatus::usage, "", "halvo-records: " + problem + ". See halvo-records --help.\n"};
}

// What the timeline command prints as JSON without its blanks.
std::string datesOf(Words words) {
    words.insert(words.begin(), {"timeline", widgetsFile, "--zone", "UTC", "--json"});
    std::string text = runWith(words).output;
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
    return text;
}

TEST(ToolTest, Helps) {
    EXPECT_EQ(runWith({"--version"}), fine(std::string("halvo-records ") + version + "\n"));
    for (const Words& words : {Words{}, {"show"}, {"check"}, {"link"}, {"timeline", "a", "b"}}) {
        for (const char* option : {"--help", "-h"}) {
            Words asking = words;
            asking.emplace_back(option);
            const Outcome outcome = runWith(asking);
            EXPECT_EQ(outcome.status, ExitStatus::fine);
            EXPECT_EQ(outcome.errors, "");
            EXPECT_THAT(outcome.output,
                        HasSubstr("\nUsage: halvo-records " +
                                  (words.empty() ? "[OPTIONS]" : words.front() + " [OPTIONS]")));
            EXPECT_THAT(outcome.output, HasSubstr("\nExamples:\n"));
            EXPECT_THAT(outcome.output, HasSubstr("\nExit status: 0"));
        }
    }
}

TEST(ToolTest, SaysWhatIsWrongWithTheWords) {
    const std::string outOfRange = " not in range 1 to 10000";
    const std::string noMinutes = "--minutes: Expected a whole number, found ";
    const auto unknown = [](const std::string& word) {
        return "Unknown command or option '" + word + "'";
    };
    const std::vector<std::pair<Words, std::string>> rows{
        {{}, "A subcommand is required"},
        {{"\x1B[2J"}, unknown("\\u001b[2J")},
        {{""}, unknown("")},
        {{"--json", "show"}, unknown("--json")},
        {{"show", "--zon=\n"}, unknown("--zon=\\n")},
        {{"show", "--zone"}, "--zone: 1 required ZONE missing"},
        {{"show", "--json=yes"}, "json was given a disallowed flag override"},
        {{"show", "--group", "a", "--group=b"}, "--group: At Most 1 required but received 2"},
        {{"show", "--kind", "a"}, "--kind: a not in {keepalive,widgets}"},
        {{"show", "--zone", "Mars/Base"}, R"(--zone: no time zone is named "Mars/Base")"},
        {{"timeline", "--zone", "\x1B"}, "--zone: that is not the name of a time zone"},
        {{"show", "-", "-"}, "Standard input can be read once"},
        {{"show", "a", "--group", "g"}, "--group excludes FILE"},
        {{"check"}, "FILE is required"},
        {{"timeline", "a", "b"}, "The following argument was not expected: b"},
        {{"link"}, "URL or --to is required"},
        {{"link", "--to", "Focus"}, "--to: Focus not in {breathe,focus,today,settings,main}"},
        {{"link", "--to", "focus", "--minutes", "5"}, "Only breathe has a style and minutes"},
        {{"link", "--to", "breathe", "--style", "\xFF"}, "--style: This is not UTF-8"},
        {{"link", "--to", "focus", "a"}, "--to excludes URL"},
        {{"link", "--to", "focus", "--json"}, "--to excludes --json"},
        {{"link", "a", "--scheme", "x"}, "--scheme requires --to"},
        {{"link", "a", "--style", "x"}, "--style requires --to"},
        {{"link", "a", "--minutes", "1"}, "--minutes requires --to"},
        {{"link", "--to", "main", "--scheme", "1x\n"}, "'1x\\n' is no scheme of a URL"},
        {{"link", "--to", "breathe", "--minutes", "5.0"}, noMinutes + "'5.0'"},
        {{"link", "--to", "breathe", "--minutes", "+5"}, noMinutes + "'+5'"},
        {{"link", "--to", "breathe", "--minutes", "9223372036854775808"},
         noMinutes + "'9223372036854775808'"},
        {{"timeline", "--from", "2026-11-20"},
         "--from: Expected a date such as 2026-11-20T09:30:00Z, or now, found '2026-11-20'"},
        {{"timeline", "--limit", "0"}, "--limit: Value 0" + outOfRange},
        {{"timeline", "--limit", "10001"}, "--limit: Value 10001" + outOfRange},
        {{"timeline", "--limit", "18446744073709551617"},
         "--limit: Value 18446744073709551617" + outOfRange},
        {{"timeline", "--span", "1.5h"}, "--span: Value 1.5 could not be converted to INT"},
        {{"timeline", "--span", "5M"}, "--span: M unit not recognized. Allowed values: {d,h,m,s}"},
        {{"timeline", "--span", "36526d"}, "--span: Value 3155846400 not in range 0 to 3155760000"},
    };
    for (const auto& [words, problem] : rows) {
        EXPECT_EQ(runWith(words), usageError(problem));
    }
    EXPECT_EQ(runWith({"timeline", "--span", "99999999999999d"}).status, ExitStatus::usage);
}

TEST(ToolTest, EndsTheOptionsAtTwoHyphens) {
    const Outcome outcome = runWith({"check", "a", "--kind", "widgets", "--", "-b", "--help"});
    EXPECT_EQ(outcome.status, ExitStatus::problem);
    EXPECT_EQ(outcome.output,
              "a: No such file or directory\n-b: No such file or directory\n"
              "--help: No such file or directory\n");
}

TEST(ToolTest, ShowsWhatItCanOfSeveralFiles) {
    const Outcome outcome =
        runWith({"show", "/widgets.json", keepAliveFile, widgetsFile, "--zone", "Europe/Berlin"});
    EXPECT_EQ(outcome.status, ExitStatus::problem);
    EXPECT_EQ(outcome.errors, "halvo-records: /widgets.json: No such file or directory\n");
    EXPECT_THAT(outcome.output, StartsWith(keepAliveFile + ": a keep-alive state of process 4711\n"
                                                           "{\n  \"appPath\": "));
    EXPECT_THAT(
        outcome.output,
        HasSubstr("  \"updatedAt\": \"2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)\"\n}\n\n" +
                  widgetsFile + ": a widget snapshot of 6 phases, 2 days, 1 list and 1 block\n{"));
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
    EXPECT_EQ(runWith({"show", "-", "--json", "--kind=widgets"}, readTestFile(widgetsFile)),
              runWith({"show", widgetsFile, "--json"}));
}

TEST(ToolTest, ShowsLocalTimesBesideDates) {
    const Words words{"show", "--kind", "keepalive", "--zone", "Europe/Berlin", "-"};
    const std::string json =
        R"({"pid":4711,"appPath":"\u001b]0;x\u0007\u009b\r","clean":false,"ultraHard":false,)"
        R"("commitmentUntil":"2026-11-20T10:00:00Z","updatedAt":"2026-11-20T10:00:00+01:00"})";
    EXPECT_EQ(runWith(words, json), fine(R"J(standard input: a keep-alive state of process 4711
{
  "appPath": "\u001b]0;x\u0007\u009b\r",
  "appReleased": false,
  "bypassNoted": false,
  "clean": false,
  "commitmentUntil": "2026-11-20T10:00:00Z (2026-11-20 11:00:00 +01:00)",
  "pid": 4711,
  "ultraHard": false,
  "updatedAt": "2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)"
}
)J")) << "and no control character comes through";
    std::string text = runWith({"show", widgetsFile, "--zone", "Europe/Berlin"}).output;
    text.erase(0, text.find('\n') + 1);
    const std::string local = " (2026-11-20 10:10:30 +01:00)";
    EXPECT_THAT(text, HasSubstr("\"end\": \"2026-11-20T09:10:30Z" + local + "\""));
    for (std::size_t at = text.find("Z ("); at != std::string::npos; at = text.find("Z (")) {
        text.erase(at + 1, local.size());
    }
    EXPECT_EQ(fine(text), runWith({"show", widgetsFile, "--json"}));
    EXPECT_EQ(JSON::decode<WidgetSnapshot>(text), sampleSnapshot());
}

TEST(ToolTest, ShowsTheFilesOfAGroupAndMakesNone) {
    const testing::TemporaryFolder folder;
    setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
    const std::string missing = ": No such file or directory\n";
    const std::string prefix = "halvo-records: " + folder.path();
    EXPECT_EQ(
        runWith({"show", "--group", "g"}),
        (Outcome{ExitStatus::problem, "",
                 prefix + "/g/keepalive.json" + missing + prefix + "/g/widgets.json" + missing}));
    EXPECT_EQ(runWith({"timeline"}),
              (Outcome{ExitStatus::problem, "", prefix + "/Halvo-NoGroup/widgets.json" + missing}));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    std::filesystem::create_directory(folder / "g");
    writeTestFile(folder / "g/keepalive.json", readTestFile(keepAliveFile));
    writeTestFile(folder / "g/widgets.json", readTestFile(widgetsFile));
    const Outcome both = runWith({"show", "--group", "g"});
    EXPECT_EQ(both.status, ExitStatus::fine);
    EXPECT_THAT(both.output, HasSubstr((folder / "g/keepalive.json") + ": a keep-alive state"));
    EXPECT_THAT(both.output, HasSubstr((folder / "g/widgets.json") + ": a widget snapshot"));
    EXPECT_EQ(runWith({"show", "--group", "g", "--kind", "keepalive", "--json"}),
              runWith({"show", keepAliveFile, "--json"}));
    EXPECT_EQ(runWith({"timeline", "--group", "g", "--json"}),
              runWith({"timeline", widgetsFile, "--json"}));
    unsetenv("XDG_DATA_HOME");
}

// What `check` says of `file`, or of standard input, without the end of the line.
std::string checked(const std::string& file, const std::string& kind,
                    const std::string& input = "") {
    Words words{"check", file};
    if (!kind.empty()) {
        words.insert(words.end(), {"--kind", kind});
    }
    std::string output = runWith(words, input).output;
    return output.substr(0, output.find('\n'));
}

TEST(ToolTest, ReadsARecordAsTheNameOfItsFileOrThePersonSays) {
    const testing::TemporaryFolder folder;
    const std::string keepAlive = readTestFile(keepAliveFile);
    const std::string widgets = readTestFile(widgetsFile);
    const std::string state = "fine, a keep-alive state of process 4711";
    const std::string snapshot = "fine, a widget snapshot of 6 phases, 2 days, 1 list and 1 block";
    const std::string unknownName = "The name does not tell which record this is; --kind does";

    const struct {
        std::string name;
        std::string kind;
        std::string bytes;
        std::string said;
    } rows[] = {
        {"widgets.json", "", widgets, snapshot},
        {"keepalive.json", "", keepAlive, state},
        {"backup", "widgets", widgets, snapshot},
        {"widgets.json", "keepalive", keepAlive, state},
        {"keepalive.json", "", widgets, "pid: This is missing"},
        {"widgets.json", "keepalive", widgets, "pid: This is missing"},
        {"widgets.json", "", "{}", "writtenAt: This is missing"},
        {"widgets.json", "", JSON::encode(WidgetSnapshot()).value(),
         "fine, a widget snapshot of 0 phases, 0 days, 0 lists and 0 blocks"},
        {"keepalive.json", "keepalive", "{\"pid\":\"\xC2\x9B\"}",
         R"(pid: Expected a whole number of 32 bits, found "\u009b")"},
        {"backup", "", widgets, unknownName},
        {"my-widgets.json", "", widgets, unknownName},
    };

    for (const auto& [name, kind, bytes, said] : rows) {
        const std::string file = folder / name;
        writeTestFile(file, bytes);
        EXPECT_EQ(checked(file, kind), file + ": " + said);
        EXPECT_EQ(checked("-", kind, bytes),
                  "standard input: " + (kind.empty() ? unknownName : said));
    }
}

TEST(ToolTest, SaysWhyAFileIsNoRecord) {
    const testing::TemporaryFolder folder;
    const std::string file = folder / "widgets.json";
    EXPECT_EQ(checked(file, ""), file + ": No such file or directory");
    EXPECT_EQ(checked(folder.path(), "widgets"), folder.path() + ": Invalid argument");
    EXPECT_EQ(checked("no\x1B[2J\xFF", "widgets"), "no\\u001b[2J\\xff: No such file or directory");
    std::string bytes = readTestFile(widgetsFile);
    bytes.resize(shared_file::sizeLimit, ' ');
    EXPECT_THAT(checked("-", "widgets", bytes), StartsWith("standard input: fine, "));
    EXPECT_EQ(checked("-", "widgets", bytes + ' '),
              "standard input: This is longer than any record");
}

// What `check` prints of `snapshot` after the line that sums it up.
std::string remarksOn(const S& snapshot) {
    const Outcome outcome =
        runWith({"check", "-", "--kind", "widgets"}, JSON::encode(snapshot).value());
    EXPECT_EQ(outcome.status, ExitStatus::fine);
    return outcome.output.substr(outcome.output.find('\n') + 1);
}

TEST(ToolTest, RemarksOnWhatIsSuspiciousWithoutFailing) {
    const std::string remark = "standard input: remark: ";
    const std::string isOver = remark + "phases[0] shows what ended before it starts\n";
    const WallDate early = nineOClock - Seconds{1};
    const S::Running over = sampleRun(early);
    const S::Upcoming missed{"", std::nullopt, early, early, S::Level::firm};

    const std::pair<std::vector<S::Phase>, std::string> rows[] = {
        {{}, ""},
        {sampleSnapshot().phases, ""},
        {{{nineOClock, S::NoBlocks{}}, {early, S::NoBlocks{}}, {early, S::NothingScheduled{}}},
         remark + "phases[1] starts before phases[0]\n" + remark +
             "phases[2] starts together with phases[1]\n"},
        {{{nineOClock, S::Block{over}}}, isOver},
        {{{nineOClock, S::Focus{over}}}, isOver},
        {{{nineOClock, S::FocusFilter{over}}}, isOver},
        {{{nineOClock, S::Next{missed}}}, isOver},
        {{{nineOClock, S::Block{sampleRun(nineOClock)}}}, ""}};
    S snapshot = sampleSnapshot();
    for (const auto& [phases, remarks] : rows) {
        snapshot.phases = phases;
        EXPECT_EQ(remarksOn(snapshot), remarks);
    }
    snapshot.horizon = snapshot.writtenAt;
    EXPECT_EQ(remarksOn(snapshot), "");
    snapshot.horizon = snapshot.writtenAt - Seconds{1};
    std::string all = remark + "horizon is before writtenAt\n";
    for (int i = 1; i < 20; ++i) {
        all += remark + "days[" + std::to_string(i) + "] has the same start as days[0]\n";
    }
    for (const auto& [days, rest] : {std::pair{20, ""s},
                                     {21, "standard input: and 1 more remark\n"},
                                     {22, "standard input: and 2 more remarks\n"}}) {
        snapshot.days.assign(static_cast<std::size_t>(days), sampleSnapshot().days.front());
        EXPECT_EQ(remarksOn(snapshot), all + rest);
    }
}

TEST(ToolTest, SaysWhereAFileIsWrongAndChecksTheOthers) {
    EXPECT_EQ(runWith({"check", "-", "--kind", "keepalive", keepAliveFile}, "{}"),
              (Outcome{ExitStatus::problem,
                       "standard input: pid: This is missing\n" + keepAliveFile +
                           ": fine, a keep-alive state of process 4711\n",
                       ""}));
}

TEST(ToolTest, SaysWhatLinksLeadTo) {
    const std::vector<std::array<std::string, 3>> rows{
        {"halvo://breathe?style=box&minutes=5", R"(breathe, style "box", 5 minutes)",
         R"({"screen":"breathe","style":"box","minutes":5})"},
        {"halvo://breathe?minutes=1", "breathe, 1 minute", R"({"screen":"breathe","minutes":1})"},
        {"halvo://breathe?minutes=-9223372036854775808", "breathe, -9223372036854775808 minutes",
         R"({"screen":"breathe","minutes":-9223372036854775808})"},
        {"halvo://breathe?style=%1B%C2%9B%0A%22", R"(breathe, style "\u001b\u009b\n\"")",
         R"({"screen":"breathe","style":"\u001b\u009b\n\""})"},
        {"halvo://breathe", "breathe", R"({"screen":"breathe"})"},
        {"halvo://focus", "focus", R"({"screen":"focus"})"},
        {"nowhere", "main", R"({"screen":"main"})"}};
    for (const auto& [url, text, json] : rows) {
        EXPECT_EQ(runWith({"link", url}), fine(text + "\n"));
        EXPECT_EQ(runWith({"link", "--json", url}), fine(json + "\n"));
    }
    EXPECT_EQ(runWith({"link", "halvo://today", "--", "\x1B\xFF"}),
              fine("halvo://today: today\n\\u001b\\xff: main\n"));
    EXPECT_EQ(runWith({"link", "--json", "halvo://today", "halvo://main"}),
              fine("{\"screen\":\"today\"}\n{\"screen\":\"main\"}\n"));
}

TEST(ToolTest, PrintsLinks) {
    const std::vector<std::pair<Words, std::string>> rows{
        {{"--to", "breathe"}, "halvo://breathe"},
        {{"--to=breathe", "--style", "box", "--minutes", "5"},
         "halvo://breathe?style=box&minutes=5"},
        {{"--to=breathe", "--style=", "--minutes", "-5", "--scheme", "x"},
         "x://breathe?style=&minutes=-5"},
        {{"--to", "main"}, "halvo://main"}};
    for (const auto& [words, url] : rows) {
        Words all{"link"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(runWith(all), fine(url + "\n"));
    }
}

// What the timeline command prints for `snapshot`, in UTC unless told otherwise.
std::string timelineOf(const S& snapshot, const Words& options) {
    Words words{"timeline", "-"};
    words.insert(words.end(), options.begin(), options.end());
    if (std::ranges::count(options, "--zone") == 0) {
        words.insert(words.end(), {"--zone", "UTC"});
    }
    return runWith(words, JSON::encode(snapshot).value()).output;
}

TEST(ToolTest, SaysWhyEachDateIsInATimeline) {
    constexpr Seconds minute{60};
    const WallDate midnight = nineOClock + minute * 15 * 60;

    const struct {
        std::vector<S::Phase> phases;
        Words options;
        std::string reasons;
    } rows[] = {{sampleSnapshot().phases,
                 {"--from", "2026-11-20T10:00:00Z", "--span", "0", "--zone", "Asia/Tokyo"},
                 "WHY|start, phase|phase|midnight|phase|phase|reload|"},
                {{{midnight - minute * 2, S::Block{sampleRun(midnight + minute)}},
                  {midnight + minute, S::NothingScheduled{}}},
                 {"--from", "2026-11-20T23:58:00Z"},
                 "WHY|start, phase|minute|midnight, minute|phase|reload|"},
                // No minutes past the span.
                {{{nineOClock, S::Block{sampleRun(midnight + minute)}}},
                 {"--span", "1m"},
                 "WHY|start, phase|minute|midnight|reload|"},
                // A minute of a phase that another one overlaps.
                {{{nineOClock, S::Block{sampleRun(nineOClock + minute * 3)}},
                  {nineOClock + minute * 2, S::NothingScheduled{}},
                  {nineOClock - minute, S::NoBlocks{}}},
                 {},
                 "WHY|start, phase|minute|phase|midnight|reload|"}};

    for (const auto& row : rows) {
        S snapshot = sampleSnapshot();
        snapshot.phases = row.phases;
        std::istringstream lines(timelineOf(snapshot, row.options));
        std::string reasons;
        for (std::string line; std::getline(lines, line);) {
            // The second column: after the date, which is of 26 characters but in the heading.
            const std::string why = line.substr(28);
            reasons += why.substr(0, why.find("  ")) + "|";
        }
        EXPECT_EQ(reasons, row.reasons);
    }
}

TEST(ToolTest, PrintsATimelineFromTheSecondThatNowLiesIn) {
    const Words options{"--from",       "2026-11-20T10:09:00+01:00", "--span", "2m", "--zone",
                        "Europe/Berlin"};
    EXPECT_EQ(timelineOf(sampleSnapshot(), options),
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
    const std::string dates =
        R"({"dates":["2026-11-20T09:00:00Z","2026-11-20T09:00:30Z"],"reload":"2026-11-20T09:00:30Z"})";
    EXPECT_EQ(datesOf({"--limit", "2"}), dates);
    EXPECT_EQ(datesOf({"--limit", "2", "--from", "now"}), dates);
    for (const auto& [span, same] : std::vector<std::pair<std::string, std::string>>{
             {"300s", "300"}, {"5m", "300"}, {"1h", "3600"}, {"1d", "86400"}}) {
        EXPECT_EQ(datesOf({"--span", span}), datesOf({"--span", same})) << span;
    }
    EXPECT_LT(datesOf({"--span", "5m"}).size(), datesOf({}).size());
    EXPECT_EQ(timelineOf({}, {"--from", "9999-12-31T23:59:59Z", "--json"}),
              "{\n  \"dates\": [\n    \"9999-12-31T23:59:59Z\"\n  ],\n  \"reload\": null\n}\n")
        << "the records have no text for a later date";
    EXPECT_EQ(runWith({"timeline", keepAliveFile}),
              (Outcome{ExitStatus::problem, "",
                       "halvo-records: " + keepAliveFile + ": writtenAt: This is missing\n"}));
}

// The program as it is built, run with `words` in a process that `prepare` has readied.
ChildResult runProgram(Words words, const std::function<void()>& prepare = {}) {
    words.insert(words.begin(), HALVO_RECORDS);
    return testing::runInChild({.words = words, .prepare = prepare});
}

void open(int descriptor, const char* path, int flags) {
    dup2(::open(path, flags | O_CLOEXEC), descriptor);
}

TEST(ProgramTest, ReadsItsWordsAndStandardInput) {
    const ChildResult result = runProgram({"check", "--kind=widgets", "-", widgetsFile}, [] {
        open(STDIN_FILENO, widgetsFile.c_str(), O_RDONLY);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "standard input" + widgetsAreFine + widgetsFile + widgetsAreFine);
}

TEST(ProgramTest, EndsWithItsExitStatus) {
    const ChildResult missing = runProgram({"show", "/widgets.json"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, "halvo-records: /widgets.json: No such file or directory\n");
    const Words checkInput{"check", "-", "--kind", "widgets"};
    const ChildResult folder = runProgram(checkInput, [] { open(STDIN_FILENO, "/", O_RDONLY); });
    EXPECT_EQ(folder.status, 1);
    EXPECT_EQ(folder.output, "standard input: This cannot be read\n");
    EXPECT_EQ(runProgram(checkInput, [] { close(STDIN_FILENO); }).status, 1);
    EXPECT_EQ(runProgram({}).status, 64);
}

TEST(ProgramTest, EndsWithSeventyFourWhenTheOutputIsLost) {
    const std::vector<std::function<void()>> losses{
        [] { open(STDOUT_FILENO, "/dev/full", O_WRONLY); }, [] { close(STDOUT_FILENO); },
        [] {
            std::array<int, 2> ends{};
            ASSERT_EQ(pipe(ends.data()), 0);
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            // As a shell leaves it.
            std::signal(SIGPIPE, SIG_DFL);
        }};
    for (const auto& lose : losses) {
        const ChildResult result = runProgram({"--help"}, lose);
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.status, 74);
        EXPECT_EQ(result.output, "halvo-records: The output could not be written.\n");
    }
}

}  // namespace
}  // namespace halvo::records
