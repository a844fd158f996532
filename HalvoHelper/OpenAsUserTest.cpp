#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"

namespace halvo::OpenAsUser {

void PrintTo(const Request& request, std::ostream* stream) {
    *stream << request.uid << " " << request.appPath << (request.afterQuit ? " after quit" : "")
            << (request.directly ? " directly" : "");
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Words = std::vector<std::string>;

const std::string app = "/Applications/Halvo.app";
const User ann{501, 20, "ann", "/Users/ann"};
const Words annsEnvironment{"HOME=/Users/ann", "USER=ann", "LOGNAME=ann",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};

// What no path is likely to hold, and every path may.
const std::string oddApp = "/Appli cations/$HOME \"quoted\" 'single' %i \\n \xC3\xA9 * ; & |.app";

// -------------------------------------------------------------------------------- the command line

TEST(OpenAsUserWordsTest, AskForAnOpening) {
    EXPECT_THAT(words({501, app, false}), ElementsAre("--open-as-user", "501", app));
    EXPECT_THAT(words({501, app, true}), ElementsAre("--open-as-user", "501", app, "--after-quit"));
    EXPECT_THAT(words({501, app, true, true}),
                ElementsAre("--open-as-user", "501", app, "--after-quit", "--directly"));
    EXPECT_THAT(words({4294967295, app, false}), ElementsAre("--open-as-user", "4294967295", app));
}

TEST(OpenAsUserWordsTest, AreUnderstoodAgain) {
    for (const Request& request :
         {Request{501, app, false}, Request{1, oddApp, true}, Request{501, app, false, true},
          Request{4294967295, "/x.app", false}}) {
        const Words all = words(request);
        EXPECT_EQ(parse(std::span(all).subspan(1)), request);
    }
}

struct UserIDRow {
    std::string word;
    std::optional<std::uint32_t> uid;
};

class OpenAsUserIDTest : public ::testing::TestWithParam<UserIDRow> {};

TEST_P(OpenAsUserIDTest, IsReadAsADecimalNumberOf32Bits) {
    EXPECT_EQ(parseUserID(GetParam().word), GetParam().uid) << '"' << GetParam().word << '"';
}

// The mode itself also refuses root.
TEST_P(OpenAsUserIDTest, IsReadBySameRuleInARequestButForRoot) {
    const auto request = parse(Words{GetParam().word, app});
    const auto& uid = GetParam().uid;
    EXPECT_EQ(request,
              uid.value_or(0) == 0 ? std::nullopt : std::optional(Request{*uid, app, false}));
}

INSTANTIATE_TEST_SUITE_P(
    Words, OpenAsUserIDTest,
    ::testing::Values(
        UserIDRow{"0", 0}, UserIDRow{"00", 0}, UserIDRow{"+0", 0}, UserIDRow{"1", 1},
        UserIDRow{"5", 5}, UserIDRow{"+5", 5}, UserIDRow{"005", 5}, UserIDRow{"+0501", 501},
        UserIDRow{"501", 501}, UserIDRow{"65534", 65534}, UserIDRow{"2147483648", 2147483648},
        UserIDRow{"4294967295", 4294967295}, UserIDRow{"+4294967295", 4294967295},
        UserIDRow{"00000000004294967295", 4294967295}, UserIDRow{"4294967296", std::nullopt},
        UserIDRow{"18446744073709551616", std::nullopt},
        UserIDRow{"18446744073709551617", std::nullopt}, UserIDRow{"", std::nullopt},
        UserIDRow{"+", std::nullopt}, UserIDRow{"++5", std::nullopt}, UserIDRow{"5+", std::nullopt},
        UserIDRow{"-", std::nullopt}, UserIDRow{"-1", std::nullopt}, UserIDRow{"-0", std::nullopt},
        UserIDRow{"+-1", std::nullopt}, UserIDRow{"-+1", std::nullopt},
        UserIDRow{" 5", std::nullopt}, UserIDRow{"5 ", std::nullopt},
        UserIDRow{"+ 5", std::nullopt}, UserIDRow{"5\n", std::nullopt},
        UserIDRow{"\t5", std::nullopt}, UserIDRow{"5 0", std::nullopt},
        UserIDRow{"0x5", std::nullopt}, UserIDRow{"5a", std::nullopt}, UserIDRow{"a", std::nullopt},
        UserIDRow{"1e3", std::nullopt}, UserIDRow{"5.0", std::nullopt},
        UserIDRow{"1,000", std::nullopt}, UserIDRow{"1_000", std::nullopt},
        // Digits, but not ours: Arabic-Indic, full-width, Roman.
        UserIDRow{"\xD9\xA3", std::nullopt}, UserIDRow{"\xEF\xBC\x95", std::nullopt},
        UserIDRow{"\xE2\x85\xA7", std::nullopt}, UserIDRow{"5\xD9\xA3", std::nullopt},
        UserIDRow{std::string("5\0", 2), std::nullopt}, UserIDRow{"ann", std::nullopt},
        UserIDRow{"--after-quit", std::nullopt}));

struct RequestRow {
    Words words;
    std::optional<Request> request;
};

class OpenAsUserRequestTest : public ::testing::TestWithParam<RequestRow> {};

TEST_P(OpenAsUserRequestTest, IsParsed) {
    EXPECT_EQ(parse(GetParam().words), GetParam().request)
        << ::testing::PrintToString(GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Words, OpenAsUserRequestTest,
    ::testing::Values(
        RequestRow{{"501", app}, Request{501, app, false}},
        RequestRow{{"501", app, "--after-quit"}, Request{501, app, true}},
        RequestRow{{"501", app, "x", "--after-quit"}, Request{501, app, true}},
        RequestRow{{"501", app, "--after-quit", "--after-quit", "x"}, Request{501, app, true}},
        RequestRow{{"501", app, "--directly"}, Request{501, app, false, true}},
        RequestRow{{"501", app, "--directly", "x", "--after-quit"}, Request{501, app, true, true}},
        RequestRow{{"501", app, "directly"}, Request{501, app, false}},
        RequestRow{{"501", app, ""}, Request{501, app, false}},
        RequestRow{{"501", app, "after-quit"}, Request{501, app, false}},
        RequestRow{{"501", app, "--after-quit="}, Request{501, app, false}},
        RequestRow{{"501", app, "--AFTER-QUIT"}, Request{501, app, false}},
        RequestRow{{"501", oddApp}, Request{501, oddApp, false}},
        RequestRow{{"501", "/.app"}, Request{501, "/.app", false}},
        // Too few.
        RequestRow{{}, std::nullopt}, RequestRow{{"501"}, std::nullopt},
        RequestRow{{app}, std::nullopt}, RequestRow{{"--after-quit"}, std::nullopt},
        // Root, however written.
        RequestRow{{"0", app}, std::nullopt}, RequestRow{{"+0", app}, std::nullopt},
        RequestRow{{"000", app}, std::nullopt},
        // In another order.
        RequestRow{{app, "501"}, std::nullopt},
        RequestRow{{"--after-quit", "501", app}, std::nullopt},
        RequestRow{{"501", "--after-quit", app}, std::nullopt},
        // No bundle path.
        RequestRow{{"501", ""}, std::nullopt}, RequestRow{{"501", "/"}, std::nullopt},
        RequestRow{{"501", "Halvo.app"}, std::nullopt},
        RequestRow{{"501", "./Halvo.app"}, std::nullopt},
        RequestRow{{"501", "/Applications/Halvo"}, std::nullopt},
        RequestRow{{"501", "/Applications/Halvo.app/"}, std::nullopt},
        RequestRow{{"501", "/Applications/Halvo.APP"}, std::nullopt},
        RequestRow{{"501", "/Applications/../Halvo.app"}, std::nullopt},
        RequestRow{{"501", "/Applications/./Halvo.app"}, std::nullopt},
        RequestRow{{"501", "/Applications//Halvo.app"}, std::nullopt},
        RequestRow{{"501", "//Applications/Halvo.app"}, std::nullopt},
        RequestRow{{"501", "/../Halvo.app"}, std::nullopt},
        RequestRow{{"501", "/Applications/\xFF.app"}, std::nullopt}));

// ------------------------------------------------------------------------------------ the commands

TEST(OpenAsUserCommandTest, TellsTheAppThatItIsBackAfterAQuit) {
    EXPECT_THAT(appArguments(false), IsEmpty());
    EXPECT_THAT(appArguments(true), ElementsAre("-halvoRelaunchedAfterQuit", "YES"));
}

TEST(OpenAsUserCommandTest, GivesTheUsersEnvironmentAndNothingElse) {
    EXPECT_EQ(environment(ann), annsEnvironment);
    EXPECT_THAT(environment({1000, 1000, "a b", "/home/a=b"}),
                ElementsAre("HOME=/home/a=b", "USER=a b", "LOGNAME=a b",
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
}

// --------------------------------------------------------------------------------- the privileges

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
        return note("setuid " + std::to_string(uid)) && user_ != 501 && (user_ = uid, true);
    }

    std::uint32_t realUser() override { return note("getuid") ? user_ : wrong; }

    std::uint32_t effectiveUser() override { return note("geteuid") ? user_ : wrong; }

    std::uint32_t realGroup() override { return note("getgid") ? group_ : wrong; }

    // The call that goes wrong: fails, or answers with somebody else.
    std::optional<std::size_t> wrongCall;
    std::uint32_t wrong = 0;
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

class OpenAsUserFailedDropTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(OpenAsUserFailedDropTest, AreNotTakenForDroppedAfterAFailureNorIsAnythingDoneAfterIt) {
    for (const std::uint32_t wrong : {0U, 502U}) {
        FakePrivileges privileges;
        privileges.wrongCall = GetParam();
        privileges.wrong = wrong;
        EXPECT_FALSE(dropPrivileges(privileges, ann));
        const auto failed = wholeDrop.begin() + static_cast<std::ptrdiff_t>(GetParam()) + 1;
        EXPECT_EQ(privileges.calls, Words(wholeDrop.begin(), failed));
    }
}

INSTANTIATE_TEST_SUITE_P(Call, OpenAsUserFailedDropTest, ::testing::Range<std::size_t>(0, 6));

// A process that stays root, or can become root again, whatever it says.
class UndroppedPrivileges final : public Privileges {
  public:
    bool setGroup(std::uint32_t) override { return true; }

    bool setSupplementaryGroups(const std::string&, std::uint32_t) override { return true; }

    bool setUser(std::uint32_t) override { return true; }

    std::uint32_t realUser() override { return ann.uid; }

    std::uint32_t effectiveUser() override { return ann.uid; }

    std::uint32_t realGroup() override { return ann.gid; }
};

TEST(OpenAsUserPrivilegesTest, AreNotTakenForDroppedWhenRootCanBeRegained) {
    UndroppedPrivileges privileges;
    EXPECT_FALSE(dropPrivileges(privileges, ann));
}

}  // namespace
}  // namespace halvo::OpenAsUser
