// What root sees of the helper, and the way out, with halvoctl.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/Stepper.hpp"
#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using Json = nlohmann::json;

// What says which app it is about.
const std::string named = HALVO_APP_BUNDLE_ID ": ";

constexpr int exitSystem = 71;
constexpr int exitNoPermission = 77;
constexpr int exitConfig = 78;

ChildResult control(const std::vector<std::string>& words, std::optional<uid_t> person = {},
                    const std::function<void()>& prepare = {}) {
    std::vector<std::string> command{Place::control};
    command.insert(command.end(), words.begin(), words.end());
    return runInChild({.words = command, .person = person, .prepare = prepare});
}

Json seen() {
    const ChildResult answer = control({"status", "--json"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    return Json::parse(answer.output, nullptr, false);
}

// When the item was last changed in any way.
std::pair<long, long> changeOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
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

    // A commitment of ten minutes whose helper was killed.
    void commit() const {
        RunningHelper helper;
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        helper.kill();
        EXPECT_TRUE(isLocked());
    }

    [[nodiscard]] std::string person() const {
        return world.userName + " (uid " + std::to_string(world.user) + ")";
    }

    World world;
};

TEST_F(AdministratorTest, SeesWhatIsSoAtEachStage) {
    EXPECT_THAT(control({"status"}).output, StartsWith(named + "Nothing holds.\n"));
    EXPECT_EQ(seen()["commitment"], nullptr);
    EXPECT_EQ(seen()["apps"][0]["path"], Place::app);
    EXPECT_EQ(seen()["apps"][0]["flag"], "unlocked");

    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const pid_t pid = helper.process().pid();
    EXPECT_THAT(
        control({"status"}).output,
        AllOf(StartsWith(named + "Ultra Hard mode holds for " + person() + ", for another "),
              HasSubstr("runs, pid " + std::to_string(pid) + "\n"),
              HasSubstr("The bundle is locked, as the record says.\n")));
    Json held = seen();
    EXPECT_EQ(held["helper"]["pids"], Json::array({pid}));
    EXPECT_EQ(held["commitment"]["user"], world.userName);
    EXPECT_NEAR(held["commitment"]["left"], 600, 30);
    EXPECT_EQ(held["commitment"]["holds"], true);
    EXPECT_EQ(held["apps"][0]["agrees"], true);
    EXPECT_EQ(held["stateFile"]["condition"], "whole");

    helper.process().stop();
    setLockedByHand(false);
    held = seen();
    EXPECT_EQ(held["apps"][0]["agrees"], false);
    EXPECT_EQ(held["apps"][0]["next"], "The helper sets it back within 2 seconds.");
    helper.process().goOn();
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));

    helper.terminate();
    held = seen();
    EXPECT_EQ(held["helper"]["pids"], Json::array());
    EXPECT_EQ(held["apps"][0]["flag"], "unlocked");
    EXPECT_EQ(held["apps"][0]["next"], "The helper locks it when it starts: " + Place::helper);
}

TEST_F(AdministratorTest, ChangesNothingByLooking) {
    commit();
    const auto app = changeOf(Place::app);
    const auto folder = changeOf(Place::stateFolder);
    const auto file = changeOf(Place::stateFile);
    const std::string bytes = readTestFile(Place::stateFile);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"status"}, {"status", "--json"}, {"doctor"}}) {
        control(words);
    }
    EXPECT_EQ(changeOf(Place::app), app);
    EXPECT_EQ(changeOf(Place::stateFolder), folder);
    EXPECT_EQ(changeOf(Place::stateFile), file);
    EXPECT_EQ(readTestFile(Place::stateFile), bytes);
    EXPECT_TRUE(isLocked());
}

TEST_F(AdministratorTest, IsToldOfARecordThatHasRunOut) {
    commit();
    auto record = Json::parse(readTestFile(Place::stateFile));
    record["remaining"] = 0.0;
    put(Place::stateFile, record.dump(), 0600);
    EXPECT_THAT(control({"status"}).output,
                AllOf(StartsWith(named + "Nothing holds: the time of " + person() + " has run out"),
                      HasSubstr("The helper lets go of it when it starts next")));
    EXPECT_EQ(seen()["commitment"]["holds"], false);
    EXPECT_THAT(control({"release"}).output, HasSubstr("that had run out at "));
    expectNothingLeft();
}

TEST_F(AdministratorTest, IsToldThatEverythingIsInstalledAsItMustBe) {
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

TEST_F(AdministratorTest, IsToldWhyTheAppIsRefused) {
    RunningHelper helper;
    for (const auto& [spoil, name] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[] {
                  fs::permissions(Place::caller, fs::perms{0755});
                  fs::permissions(Place::appExecutable, fs::perms{0755});
              },
              "app's files"},
             {[] { fs::permissions(Place::app, fs::perms{0775}); }, "app's files"},
             {[] { put(Place::infoPlist, "damaged"); }, "app"},
             {[] { fs::remove_all(Place::app); }, "app"},
             {[] { fs::permissions(Place::helper, fs::perms{0777}); }, "helper files"},
             {[] { fs::permissions(Place::socket, fs::perms{0600}); }, "socket"}}) {
        spoil();
        const ChildResult answer = control({"doctor", "--json"});
        EXPECT_EQ(answer.status, 1);
        bool isFound = false;
        const Json report = Json::parse(answer.output);
        for (const Json& check : report["checks"]) {
            if (check["name"] == name) {
                isFound = true;
                EXPECT_EQ(check["verdict"], "problem") << name;
                EXPECT_NE(check["advice"], nullptr) << name;
            }
        }
        EXPECT_TRUE(isFound) << name << " in " << answer.output;
        world.installApp(Place::app);
        fs::permissions(Place::app, fs::perms{0755});
    }
}

TEST_F(AdministratorTest, IsToldToBecomeRoot) {
    EXPECT_EQ(control({"status"}, world.user),
              (ChildResult{exitNoPermission,
                           "halvoctl: The state can only be read as root. Type: sudo "
                           "halvoctl status\n"}));
    commit();
    EXPECT_EQ(control({"release"}, world.user),
              (ChildResult{exitNoPermission,
                           "halvoctl: Only root can let go of what holds. Type: sudo "
                           "halvoctl release\n"}));
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(world.state());
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

TEST_F(AdministratorTest, LetsGoOfWhatAKilledHelperLeft) {
    commit();
    const ChildResult answer = control({"release"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.output, HasSubstr(Place::app + " is unlocked.\n"));
    expectNothingLeft();
}

TEST_F(AdministratorTest, IsToldThatNothingWasHeld) {
    EXPECT_EQ(control({"release"}), (ChildResult{0, named + "Nothing was held.\n"}));
    RunningHelper helper;
    EXPECT_EQ(control({"release"}), (ChildResult{0, named + "Nothing was held.\n"}));
    EXPECT_EQ(helper.wait(), 0);
}

TEST_F(AdministratorTest, UnlocksWhatADamagedRecordOwes) {
    commit();
    put(Place::stateFile, R"({"appPath":")" + Place::app + R"(","locked":true})", 0600);
    EXPECT_THAT(control({"status"}).output, StartsWith(named + "The state file is damaged"));
    const ChildResult answer = control({"release"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.output,
                HasSubstr("Removed a damaged state file; " + Place::app + " is unlocked.\n"));
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

TEST_F(AdministratorTest, UnlocksNothingThatTheHelperWouldNotHaveLocked) {
    const std::string folder = "/home/locked";
    fs::create_directory(folder);
    setLockedByHand(true, folder);
    for (
        const std::string& record :
        {R"({"appPath":")" + folder + R"(","locked":true})",
         R"({"appPath":")" + folder +
             R"(","capRemaining":600,"checkpoint":{"bootID":"x","sinceBoot":0,"wall":0},"locked":true,"remaining":600,"startedWall":0,"uid":1000})"}) {
        fs::create_directories(Place::stateFolder);
        put(Place::stateFile, record, 0600);
        EXPECT_EQ(control({"release"}).status, 0);
        EXPECT_TRUE(isLocked(folder)) << record;
        EXPECT_FALSE(exists(Place::stateFolder));
    }
    setLockedByHand(false, folder);
}

TEST_F(AdministratorTest, KeepsTheRecordOfALockThatCannotBeTakenOff) {
    commit();
    const ChildResult answer = control({"release"}, {}, [] {
        if (prctl(PR_CAPBSET_DROP, CAP_LINUX_IMMUTABLE, 0, 0, 0) != 0) {
            _exit(1);
        }
    });
    EXPECT_EQ(answer.status, exitSystem);
    EXPECT_THAT(answer.output, HasSubstr("cannot be taken off, so the commitment stays stored"));
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(world.state());

    EXPECT_EQ(control({"release"}).status, 0);
    expectNothingLeft();
}

TEST_F(AdministratorTest, KeepsTheRecordOfABundleBelowAnotherMount) {
    commit();
    {
        const Mount other("tmpfs", "/Applications");
        const ChildResult answer = control({"release"});
        EXPECT_EQ(answer.status, exitSystem);
        EXPECT_THAT(answer.output,
                    HasSubstr("The bundle that the helper locked is not at " + Place::app));
        EXPECT_TRUE(world.state());
    }
    EXPECT_TRUE(isLocked());
    EXPECT_EQ(control({"release"}).status, 0);
    expectNothingLeft();
}

TEST_F(AdministratorTest, ForgetsABundleThatIsGoneForGoodWhenToldSo) {
    commit();
    setLockedByHand(false);
    fs::remove_all(Place::app);
    EXPECT_EQ(control({"release"}).status, exitSystem);
    EXPECT_TRUE(world.state());
    EXPECT_EQ(control({"release", "--bundle-gone"}).status, 0);
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(AdministratorTest, KeepsEverythingWhenTheHelperDoesNotEnd) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    helper.process().stop();
    const ChildResult answer = control({"release"});
    EXPECT_EQ(answer.status, exitSystem);
    EXPECT_THAT(answer.output,
                AllOf(StartsWith("Waiting for the helper to end, at most 10 seconds.\n"),
                      HasSubstr("halvoctl: The helper (pid " +
                                std::to_string(helper.process().pid()) + ") does not end.")));
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(world.state());
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
    fs::create_directories("/tmp/sbin");
    fs::create_symlink(Place::control, "/tmp/sbin/halvoctl");
    commit();
    TestProcess status({.words = {"/tmp/sbin/halvoctl", "status"}});
    EXPECT_EQ(status.wait(), 0);
    EXPECT_THAT(status.output(), StartsWith(named + "Ultra Hard mode holds for " + person()));
}

TEST_F(AdministratorTest, IsToldWhenTheInfoPlistIsMissing) {
    fs::remove(Place::helperInfoPlist);
    EXPECT_EQ(
        control({"status"}),
        (ChildResult{exitConfig, "halvoctl: " + Place::helperInfoPlist +
                                     " names no team or no app. Install the helper again.\n"}));
}

}  // namespace
}  // namespace halvo::testing
