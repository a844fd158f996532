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

TEST(HelperIdentityTest, ChecksLengthAndDotsOfBothValues) {
    struct Row {
        std::string bundleID;
        std::string teamID;
        bool isValid;
    };

    const std::vector<Row> rows{
        {"com.Example-2.APP-09", teamID, true},
        {"com.example.", teamID, true},
        {"a", teamID, true},
        {"-", teamID, true},
        {std::string(200, 'a'), teamID, true},
        {std::string(201, 'a'), teamID, false},
        {"", teamID, false},
        {".", teamID, false},
        {".com.example", teamID, false},
        {"com..example", teamID, false},
        {"com.example..", teamID, false},
        {"com...example", teamID, false},
        {bundleID, "7QX4KD19M", false},
        {bundleID, "7QX4KD19MTA", false},
        {bundleID, "", false},
        {bundleID, "7QX4KD1\xEF\xBC\x91", false},  // ten bytes
    };
    for (const Row& row : rows) {
        const auto result = HelperIdentity::helper(infoWith(row.bundleID, row.teamID));
        EXPECT_EQ(result.has_value(), row.isValid) << row.bundleID << " " << row.teamID;
    }
}

TEST(HelperIdentityTest, ChecksEveryCharacterOfBothValues) {
    const std::string ofTeams = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    const std::string ofBundles = ofTeams + "abcdefghijklmnopqrstuvwxyz-.";
    for (int code = 0; code < 256; ++code) {
        const char character = static_cast<char>(code);
        const auto byBundle = HelperIdentity::helper(infoWith("a"s + character, teamID));
        const auto byTeam = HelperIdentity::helper(infoWith(bundleID, "7QX4KD19M"s + character));
        EXPECT_EQ(byBundle.has_value(), ofBundles.contains(character)) << code;
        EXPECT_EQ(byTeam.has_value(), ofTeams.contains(character)) << code;
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
