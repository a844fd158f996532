#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/Halvoctl/Arguments.hpp"

namespace halvo::control {
namespace {

using Words = std::vector<std::string>;

std::expected<Command, std::string> parse(const Words& words) { return parseArguments(words); }

TEST(ArgumentsTest, AreTheCommands) {
    EXPECT_EQ(parse({"status"}), Command(ShowStatus{}));
    EXPECT_EQ(parse({"status", "--json"}), Command(ShowStatus{true}));
    EXPECT_EQ(parse({"doctor"}), Command(Examine{}));
    EXPECT_EQ(parse({"doctor", "--app", "/A/B.app", "--json"}), Command(Examine{true, "/A/B.app"}));
    EXPECT_EQ(parse({"release"}), Command(Release{}));
    EXPECT_EQ(parse({"release", "--bundle-gone"}), Command(Release{.isBundleGone = true}));
    EXPECT_EQ(parse({"release", "--and-stop"}), Command(Release{.staysStopped = true}));
}

TEST(ArgumentsTest, AskForHelp) {
    EXPECT_EQ(parse({"--help"}), Command(ShowHelp{helpText}));
    EXPECT_EQ(parse({"-h"}), Command(ShowHelp{helpText}));
    EXPECT_EQ(parse({"--version"}), Command(ShowVersion{}));
    EXPECT_EQ(parse({"status", "--help"}), Command(ShowHelp{statusHelpText}));
    EXPECT_EQ(parse({"doctor", "--json", "-h"}), Command(ShowHelp{doctorHelpText}));
    EXPECT_EQ(parse({"release", "--help"}), Command(ShowHelp{releaseHelpText}));
}

TEST(ArgumentsTest, AreRefusedWithWhatIsWrong) {
    const auto wrong = [](const Words& words) { return parse(words).error(); };
    EXPECT_EQ(wrong({}), "What is to be done? status, doctor or release.");
    EXPECT_EQ(wrong({"relase"}),
              "There is no command 'relase'; there are status, doctor and release.");
    EXPECT_EQ(wrong({"\x1B[2J"}),
              "There is no command '\\u001b[2J'; there are status, doctor and release.");
    EXPECT_EQ(wrong({"release", "--json"}), "release knows no word '--json'.");
    EXPECT_EQ(wrong({"release", "now"}), "release knows no word 'now'.");
    EXPECT_EQ(wrong({"status", "--and-stop"}), "status knows no word '--and-stop'.");
    EXPECT_EQ(wrong({"doctor", "--bundle-gone"}), "doctor knows no word '--bundle-gone'.");
    EXPECT_EQ(wrong({"status", "--app", "/A/B.app"}), "status knows no word '--app'.");
    EXPECT_EQ(wrong({"doctor", "--app"}), "--app needs the PATH of a bundle.");
    EXPECT_EQ(
        wrong({"doctor", "--app", "B.app"}),
        "--app needs the absolute path of a bundle, as /Applications/Halvo.app, not 'B.app'.");
}

}  // namespace
}  // namespace halvo::control
