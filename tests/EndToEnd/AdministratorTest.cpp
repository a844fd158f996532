// The way out for root, with halvoctl; what it says of each kind of state is held by its own tests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
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

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using Json = nlohmann::json;

// What says which app it is about.
const std::string named = HALVO_APP_BUNDLE_ID ": ";

ChildResult control(std::vector<std::string> words, std::optional<uid_t> person = {}) {
    words.insert(words.begin(), Place::control);
    return runInChild({.words = std::move(words), .person = person});
}

Json seen() {
    const ChildResult answer = control({"status", "--json"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    return Json::parse(answer.output, nullptr, false);
}

class AdministratorTest : public ::testing::Test {
  protected:
    void expectNothingLeft() const {
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
        const RunningHelper next;
        EXPECT_FALSE(world.status().holding);
        EXPECT_FALSE(isLocked());
    }

    // A commitment of ten minutes whose helper was killed.
    void commit() const {
        RunningHelper helper;
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        helper.kill();
        EXPECT_TRUE(isLocked());
    }

    World world;
};

TEST_F(AdministratorTest, IsToldThatEverythingIsInstalledAsItMustBe) {
    const RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const TestProcess app = world.startApp();
    EXPECT_THAT(control({"doctor"}).output, EndsWith("No problem.\n"));
    EXPECT_THAT(control({"doctor"}, world.user).output, EndsWith("Type: sudo halvoctl doctor\n"));
}

TEST_F(AdministratorTest, LetsGoOfWhatARunningHelperHolds) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const ChildResult answer = control({"release"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.output,
                MatchesRegex("app.halvo Helper: An administrator let go of what was stored\n" +
                             named + "Let go of the commitment of " + world.userName + " \\(uid " +
                             std::to_string(world.user) + "\\) that held until [-0-9: +]*; " +
                             Place::app + " is unlocked\\.\n"));
    constexpr int holding = 75;
    EXPECT_EQ(helper.wait(), holding);
    expectNothingLeft();
}

// What the rules give up with its record: one that is damaged beyond telling, and one that is
// larger than is read. And one that a helper takes for none, which leaves it there.
TEST_F(AdministratorTest, TakesOffTheLockThatNoRecordOwes) {
    const std::string tooLarge(std::size_t{2} << 20U, ' ');
    for (const std::string& bytes : {std::string("damaged"), tooLarge, std::string("unreadable")}) {
        commit();
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
        Json app = seen()["apps"][0];
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

TEST_F(AdministratorTest, LeavesTheLockOfABundleThatIsSomebodyElses) {
    for (const auto& spoil : std::vector<std::function<void()>>{
             [] { fs::permissions(Place::infoPlist, fs::perms{0666}); },
             [this] { EXPECT_EQ(chown(Place::infoPlist.c_str(), world.user, 0), 0); },
             [] { put(Place::infoPlist, readTestFile(Place::helperInfoPlist), 0644); }}) {
        world.installApp(Place::app);
        spoil();
        setLockedByHand(true);
        EXPECT_EQ(control({"release"}).status, 0);
        EXPECT_TRUE(isLocked());
        setLockedByHand(false);
    }
}

TEST_F(AdministratorTest, MayBeInterruptedAnywhereAndRunAgain) {
    for (int call = 1;; ++call) {
        SCOPED_TRACE("killed at system call " + std::to_string(call));
        commit();
        TestProcess release({.words = {Place::control, "release"}, .stopped = true});
        Stepper stepper(release);
        // Before it has its lock it only reads.
        const bool killed = stepper.goTo(call, SYS_flock, [] { return false; });
        release.kill();
        if (isLocked()) {
            EXPECT_TRUE(world.state()) << "locked, and nothing owes its removal";
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

TEST_F(AdministratorTest, FinishesAReleaseWhateverSignalComes) {
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

TEST_F(AdministratorTest, KnowsTheAppWhateverLinkItWasCalledBy) {
    const std::string link = "/tmp/halvoctl";
    fs::create_symlink(Place::control, link);
    commit();
    EXPECT_THAT(runInChild({.words = {link, "status"}}).output,
                StartsWith(named + "Ultra Hard mode holds for " + world.userName));
}

}  // namespace
}  // namespace halvo::testing
