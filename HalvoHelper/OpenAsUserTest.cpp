#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"

namespace halvo::OpenAsUser {

void PrintTo(const Request& request, std::ostream* stream) {
    *stream << request.uid << " " << request.appPath << (request.afterQuit ? " after quit" : "")
            << (request.directly ? " directly" : "");
}

namespace {

using ::testing::ElementsAre;

using Words = std::vector<std::string>;

const std::string app = "/Applications/Halvo.app";
const User ann{501, 20, "ann", "/Users/ann"};

// What no path is likely to hold, and every path may.
const std::string oddApp = "/Appli cations/$HOME \"quoted\" 'single' %i \\n \xC3\xA9 * ; & |.app";

TEST(OpenAsUserWordsTest, AskForAnOpeningAndAreUnderstoodAgain) {
    const std::pair<Request, Words> rows[] = {
        {{501, app, false}, {"501", app}},
        {{1, oddApp, true}, {"1", oddApp, "--after-quit"}},
        {{501, app, true, true}, {"501", app, "--after-quit", "--directly"}},
        {{501, app, false, true}, {"501", app, "--directly"}},
        {{4294967295, "/x.app", false}, {"4294967295", "/x.app"}},
    };
    for (const auto& [request, words] : rows) {
        const Words all = withWords({"first"}, request);
        ASSERT_EQ(all.size(), words.size() + 2);
        EXPECT_THAT(Words(all.begin(), all.begin() + 2), ElementsAre("first", "--open-as-user"));
        EXPECT_EQ(Words(all.begin() + 2, all.end()), words);
        EXPECT_EQ(parse(words), request);
    }
}

// The mode itself also refuses root.
TEST(OpenAsUserIDTest, IsReadAsADecimalNumberOf32Bits) {
    const std::pair<std::string, std::uint32_t> numbers[] = {
        {"0", 0},
        {"00", 0},
        {"+0", 0},
        {"1", 1},
        {"+5", 5},
        {"005", 5},
        {"+0501", 501},
        {"65534", 65534},
        {"2147483648", 2147483648},
        {"+4294967295", 4294967295},
        {"00000000004294967295", 4294967295},
    };
    for (const auto& [word, uid] : numbers) {
        EXPECT_EQ(parseUserID(word), uid) << word;
        EXPECT_EQ(parse(Words{word, app}),
                  uid == 0 ? std::nullopt : std::optional(Request{uid, app, false}));
    }
    for (const char* word :
         {"4294967296", "18446744073709551616", "18446744073709551617", "", "+", "++5", "5+", "-",
          "-1", "-0", "+-1", "-+1", " 5", "5 ", "+ 5", "5\n", "\t5", "5 0", "0x5", "5a", "a", "1e3",
          "5.0", "1,000", "1_000",
          // Digits, but not ours: Arabic-Indic, full-width, Roman.
          "\xD9\xA3", "\xEF\xBC\x95", "\xE2\x85\xA7", "5\xD9\xA3", "ann", "--after-quit"}) {
        EXPECT_EQ(parseUserID(word), std::nullopt) << word;
        EXPECT_EQ(parse(Words{word, app}), std::nullopt) << word;
    }
    EXPECT_EQ(parseUserID(std::string("5\0", 2)), std::nullopt);
}

TEST(OpenAsUserRequestTest, MayBeFollowedByAnyWords) {
    const std::pair<Words, Request> rows[] = {
        {{"x", "--after-quit"}, {501, app, true}},
        {{"--after-quit", "--after-quit", "x"}, {501, app, true}},
        {{"--directly", "x", "--after-quit"}, {501, app, true, true}},
        {{"directly", "", "after-quit", "--after-quit=", "--AFTER-QUIT"}, {501, app, false}},
    };
    for (const auto& [more, request] : rows) {
        Words words{"501", app};
        words.insert(words.end(), more.begin(), more.end());
        EXPECT_EQ(parse(words), request);
    }
    EXPECT_EQ(parse(Words{"501", "/.app"}), (Request{501, "/.app", false}));
}

TEST(OpenAsUserRequestTest, IsNoneOfTheWrongWords) {
    std::vector<Words> rows{
        // Too few, and in another order.
        {}, {"501"}, {app}, {"--after-quit"}, {app, "501"}, {"--after-quit", "501", app}};
    for (const char* noBundlePath :
         {"", "/", "Halvo.app", "./Halvo.app", "/Applications/Halvo", "/Applications/Halvo.app/",
          "/Applications/Halvo.APP", "/Applications/../Halvo.app", "/Applications/./Halvo.app",
          "/Applications//Halvo.app", "//Applications/Halvo.app", "/../Halvo.app",
          "/Applications/\xFF.app", "--after-quit"}) {
        rows.push_back({"501", noBundlePath, app});
    }
    for (const Words& words : rows) {
        EXPECT_EQ(parse(words), std::nullopt) << ::testing::PrintToString(words);
    }
}

TEST(OpenAsUserCommandTest, TellsTheAppThatItIsBackAfterAQuit) {
    EXPECT_THAT(withAppArguments({"x"}, false), ElementsAre("x"));
    EXPECT_THAT(withAppArguments({"x"}, true),
                ElementsAre("x", "-halvoRelaunchedAfterQuit", "YES"));
}

TEST(OpenAsUserCommandTest, GivesTheUsersEnvironmentAndNothingElse) {
    EXPECT_THAT(environment({1000, 1000, "a b", "/home/a=b"}),
                ElementsAre("HOME=/home/a=b", "USER=a b", "LOGNAME=a b",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
}

// A process that can be told what goes wrong, and remembers what it was asked.
class FakePrivileges final : public Privileges {
  public:
    bool setGroup(std::uint32_t gid) override {
        return note("setgid " + std::to_string(gid)) && (group_ = gid, true);
    }

    bool setSupplementaryGroups(const std::string& name, std::uint32_t gid) override {
        return note("initgroups " + name + " " + std::to_string(gid));
    }

    bool setUser(std::uint32_t uid) override {
        return note("setuid " + std::to_string(uid)) && (user_ != 501 || canBecomeRoot) &&
               (user_ = uid, true);
    }

    std::uint32_t realUser() override { return note("getuid") ? user_ : wrong; }

    std::uint32_t effectiveUser() override { return note("geteuid") ? user_ : wrong; }

    std::uint32_t realGroup() override { return note("getgid") ? group_ : wrong; }

    // The call that goes wrong: fails, or answers with somebody else.
    std::optional<std::size_t> wrongCall;
    std::uint32_t wrong = 0;
    bool canBecomeRoot = false;
    std::vector<std::string> calls;

  private:
    // Whether the call goes as it should.
    bool note(const std::string& call) {
        calls.push_back(call);
        return calls.size() - 1 != wrongCall;
    }

    std::uint32_t user_ = 0;
    std::uint32_t group_ = 0;
};

const Words wholeDrop{"setgid 20", "initgroups ann 20", "setuid 501", "getuid", "geteuid",
                      "getgid",    "setuid 0"};

TEST(OpenAsUserPrivilegesTest, AreDroppedInOrderAndProvenGone) {
    FakePrivileges privileges;
    EXPECT_TRUE(dropPrivileges(privileges, ann));
    EXPECT_EQ(privileges.calls, wholeDrop);
}

TEST(OpenAsUserPrivilegesTest, AreNotTakenForDroppedAfterAFailureNorIsAnythingDoneAfterIt) {
    for (std::size_t call = 0; call < 6; ++call) {
        for (const std::uint32_t wrong : {0U, 502U}) {
            FakePrivileges privileges;
            privileges.wrongCall = call;
            privileges.wrong = wrong;
            EXPECT_FALSE(dropPrivileges(privileges, ann));
            const auto failed = wholeDrop.begin() + static_cast<std::ptrdiff_t>(call) + 1;
            EXPECT_EQ(privileges.calls, Words(wholeDrop.begin(), failed));
        }
    }
}

TEST(OpenAsUserPrivilegesTest, AreNotTakenForDroppedWhenRootCanBeRegained) {
    FakePrivileges privileges;
    privileges.canBecomeRoot = true;
    EXPECT_FALSE(dropPrivileges(privileges, ann));
    EXPECT_EQ(privileges.calls, wholeDrop);
}

}  // namespace
}  // namespace halvo::OpenAsUser
