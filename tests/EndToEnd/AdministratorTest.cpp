// halvoctl with a real helper: status, doctor and release. The tests of halvoctl cover each state
// in detail.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;

// What halvoctl's lines begin with.
const std::string named = HALVO_APP_BUNDLE_ID ": ";

ChildResult control(std::vector<std::string> words, std::optional<uid_t> person = {}) {
    words.insert(words.begin(), Place::control);
    return runInChild({.words = std::move(words), .person = person});
}

Json statusJSON() {
    const ChildResult answer = control({"status", "--json"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    return Json::parse(answer.output, nullptr, false);
}

class AdministratorTest : public ::testing::Test {
  protected:
    void expectNothingLeft() const {
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
        RunningHelper next;
        EXPECT_FALSE(world.status().holding);
        EXPECT_FALSE(isLocked());
    }

    [[nodiscard]] std::string person() const {
        return world.userName + " (uid " + std::to_string(world.user) + ")";
    }

    World world;
};

TEST_F(AdministratorTest, ShowsTheStatusWhileAndAfterTheHelperRuns) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t pid = helper.process().pid();
    EXPECT_THAT(
        control({"status"}).output,
        AllOf(StartsWith(named + "Ultra Hard mode holds for " + person() + ", for another "),
              HasSubstr("runs, pid " + std::to_string(pid) + "\n"),
              HasSubstr("The bundle is locked, as the record says.\n")));
    Json held = statusJSON();
    EXPECT_EQ(held["helper"]["pids"], Json::array({pid}));
    EXPECT_EQ(held["commitment"]["user"], world.userName);
    EXPECT_NEAR(held["commitment"]["left"], 600, 30);
    EXPECT_EQ(held["commitment"]["holds"], true);
    EXPECT_EQ(held["apps"][0]["agrees"], true);
    EXPECT_EQ(held["stateFile"]["condition"], "whole");

    helper.terminate();
    held = statusJSON();
    EXPECT_EQ(held["helper"]["pids"], Json::array());
    EXPECT_EQ(held["apps"][0]["flag"], "unlocked");
    EXPECT_EQ(held["apps"][0]["next"], "The helper locks it when it starts: " + Place::helper);
}

TEST_F(AdministratorTest, FindsNoProblemInASoundInstallation) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess app = world.startApp();
    const ChildResult answer = control({"doctor"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    EXPECT_THAT(answer.output, EndsWith("No problem.\n"));
    const ChildResult persons = control({"doctor"}, world.user);
    EXPECT_EQ(persons.status, 0) << persons.output;
    EXPECT_THAT(persons.output, EndsWith("Type: sudo halvoctl doctor\n"));
}

// The helper gives a lock up with a record that it cannot parse or that is too large. It leaves a
// record in place that it cannot read at all.
TEST_F(AdministratorTest, ReleaseClearsALockThatNoRecordOwes) {
    const std::string tooLarge(std::size_t{2} << 20U, ' ');
    for (const std::string& bytes : {std::string("damaged"), tooLarge, std::string("unreadable")}) {
        leaveCommitment(world);
        fs::remove(Place::stateFile);
        if (bytes == "unreadable") {
            fs::create_directory(Place::stateFile);
        } else {
            put(Place::stateFile, bytes, 0600);
        }
        RunningHelper helper;
        EXPECT_FALSE(world.status().holding);
        helper.terminate();
        ASSERT_TRUE(isLocked());
        Json app = statusJSON()["apps"][0];
        EXPECT_EQ(app["path"], Place::app);
        EXPECT_EQ(app["agrees"], false);
        EXPECT_THAT(app["next"], EndsWith(": halvoctl release"));
        EXPECT_THAT(control({"doctor"}).output, HasSubstr(": halvoctl release\n"));

        const ChildResult answer = control({"release"});
        EXPECT_EQ(answer.status, 0);
        EXPECT_THAT(answer.output,
                    HasSubstr(Place::app + " carried a lock that no record owed, and is unlocked"));
        expectNothingLeft();
    }
}

TEST_F(AdministratorTest, ReleaseMayBeKilledAnywhereAndRunAgain) {
    for (int call = 1;; ++call) {
        SCOPED_TRACE("killed at system call " + std::to_string(call));
        leaveCommitment(world);
        TestProcess release({.words = {Place::control, "release"}, .stopped = true});
        Stepper stepper(release);
        // Before it takes its lock file it only reads.
        const bool killed = stepper.goTo(call, SYS_flock, [] { return false; });
        release.kill();
        if (isLocked()) {
            EXPECT_TRUE(world.state()) << "locked, and no record owes the unlock";
        }
        EXPECT_EQ(control({"release"}).status, 0);
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFile));
        if (!killed || HasFailure()) {
            EXPECT_GE(call, 20);
            return;
        }
    }
}

TEST_F(AdministratorTest, ReleaseIsNotInterruptedByTerminationSignals) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    helper.process().stop();
    TestProcess release({.words = {Place::control, "release"}});
    EXPECT_TRUE(eventually(Seconds{10}, [&] { return !release.output().empty(); }));
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        release.send(signal);
    }
    helper.process().goOn();
    release.wait();
    EXPECT_THAT(release.output(), HasSubstr(Place::app + " is unlocked.\n"));
    helper.wait();
    expectNothingLeft();
}

}  // namespace
}  // namespace halvo::testing
