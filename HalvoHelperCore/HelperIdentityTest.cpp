#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

const std::string bundleID = "com.example.app";
const std::string teamID = "7QX4KD19MT";
const HelperIdentity identity{bundleID, teamID};

InfoDictionary infoWith(const std::string& app, const std::string& team) {
    return {{"HalvoAppBundleID", app}, {"HalvoTeamID", team}, {"CFBundleName", "Helper"}};
}

TEST(HelperIdentityTest, OfTheHelperNeedsBothKeysOfItsInfo) {
    EXPECT_EQ(HelperIdentity::helper(infoWith(bundleID, teamID)), identity);
    EXPECT_EQ(HelperIdentity::helper(std::nullopt), std::nullopt);
    for (const InfoDictionary& info :
         {InfoDictionary{}, InfoDictionary{{"HalvoAppBundleID", bundleID}},
          InfoDictionary{{"HalvoTeamID", teamID}},
          InfoDictionary{{"halvoAppBundleID", bundleID}, {"HalvoTeamID", teamID}}}) {
        EXPECT_EQ(HelperIdentity::helper(info), std::nullopt);
    }
}

TEST(HelperIdentityTest, OfAnAppNeedsItsOwnIdentifierAndATeam) {
    EXPECT_EQ(HelperIdentity::app(infoWith("com.example.ignored", teamID), bundleID), identity);
    EXPECT_EQ(HelperIdentity::app(InfoDictionary{{"HalvoTeamID", teamID}}, bundleID), identity);
    EXPECT_EQ(HelperIdentity::app(infoWith(bundleID, teamID), std::nullopt), std::nullopt);
    EXPECT_EQ(HelperIdentity::app(std::nullopt, bundleID), std::nullopt);
    EXPECT_EQ(HelperIdentity::app(InfoDictionary{}, bundleID), std::nullopt);
    EXPECT_EQ(HelperIdentity::app(infoWith(bundleID, teamID), ""), std::nullopt);
    EXPECT_EQ(HelperIdentity::app(infoWith(bundleID, "short"), bundleID), std::nullopt);
}

TEST(HelperIdentityTest, ChecksABundleIdentifier) {
    struct Row {
        std::string bundleID;
        bool isValid;
    };

    const std::vector<Row> rows{
        {"com.example.app", true},
        {"com.example.", true},
        {"a", true},
        {"-", true},
        {"com.Example-2.APP-09", true},
        {std::string(200, 'a'), true},
        {"", false},
        {".", false},
        {".com.example", false},
        {"com..example", false},
        {"com.example..", false},
        {"com...example", false},
        {"com.example_app", false},
        {"com.example app", false},
        {"com.example/app", false},
        {"com.example\"app", false},
        {"com.example\\app", false},
        {"com.example'app", false},
        {"com.example\napp", false},
        {"com.example\0app"s, false},
        {"com.exämple.app", false},
        {"com.example.app\xC2\xB2", false},
        {"com.example.\xEF\xBC\x91", false},
        {std::string(201, 'a'), false},
    };
    for (const Row& row : rows) {
        const auto result = HelperIdentity::helper(infoWith(row.bundleID, teamID));
        EXPECT_EQ(result.has_value(), row.isValid) << row.bundleID;
    }
}

TEST(HelperIdentityTest, ChecksEveryCharacterOfABundleIdentifier) {
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-.";
    for (int code = 0; code < 256; ++code) {
        const char character = static_cast<char>(code);
        const auto result = HelperIdentity::helper(infoWith("a"s + character, teamID));
        EXPECT_EQ(result.has_value(), allowed.find(character) != allowed.npos) << code;
    }
}

TEST(HelperIdentityTest, ChecksATeamIdentifier) {
    struct Row {
        std::string teamID;
        bool isValid;
    };

    const std::vector<Row> rows{
        {"7QX4KD19MT", true},
        {"0123456789", true},
        {"ABCDEFGHIJ", true},
        {"KLMNOPQRST", true},
        {"UVWXYZ0000", true},
        {"7qx4kd19mt", false},
        {"7QX4KD19Mt", false},
        {"7QX4KD19M", false},
        {"7QX4KD19MTA", false},
        {"", false},
        {"7QX4KD19M ", false},
        {"7QX4KD19M-", false},
        {"7QX4KD19M\"", false},
        {"7QX4KD19M\\", false},
        {"7QX4KD19M\n", false},
        {"7QX4KD19M\0"s, false},
        {"7QX4KD19\xC2\xB2", false},
        {"7QX4KD1\xEF\xBC\x91", false},  // ten bytes, the last three one digit of full width
        {"7QX4KD19M\xEF\xBC\x91", false},
    };
    for (const Row& row : rows) {
        const auto result = HelperIdentity::helper(infoWith(bundleID, row.teamID));
        EXPECT_EQ(result.has_value(), row.isValid) << row.teamID;
    }
}

TEST(HelperIdentityTest, NamesWhatFollowsFromIt) {
    EXPECT_EQ(identity.helperBundleID(), "com.example.app.helper");
    EXPECT_EQ(identity.stateFolder(), "/Library/Application Support/com.example.app.helper");
    EXPECT_EQ(identity.appRequirement(),
              R"(anchor apple generic and identifier "com.example.app" and )"
              R"(certificate leaf[subject.OU] = "7QX4KD19MT")");
    EXPECT_EQ(identity.helperRequirement(),
              R"(anchor apple generic and identifier "com.example.app.helper" and )"
              R"(certificate leaf[subject.OU] = "7QX4KD19MT")");
}

}  // namespace
}  // namespace halvo
