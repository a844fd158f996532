#include <gtest/gtest.h>

#include <string>

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
    for (const std::string& good :
         {"com.Example-2.APP-09"s, "com.example."s, "a"s, "-"s, std::string(200, 'a')}) {
        EXPECT_TRUE(HelperIdentity::helper(infoWith(good, teamID))) << good;
    }
    for (const std::string& bad : {""s, "."s, ".com.example"s, "com..example"s, "com.example.."s,
                                   "com...example"s, std::string(201, 'a')}) {
        EXPECT_FALSE(HelperIdentity::helper(infoWith(bad, teamID))) << bad;
    }
    // The last has ten bytes.
    for (const char* bad : {"7QX4KD19M", "7QX4KD19MTA", "", "7QX4KD1\xEF\xBC\x91"}) {
        EXPECT_FALSE(HelperIdentity::helper(infoWith(bundleID, bad))) << bad;
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
