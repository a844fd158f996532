// The program of docs/integrating.md, run against helpers that the tests play, and the names in its
// Swift.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

// The program, but for its beginning.
#define main integrationMain
#include "Integration.cpp"
#undef main

namespace halvo::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class IntegrationTest : public ::testing::Test {
  protected:
    void TearDown() override {
        if (program_.joinable()) {
            pthread_kill(program_.native_handle(), SIGTERM);
            program_.join();
        }
    }

    // The program, from its first question on.
    void start(int minutes) {
        program_ = std::thread([this, minutes] {
            // Before the program does: the end of a test must not end the tests.
            endSignals();
            isReady_ = true;
            HelperClient client(path_);
            status_ = run(client, "/Applications/A.app", minutes);
        });
        ASSERT_TRUE(eventually([this] { return isReady_.load(); }));
    }

    // Its exit status.
    int end() {
        program_.join();
        return status_;
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
    std::atomic<bool> isReady_ = false;
    int status_ = -1;
    std::thread program_;
};

TEST_F(IntegrationTest, CommitsAndLeavesWhenItIsOver) {
    const FakeHelper helper(path_, {Conduct::Answer});
    start(5);
    // Status, begin, status, and at least one heartbeat.
    ASSERT_TRUE(eventually([&] { return helper.record().requests >= 4; }));
    helper.record().yes = false;
    EXPECT_EQ(end(), EX_OK);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Heartbeat false");
    EXPECT_EQ(helper.record().connections, 1);
}

TEST_F(IntegrationTest, CommitsForTheMinutesGivenAndTakesANo) {
    const FakeHelper helper(path_, {Conduct::Answer});
    helper.record().yes = false;
    start(5);
    EXPECT_EQ(end(), EXIT_FAILURE);
    std::array<char, 64> path{};
    double until = 0;
    double started = 0;
    ASSERT_EQ(std::sscanf(helper.record().lastRequest.data(), "Begin %63s %lf %lf", path.data(),
                          &until, &started),
              3);
    EXPECT_STREQ(path.data(), "/Applications/A.app");
    EXPECT_NEAR(until - started, 300, 0.001);
}

TEST_F(IntegrationTest, LeavesAtOnceWhenNothingHolds) {
    const FakeHelper helper(path_, {Conduct::Answer});
    start(0);
    EXPECT_EQ(end(), EX_OK);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
    EXPECT_EQ(helper.record().requests, 1);
}

TEST_F(IntegrationTest, BeginsNothingNewWhileSomethingHoldsAndAnnouncesNoEnd) {
    const FakeHelper helper(path_, {Conduct::Answer});
    helper.record().holding = true;
    start(5);
    ASSERT_TRUE(eventually([&] { return helper.record().requests >= 2; }));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Heartbeat false");
    // Being told to end is no end of the session, which it would announce.
    pthread_kill(program_.native_handle(), SIGTERM);
    EXPECT_EQ(end(), EX_OK);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Heartbeat false");
}

TEST_F(IntegrationTest, StaysWhileTheHelperIsAway) {
    auto helper = std::make_unique<FakeHelper>(path_, std::vector{Conduct::Answer});
    helper->record().holding = true;
    start(0);
    ASSERT_TRUE(eventually([&] { return helper->record().requests >= 2; }));
    helper.reset();
    // More than a heartbeat.
    std::this_thread::sleep_for(3s);
    helper = std::make_unique<FakeHelper>(path_, std::vector{Conduct::Answer});
    helper->record().yes = false;
    EXPECT_EQ(end(), EX_OK);
    EXPECT_EQ(helper->record().requests, 1);
}

TEST_F(IntegrationTest, RunsInItsBundleOnlyAndSaysWhatIsTheMatter) {
    const std::string copy = folder_ / "Integration";
    std::filesystem::copy_file(HALVO_INTEGRATION_EXAMPLE, copy);

    struct Row {
        std::vector<std::string> words;
        int status;
        std::string says;
    };

    const Row rows[] = {
        {{HALVO_INTEGRATION_EXAMPLE, "5"}, EX_UNAVAILABLE, "The helper is not running"},
        {{HALVO_INTEGRATION_EXAMPLE, LaunchReason::relaunchArgument, "YES"},
         EX_UNAVAILABLE,
         "opened the app again"},
        {{copy}, EX_CONFIG, ""},
    };
    for (const auto& [words, status, says] : rows) {
        const ChildResult result = runInChild({.words = words});
        EXPECT_EQ(result.status, status);
        EXPECT_THAT(result.output, HasSubstr(says));
    }
}

// The selectors of the methods that `header` declares: of each, the words before a "(" type.
std::vector<std::string> selectorsOf(const std::string& header) {
    static const std::regex method("\n- \\(void\\)([^;]*);");
    static const std::regex label("(\\w+:)\\([^)]");
    std::vector<std::string> selectors;
    const std::sregex_iterator end;
    for (std::sregex_iterator found(header.begin(), header.end(), method); found != end; ++found) {
        const std::string declaration = (*found)[1];
        std::string& selector = selectors.emplace_back();
        for (std::sregex_iterator part(declaration.begin(), declaration.end(), label); part != end;
             ++part) {
            selector += (*part)[1];
        }
    }
    return selectors;
}

// No compiler for Swift is at hand; that the names are those of the helper can be checked without.
class GuideTest : public ::testing::Test {
  protected:
    const std::string text_ = readTestFile(HALVO_GUIDE);
    const std::string swift_ = text_.substr(text_.find("\n```swift\n"),
                                            text_.find("\n```cpp\n") - text_.find("\n```swift\n"));

    // As digits, the way the text writes them.
    static std::string wholeNumber(Seconds span) { return std::to_string(wholeSeconds(span)); }
};

TEST_F(GuideTest, NamesTheSelectorsOfTheProtocol) {
    EXPECT_THAT(swift_, HasSubstr("@objc(HalvoHelperXPC)\nnonisolated protocol"));
    const std::vector<std::string> selectors = selectorsOf(readTestFile(HALVO_XPC_PROTOCOL));
    EXPECT_THAT(selectors, ElementsAre("beginWithAppPath:until:started:reply:",
                                       "heartbeatWithSessionEnding:reply:", "endWithReply:",
                                       "statusWithReply:"));
    for (const std::string& selector : selectors) {
        EXPECT_THAT(swift_, HasSubstr("@objc(" + selector + ")\n    func "));
    }
}

TEST_F(GuideTest, DemandsOfTheHelperWhatItIsSignedWith) {
    const HelperIdentity identity{"\\#(appBundleID)", "\\#(teamID)"};
    EXPECT_THAT(swift_, HasSubstr("#\"" + identity.helperRequirement() + "\"#"));
    EXPECT_THAT(swift_, HasSubstr(std::string("forInfoDictionaryKey: \"") +
                                  HelperIdentity::teamKey + "\""));
    const HelperIdentity plain{"\\(appBundleID)", ""};
    EXPECT_THAT(swift_, HasSubstr("machService = \"" + plain.helperBundleID() + "\"\n"));
    EXPECT_THAT(swift_, HasSubstr("launchdPlist = \"" + plain.helperBundleID() + ".plist\"\n"));
}

TEST_F(GuideTest, DemandsItBeforeTheConnectionIsResumed) {
    const auto demanded = swift_.find(".setCodeSigningRequirement(HelperNames.requirement)");
    ASSERT_NE(demanded, std::string::npos);
    EXPECT_LT(demanded, swift_.find(".resume()\n"));
}

TEST_F(GuideTest, SendsABeginOverTheConnectionOfItsStatusWithinTheirDeadline) {
    EXPECT_THAT(swift_, HasSubstr("let deadline = ContinuousClock.now + .seconds(5)\n"));
    const auto status = swift_.find("await askStatus(over: which, before: deadline)");
    const auto begin = swift_.find("await ask(over: which, before: deadline)");
    ASSERT_NE(begin, std::string::npos);
    EXPECT_LT(status, begin);
    const auto look = swift_.find("if ContinuousClock.now >= deadline {\n");
    ASSERT_NE(look, std::string::npos);
    EXPECT_LT(look, swift_.find("request(helper, once)\n"));
}

TEST_F(GuideTest, ReadsTheArgumentOfARelaunch) {
    const std::string argument = LaunchReason::relaunchArgument;
    EXPECT_THAT(text_, HasSubstr("`" + argument + " YES`"));
    EXPECT_THAT(swift_, HasSubstr("[\"" + argument.substr(1) + "\"] as? String == \"YES\""));
}

TEST_F(GuideTest, KeepsToTheTimesOfTheEngine) {
    using Timing = HelperEngine::Timing;
    const std::string grace = wholeNumber(Timing::sessionEndGrace);
    EXPECT_THAT(swift_, HasSubstr("Task.sleep(for: .seconds(" + grace + "))"));
    EXPECT_THAT(text_, HasSubstr("for " + grace + " seconds after"));
    EXPECT_THAT(text_, HasSubstr("after " + wholeNumber(Timing::silence) + " seconds without one"));
    EXPECT_THAT(text_, HasSubstr("every " + wholeNumber(Timing::reopenGap) + " seconds"));
    EXPECT_LE(Seconds{beat} * 3, Timing::silence);
    EXPECT_THAT(swift_, HasSubstr("beat = Duration.seconds(" + std::to_string(beat) + ")"));
}

}  // namespace
}  // namespace halvo::testing
