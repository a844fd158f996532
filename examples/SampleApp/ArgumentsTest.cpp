#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "examples/SampleApp/Arguments.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;

std::expected<Arguments, std::string> parse(const std::vector<std::string>& words) {
    return parseArguments(words);
}

std::string problemWith(const std::vector<std::string>& words) {
    const auto arguments = parse(words);
    return arguments ? "none" : arguments.error();
}

TEST(ArgumentsTest, MayBeNone) { EXPECT_EQ(parse({}), Arguments{}); }

TEST(ArgumentsTest, AreMinutes) {
    EXPECT_EQ(parse({"25"})->commitment, Seconds{1500});
    EXPECT_EQ(parse({"0.5"})->commitment, Seconds{30});
    EXPECT_EQ(parse({"007.250"})->commitment, Seconds{435});
    EXPECT_EQ(parse({"1440"})->commitment, Seconds{86400});
}

TEST(ArgumentsTest, AreMinutesAboveNoneUpToADay) {
    for (const char* word : {"0",   "0.0",       "-1",    "+1",  "1440.01", "99999999999999999999",
                             "1e3", "0x10",      "inf",   "nan", "",        ".",
                             "5.",  ".5",        "1.2.3", "1,5", " 5",      "5 ",
                             "5m",  "--minutes", "end",   "stop"}) {
        EXPECT_THAT(
            problemWith({word}),
            AllOf(HasSubstr(word), EndsWith("is no number of minutes above 0, up to 1440.")));
    }
}

TEST(ArgumentsTest, AreMinutesOnce) {
    EXPECT_EQ(problemWith({"5", "6"}), "One number of minutes is enough: there is 6 too.");
}

TEST(ArgumentsTest, SayThatTheAppWasBroughtBack) {
    EXPECT_EQ(parse({"-halvoRelaunchedAfterQuit", "YES"}), (Arguments{std::nullopt, true, false}));
    EXPECT_EQ(parse({"-halvoRelaunchedAfterQuit", "YES", "5"}),
              (Arguments{Seconds{300}, true, false}));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"-halvoRelaunchedAfterQuit"},
          {"-halvoRelaunchedAfterQuit", "NO"},
          {"-halvoRelaunchedAfterQuit", "5"}}) {
        EXPECT_EQ(problemWith(words),
                  "-halvoRelaunchedAfterQuit is followed by YES and nothing else.");
    }
}

TEST(ArgumentsTest, AskForHelp) {
    EXPECT_TRUE(parse({"--help"})->help);
    EXPECT_TRUE(parse({"5", "-h"})->help);
    EXPECT_FALSE(parse({"5"})->help);
}

TEST(ArgumentsTest, AreExplained) {
    EXPECT_THAT(helpText, HasSubstr("Usage: Halvo"));
    EXPECT_THAT(helpText, HasSubstr("Examples:"));
    EXPECT_THAT(helpText, HasSubstr("Exit status:"));
}

}  // namespace
}  // namespace halvo::testing
