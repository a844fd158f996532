#include <gtest/gtest.h>

#include <limits>

#include "tools/HalvoRecords/LinkText.hpp"

namespace halvo::records {
namespace {

HalvoLink breathe(std::optional<std::string> style, std::optional<std::int64_t> minutes) {
    return {HalvoLink::Breathe{std::move(style), minutes}};
}

TEST(LinkTextTest, NamesTheScreen) {
    EXPECT_EQ(description({HalvoLink::Focus{}}), "focus");
    EXPECT_EQ(description({HalvoLink::Today{}}), "today");
    EXPECT_EQ(description({HalvoLink::Settings{}}), "settings");
    EXPECT_EQ(description({HalvoLink::Main{}}), "main");
    EXPECT_EQ(asJSON({HalvoLink::Today{}}), R"({"screen":"today"})");
}

TEST(LinkTextTest, SaysWhatABreathingExerciseIsGiven) {
    EXPECT_EQ(description(breathe("box", 5)), "breathe, style box, 5 minutes");
    EXPECT_EQ(description(breathe(std::nullopt, 1)), "breathe, 1 minute");
    EXPECT_EQ(description(breathe(std::nullopt, std::nullopt)), "breathe");
    EXPECT_EQ(asJSON(breathe("box", 5)), R"({"screen":"breathe","style":"box","minutes":5})");
    EXPECT_EQ(asJSON(breathe(std::nullopt, std::numeric_limits<std::int64_t>::min())),
              R"({"screen":"breathe","minutes":-9223372036854775808})");
}

TEST(LinkTextTest, QuotesAStyleThatIsNoPlainWord) {
    EXPECT_EQ(description(breathe("", 5)), R"(breathe, style "", 5 minutes)");
    EXPECT_EQ(description(breathe("a, 5 minutes", std::nullopt)),
              R"(breathe, style "a, 5 minutes")");
}

TEST(LinkTextTest, EscapesWhatATerminalObeys) {
    EXPECT_EQ(description(breathe("\x1B[2J\n", std::nullopt)), R"(breathe, style "\u001b[2J\n")");
    EXPECT_EQ(asJSON(breathe("\x1B\xC2\x9B\n\"", std::nullopt)),
              R"({"screen":"breathe","style":"\u001b\u009b\n\""})");
}

}  // namespace
}  // namespace halvo::records
