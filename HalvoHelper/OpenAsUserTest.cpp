// What the mode does on every system. What it becomes: OpenAsUserTest.cpp of each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::OpenAsUser {

void PrintTo(const Request& request, std::ostream* stream) {
    *stream << request.uid << " " << request.appPath << (request.afterQuit ? " after quit" : "")
            << (request.directly ? " directly" : "");
}

namespace {

using testing::Credentials;
using ::testing::ElementsAre;

using Words = std::vector<std::string>;

const std::string app = "/Applications/Halvo.app";

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

TEST(OpenAsUserIDTest, IsADecimalNumberOf32BitsThatIsNotRoots) {
    const std::pair<std::string, std::uint32_t> numbers[] = {
        {"1", 1},
        {"+5", 5},
        {"005", 5},
        {"+0501", 501},
        {"2147483648", 2147483648},
        {"+4294967295", 4294967295},
        {"00000000004294967295", 4294967295},
    };
    for (const auto& [word, uid] : numbers) {
        EXPECT_EQ(parse(Words{word, app}), (Request{uid, app})) << word;
    }
    for (const std::string& word :
         Words{"0", "00", "+0", "4294967296", "18446744073709551617", "", "+", "++5", "5+", "-",
               "-1", "-0", "+-1", "-+1", " 5", "5 ", "+ 5", "5\n", "\t5", "5 0", "0x5", "5a", "a",
               "1e3", "5.0", "1,000", "1_000", std::string("5\0", 2),
               // Digits, but not ours: Arabic-Indic, full-width, Roman.
               "\xD9\xA3", "\xEF\xBC\x95", "\xE2\x85\xA7", "5\xD9\xA3", "ann", "--after-quit"}) {
        EXPECT_EQ(parse(Words{word, app}), std::nullopt) << word;
    }
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

// How the mode ends when `person` calls it with these words after its own. It says nothing.
int statusOf(const Credentials& person, const Words& words) {
    const testing::ChildResult result = testing::runInChild([&] {
        // A process that has changed its user is closed to ptrace(2), by which leaks are looked
        // for.
        std::atexit([] { prctl(PR_SET_DUMPABLE, 1); });
        if (person.uid != geteuid()) {
            testing::become(person);
        }
        run(words);
    });
    EXPECT_EQ(result.output, "");
    return result.status;
}

TEST(OpenAsUserModeTest, RefusesBadWords) {
    // The last two are in no account files.
    for (const Words& words :
         {Words{}, Words{"0", app}, Words{"61999", app}, Words{"4294967294", app}}) {
        EXPECT_EQ(statusOf({geteuid(), getegid()}, words), 64);
    }
}

// It has the privileges of the user who runs it, and no others.
TEST(OpenAsUserModeTest, RefusesToRunWithoutRoot) {
    constexpr Credentials nobody{65534, 65534};
    const Credentials person = geteuid() == 0 ? nobody : Credentials{geteuid(), getegid()};
    EXPECT_EQ(statusOf(person, {"1", app}), 77);
    EXPECT_EQ(statusOf(person, {std::to_string(person.uid), app}), 77);
}

}  // namespace
}  // namespace halvo::OpenAsUser
