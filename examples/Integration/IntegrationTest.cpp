// The C++ program of docs/integrating.md, run against fake helpers, and the names in the Swift
// client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

// All of the program but main().
#define main integrationMain
#include "Integration.cpp"
#undef main

namespace halvo::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class IntegrationTest : public ::testing::Test {
  protected:
    // Starts the program in a process of its own.
    TestProcess start(long minutes) const {
        return TestProcess(ProcessOptions{.body = [this, minutes] {
            HelperClient client(path_);
            return ::run(client, "/Applications/A.app", minutes);
        }});
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
};

TEST_F(IntegrationTest, CommitsAndStaysForAsLongAsTheHelperSays) {
    struct Row {
        long minutes;
        // The helper's first replies; while they are true, the app stays.
        bool yes;
        bool holding;
        // Replies false after that many requests; otherwise the program gets SIGTERM.
        bool letsGo;
        int requests;
        int status;
        std::string lastRequest;
    };

    const Row rows[] = {
        // Status, begin, status, and at least one heartbeat.
        {5, true, false, true, 4, EX_OK, "Heartbeat false"},
        {5, false, false, true, 2, EXIT_FAILURE, "Begin /Applications/A.app"},
        {0, false, false, true, 1, EX_OK, "Status"},
        // No begin while a commitment holds; and SIGTERM alone is not the end of the session.
        {5, true, true, false, 3, EX_OK, "Heartbeat false"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.lastRequest);
        const FakeHelper helper(path_, {Behavior::Answer});
        FakeHelper::Record& record = helper.record();
        record.yes = row.yes;
        record.holding = row.holding;
        TestProcess program = start(row.minutes);
        ASSERT_TRUE(eventually([&] { return record.requests >= row.requests; }));
        if (row.letsGo) {
            record.yes = false;
        } else {
            program.send(SIGTERM);
        }
        EXPECT_EQ(program.wait(), row.status) << program.output();
        EXPECT_THAT(record.lastRequest.data(), StartsWith(row.lastRequest));
        double until = 0;
        double started = 0;
        const int dates =
            std::sscanf(record.lastRequest.data(), "Begin %*s %lf %lf", &until, &started);
        EXPECT_EQ(dates == 2 ? until - started : 0, row.lastRequest.starts_with("Begin") ? 300 : 0);
        EXPECT_EQ(record.connections, 1);
        EXPECT_EQ(record.begins, row.minutes > 0 && !row.holding ? 1 : 0);
    }
}

TEST_F(IntegrationTest, StaysWhileTheHelperIsAway) {
    std::optional<FakeHelper> helper(std::in_place, path_, std::vector{Behavior::Answer});
    helper->record().holding = true;
    TestProcess program = start(0);
    ASSERT_TRUE(eventually([&] { return helper->record().requests >= 3; }));
    helper.reset();
    // More than a heartbeat.
    sleepFor(Seconds{3});
    helper.emplace(path_, std::vector{Behavior::Answer});
    helper->record().yes = false;
    EXPECT_EQ(program.wait(), EX_OK);
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

// What no Swift compiler can check: the names and times that are the helper's.
TEST(SwiftClientTest, NamesWhatTheHelperHas) {
    using Timing = HelperEngine::Timing;
    const auto digits = [](Seconds span) { return std::to_string(wholeSeconds(span)); };
    std::string swift;
    for (const char* file :
         {"HelperNames", "UltraHardMode", "macOS/HalvoHelperXPC", "macOS/MacSystem"}) {
        swift += readTestFile(std::string(HALVO_SWIFT_CLIENT "/") + file + ".swift");
    }
    const HelperIdentity identity{"\\#(app)", "\\#(team)"};
    const std::string helper = HelperIdentity{"\\(app)", ""}.helperBundleID();
    const std::string relaunch = LaunchReason::relaunchArgument;
    const std::vector<std::string> inSwift{
        "@objc(HalvoHelperXPC)\nprotocol",
        // What the helper is signed with.
        "#\"" + identity.helperRequirement() + "\"#",
        std::string("app = try Self.name(\"") + HelperIdentity::bundleIDKey + "\"",
        std::string("team = try Self.name(\"") + HelperIdentity::teamKey + "\"",
        "machService = \"" + helper + "\"\n",
        "launchdPlist = \"" + helper + ".plist\"\n",
        "now: ContinuousClock.Instant { .now }\n",
        "sessionEndGrace = Duration.seconds(" + digits(Timing::sessionEndGrace) + ")\n",
        "beat = Duration.seconds(" + std::to_string(beat) + ")\n",
    };
    for (const std::string& part : inSwift) {
        EXPECT_THAT(swift, HasSubstr(part));
    }
    const std::string text = readTestFile(HALVO_GUIDE);
    for (const std::string& part :
         {"`" + relaunch + " YES`", "for " + digits(Timing::sessionEndGrace) + " seconds after",
          "after " + digits(Timing::silence) + " seconds without one",
          "every " + digits(Timing::reopenGap) + " seconds"}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    EXPECT_LE(Seconds{beat} * 3, Timing::silence);
    // The requirement is set before the connection is used.
    const auto isUsed = swift.find("connection.resume()\n");
    ASSERT_NE(isUsed, std::string::npos);
    EXPECT_LT(swift.find(".setCodeSigningRequirement(names.requirement)"), isUsed);
}

}  // namespace
}  // namespace halvo::testing
