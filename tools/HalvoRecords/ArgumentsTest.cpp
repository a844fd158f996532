#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Support/SampleSnapshot.hpp"
#include "tools/HalvoRecords/Arguments.hpp"

namespace halvo::records {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

Command parse(const Words& words) {
    const auto command = parseArguments(words);
    EXPECT_TRUE(command.has_value()) << command.error();
    return command.value_or(Help{nullptr});
}

std::string problemWith(const Words& words) {
    const auto command = parseArguments(words);
    return command ? "none" : command.error();
}

TEST(RecordsArgumentsTest, NameACommand) {
    EXPECT_EQ(problemWith({}), "What is to be done? show, check, link or timeline.");
    EXPECT_EQ(problemWith({"\x1B[2J"}),
              "'\\u001b[2J' is no command: show, check, link or timeline.");
    EXPECT_EQ(problemWith({""}), "'' is no command: show, check, link or timeline.");
    EXPECT_EQ(problemWith({"--json", "show"}),
              "'--json' is no command: show, check, link or timeline.");
}

TEST(RecordsArgumentsTest, AskForHelp) {
    EXPECT_EQ(parse({"--version"}), Command(ShowVersion{}));
    for (const char* word : {"--help", "-h"}) {
        EXPECT_EQ(parse({word}), Command(Help{helpText}));
        EXPECT_EQ(parse({"show", word}), Command(Help{showHelpText}));
        EXPECT_EQ(parse({"check", word}), Command(Help{checkHelpText}));
        EXPECT_EQ(parse({"link", word}), Command(Help{linkHelpText}));
        EXPECT_EQ(parse({"timeline", "a", "b", word}), Command(Help{timelineHelpText}));
    }
    EXPECT_EQ(parse({"check", "--", "--help"}), Command(Check{{"--help"}, std::nullopt}));
}

TEST(RecordsArgumentsTest, AreExplained) {
    for (const char* text :
         {helpText, showHelpText, checkHelpText, linkHelpText, timelineHelpText}) {
        EXPECT_THAT(text, StartsWith("Usage: halvo-records "));
        EXPECT_THAT(text, HasSubstr("\nExamples:\n"));
        EXPECT_THAT(text, HasSubstr("\nExit status: 0"));
    }
}

TEST(RecordsArgumentsTest, ShowRecords) {
    EXPECT_EQ(parse({"show"}), Command(Show{}));
    EXPECT_EQ(parse({"show", "a", "--json", "-", "--zone", "UTC", "--kind=widgets"}),
              Command(Show{.files = {"a", "-"},
                           .kind = RecordKind::widgets,
                           .group = std::nullopt,
                           .zone = "UTC",
                           .asJSON = true}));
    EXPECT_EQ(parse({"show", "--group", "g", "--kind", "keepalive"}),
              Command(Show{.files = {},
                           .kind = RecordKind::keepAlive,
                           .group = "g",
                           .zone = std::nullopt,
                           .asJSON = false}));
}

TEST(RecordsArgumentsTest, CheckFiles) {
    EXPECT_EQ(parse({"check", "a", "b"}), Command(Check{{"a", "b"}, std::nullopt}));
    EXPECT_EQ(parse({"check", "--kind", "keepalive", "--", "-a"}),
              Command(Check{{"-a"}, RecordKind::keepAlive}));
    EXPECT_EQ(problemWith({"check"}), "check needs a FILE.");
}

TEST(RecordsArgumentsTest, AreOptionsOfTheCommandOnly) {
    EXPECT_EQ(problemWith({"check", "a", "--json"}), "'--json' is no option here.");
    EXPECT_EQ(problemWith({"show", "-x"}), "'-x' is no option here.");
    EXPECT_EQ(problemWith({"show", "--zon=\n"}), "'--zon=\\n' is no option here.");
    EXPECT_EQ(problemWith({"timeline", "--kind", "widgets"}), "'--kind' is no option here.");
}

TEST(RecordsArgumentsTest, GiveEachOptionOnceWithItsValue) {
    EXPECT_EQ(problemWith({"show", "--zone"}), "--zone needs a value.");
    EXPECT_EQ(problemWith({"show", "--json=yes"}), "--json takes no value.");
    EXPECT_EQ(problemWith({"show", "--json", "--json"}), "--json is given twice.");
    EXPECT_EQ(problemWith({"show", "--zone", "UTC", "--zone=UTC"}), "--zone is given twice.");
    EXPECT_EQ(problemWith({"show", "--kind", "other"}),
              "'other' is no kind of record: keepalive or widgets.");
    EXPECT_EQ(problemWith({"check", "a", "--kind="}),
              "'' is no kind of record: keepalive or widgets.");
}

TEST(RecordsArgumentsTest, NameStandardInputOnce) {
    for (const char* command : {"show", "check", "timeline"}) {
        EXPECT_EQ(problemWith({command, "-", "-"}), "Standard input can be read once.");
    }
}

TEST(RecordsArgumentsTest, NameEitherFilesOrAGroup) {
    EXPECT_EQ(problemWith({"show", "a", "--group", "g"}), "--group is for when no FILE is named.");
    EXPECT_EQ(problemWith({"timeline", "a", "--group", "g"}),
              "--group is for when no FILE is named.");
}

TEST(RecordsArgumentsTest, ReadLinks) {
    EXPECT_EQ(parse({"link", "halvo://today", "b"}),
              Command(ReadLinks{{"halvo://today", "b"}, false}));
    EXPECT_EQ(parse({"link", "--json", "--", "--to"}), Command(ReadLinks{{"--to"}, true}));
    EXPECT_EQ(problemWith({"link"}), "link needs a URL or --to.");
}

TEST(RecordsArgumentsTest, MakeALink) {
    EXPECT_EQ(parse({"link", "--to", "breathe"}),
              Command(MakeLink{{HalvoLink::Breathe{}}, std::nullopt}));
    EXPECT_EQ(parse({"link", "--to=breathe", "--style=", "--minutes", "-5", "--scheme", "x"}),
              Command(MakeLink{{HalvoLink::Breathe{"", -5}}, "x"}));
    EXPECT_EQ(parse({"link", "--to", "focus"}),
              Command(MakeLink{{HalvoLink::Focus{}}, std::nullopt}));
    EXPECT_EQ(parse({"link", "--to", "today"}),
              Command(MakeLink{{HalvoLink::Today{}}, std::nullopt}));
    EXPECT_EQ(parse({"link", "--to", "settings"}),
              Command(MakeLink{{HalvoLink::Settings{}}, std::nullopt}));
    EXPECT_EQ(parse({"link", "--to", "main"}),
              Command(MakeLink{{HalvoLink::Main{}}, std::nullopt}));
}

TEST(RecordsArgumentsTest, MakeNoLinkFromWhatDoesNotFit) {
    EXPECT_EQ(problemWith({"link", "--to", "Focus"}),
              "'Focus' is no screen: breathe, focus, today, settings or main.");
    EXPECT_EQ(problemWith({"link", "--to", "focus", "--minutes", "5"}),
              "Only breathe has a style and minutes.");
    EXPECT_EQ(problemWith({"link", "--to", "breathe", "--style", "\xFF"}),
              "The style is not UTF-8.");
    for (const char* word : {"", "five", "5.0", "+5", " 5", "9223372036854775808"}) {
        EXPECT_EQ(problemWith({"link", "--to", "breathe", "--minutes", word}),
                  "'" + std::string(word) + "' is no number of minutes.");
    }
    EXPECT_EQ(problemWith({"link", "--to", "focus", "halvo://today"}),
              "link takes either URLs, with or without --json, or --to.");
    EXPECT_EQ(problemWith({"link", "halvo://today", "--scheme", "x"}),
              "--style, --minutes and --scheme go with --to.");
}

TEST(RecordsArgumentsTest, ShowATimeline) {
    EXPECT_EQ(parse({"timeline"}), Command(ShowTimeline{}));
    EXPECT_EQ(parse({"timeline", "a", "--from", "2026-11-20T10:00:00+01:00", "--zone", "UTC",
                     "--span", "5m", "--limit", "10000", "--json"}),
              Command(ShowTimeline{.file = "a",
                                   .group = std::nullopt,
                                   .from = testing::nineOClock,
                                   .zone = "UTC",
                                   .span = Seconds{300},
                                   .limit = 10000,
                                   .asJSON = true}));
    EXPECT_EQ(parse({"timeline", "--from", "now"}), Command(ShowTimeline{}));
    EXPECT_EQ(problemWith({"timeline", "a", "b"}), "timeline takes one FILE; there is 'b' too.");
}

TEST(RecordsArgumentsTest, GiveSpans) {
    const auto span = [](const char* word) {
        return std::get<ShowTimeline>(parse({"timeline", "--span", word})).span;
    };
    EXPECT_EQ(span("90"), Seconds{90});
    EXPECT_EQ(span("90s"), Seconds{90});
    EXPECT_EQ(span("2h"), Seconds{7200});
    EXPECT_EQ(span("0"), Seconds{0});
    EXPECT_EQ(span("36525d"), Seconds{3155760000});
    for (const char* word :
         {"", "m", "-5", "+5", "1.5h", "5M", "5 m", "1e3", "36526d", "99999999999999999999"}) {
        EXPECT_EQ(problemWith({"timeline", "--span", word}),
                  "'" + std::string(word) +
                      "' is no span such as 90, 5m, 2h or 1d, up to a hundred years.");
    }
}

TEST(RecordsArgumentsTest, GiveDates) {
    for (const char* word :
         {"", "today", "2026-11-20", "2026-11-20T09:30:00", "1795165200", "2026-02-30T00:00:00Z"}) {
        EXPECT_EQ(
            problemWith({"timeline", "--from", word}),
            "'" + std::string(word) + "' is no date such as 2026-11-20T09:30:00Z, and not 'now'.");
    }
}

TEST(RecordsArgumentsTest, GiveLimits) {
    for (const char* word : {"", "0", "-1", "10001", "ten", "18446744073709551616"}) {
        EXPECT_EQ(problemWith({"timeline", "--limit", word}),
                  "'" + std::string(word) + "' is no number of dates from 1 to 10000.");
    }
}

}  // namespace
}  // namespace halvo::records
