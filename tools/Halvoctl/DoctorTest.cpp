#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

Check needsRoot(const std::string& name) {
    return {name, Verdict::needsRoot, "only root can look at it", ""};
}

class DoctorTest : public ::testing::Test {
  protected:
    Check examined(const std::string& name, const std::optional<std::string>& app = {}) {
        const Checks checks = examine(fake.machine, app);
        const auto found = std::ranges::find(checks, name, &Check::name);
        return found == checks.end() ? Check{} : *found;
    }

    void expectOk(const std::string& name, const std::string& finding) {
        EXPECT_EQ(examined(name), isOk(name, finding));
    }

    void expectProblem(const std::string& name, const std::string& finding,
                       const std::string& advice) {
        EXPECT_EQ(examined(name), isProblem(name, finding, advice));
    }

    FakeMachine fake;
};

TEST_F(DoctorTest, ChecksInstalledAndNamedBundles) {
    const std::string served = "com.example.app of team 7QX4KD19MT";
    expectOk("app's place", fake.app);
    expectOk("app's identity", served);
    expectOk("lock", "The bundle is not locked");
    expectOk("service", "fine");
    expectOk("bundle", fake.app);
    EXPECT_TRUE(fake.world.calls.changes().empty());

    const std::string other = fake.disk / "Other.app";
    FakeMachine::writeInfo(other, "com.example.other", "OTHERTEAM1");
    EXPECT_EQ(
        examined("app's place", other),
        isProblem("app's place",
                  other + " is not a folder directly inside one named Applications, so the helper "
                          "does not lock it",
                  "Install the app into /Applications."));
    EXPECT_EQ(examined("app's identity", other),
              isProblem("app's identity",
                        other +
                            "/Contents/Info.plist has the CFBundleIdentifier "
                            "\"com.example.other\" and the HalvoTeamID \"OTHERTEAM1\", but the "
                            "helper serves " +
                            served,
                        "Install the app and the helper that were built for each other."));
    EXPECT_EQ(checkIdentity("/nowhere/None.app", fake.machine.identity),
              isProblem("app's identity", "/nowhere/None.app/Contents/Info.plist cannot be read",
                        "Install the app again."));
    testing::writeTestFile(fake.app + "/Contents/Info.plist", "damaged");
    expectProblem("app", "no bundle of com.example.app lies in " + fake.applications,
                  "Install the app there, as root. One that lies elsewhere can be named: --app "
                  "PATH");
}

TEST_F(DoctorTest, ChecksTheHelperAndTheLock) {
    expectOk("helper", "does not run; it starts when the app calls");
    for (const StoredCommitment& stored :
         {StoredCommitment(UnreadableCommitment{}), StoredCommitment(fake.hold())}) {
        fake.world.store.stored = stored;
        expectProblem("helper", "something is stored, and no helper runs that would hold it",
                      "Start it: start-helper");
    }
    fake.processes.processes = {5};
    expectOk("helper", "runs, pid 5");
    expectOk("lock", "The bundle is locked, as the record says");
    fake.world.flags.setByHand(fake.app, false);
    expectProblem("lock", "The bundle is not locked, but should be",
                  "The helper sets it back within 2 seconds.");
    fake.processes.processes = {5, 6, 7};
    fake.processes.stopped = {5, 7};
    const std::string stopped = "is stopped (SIGSTOP), and does nothing: pids 5 and 7";
    expectProblem("helper", stopped,
                  "Continue it: kill -CONT 5 7; or start another: restart-helper");
    fake.service.restartCommand = "";
    expectProblem("helper", stopped, "Continue it: kill -CONT 5 7");
    fake.machine.isRoot = false;
    for (const char* name : {"helper", "state", "lock"}) {
        EXPECT_EQ(examined(name), needsRoot(name));
    }
}

TEST_F(DoctorTest, ChecksTheSession) {
    EXPECT_EQ(examined("session"),
              isNotApplicable("session", "no user is at the console, so the app is not opened"));
    fake.world.session.console = FakeMachine::ann;
    const std::string ann = "ann (uid 1000) is at the console";
    const std::string free = ann + "; the app does not run for them";
    expectOk("person", "1000");
    expectOk("session", free);
    fake.hold();
    expectProblem(
        "session", ann + " and bound, but the app does not run for them",
        "A helper that runs opens it within 15 seconds. If it does not come up, look into "
        "the helper's log, and start the app as that person.");
    fake.world.session.start(fake.app, FakeMachine::ann);
    expectOk("session", ann + "; the app runs for them");
    fake.world.session.quitAll();
    fake.hold().uid = 1001;
    expectOk("session", free);
    fake.hold(Seconds{0});
    expectOk("session", free);
}

TEST_F(DoctorTest, ChecksTheFilesOfTheHelperAndItsState) {
    // A folder for temporary files is writable for all users, or another user's.
    EXPECT_EQ(checkHelperFiles({"/usr/bin/env", fake.machine.helper}, "/", "They can.").advice,
              "They can. Install it again, in folders that only root can write to.");
    EXPECT_EQ(checkHelperFiles({"/usr/bin/env"}, "/", "They can."),
              isOk("helper files", "root's alone, in /usr/bin"));

    const std::string none = "/root-none-here";
    EXPECT_EQ(checkState(none + "/commitment.json", StateFile::none),
              isOk("state", "nothing is stored, in " + none));
    EXPECT_EQ(checkState(fake.disk / "commitment.json", StateFile::whole).advice,
              "A user who can change it can end a commitment. Give it to root, and take the right "
              "to write from all others.");
    EXPECT_EQ(checkState("/usr/commitment.json", StateFile::whole),
              isProblem("state", "/usr is accessible to users other than root", "chmod 700 /usr"));
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make a folder that only root can change";
    }
    const std::string closed = "/run/halvo-doctor-test-" + std::to_string(getpid());
    fs::create_directories(closed);
    fs::permissions(closed, fs::perms::owner_all);
    for (const auto& [file, check] : std::vector<std::pair<StateFile, Check>>{
             {StateFile::none, isOk("state", "nothing is stored, in " + closed)},
             {StateFile::whole, isOk("state", "whole, in " + closed)},
             {StateFile::damaged,
              isProblem("state", closed + "/state is damaged",
                        "The helper removes it when it starts next; halvoctl release does so "
                        "now.")},
             {StateFile::unreadable, isProblem("state", closed + "/state cannot be read",
                                               "Check the kernel log for I/O errors; if it is not "
                                               "a regular file, remove it.")}}) {
        EXPECT_EQ(checkState(closed + "/state", file), check);
    }
    fs::remove(closed);
}

TEST_F(DoctorTest, ReportsAsTextAndJSON) {
    const Checks checks{Check{"first", Verdict::ok, "fine", "Go on."},
                        isProblem("second", "broken", "Fix it."),
                        isNotApplicable("third", "not here")};
    EXPECT_EQ(report(checks, false), (Outcome{ExitStatus::problem,
                                              "ok              first   fine\n"
                                              "problem         second  broken\n"
                                              "                        -> Fix it.\n"
                                              "not applicable  third   not here\n"
                                              "1 problem.\n",
                                              ""}));
    EXPECT_EQ(report({needsRoot("a")}, false),
              (Outcome{ExitStatus::fine,
                       "needs root  a  only root can look at it\nNo problem.\n"
                       "Some things only root can look at. Type: sudo halvoctl doctor\n",
                       ""}));
    EXPECT_EQ(Json::parse(report({checks[0], checks[1], needsRoot("fourth")}, true).output),
              Json::parse(R"({"problems": 1, "checks": [
                  {"name": "first", "verdict": "ok", "finding": "fine", "advice": null},
                  {"name": "second", "verdict": "problem", "finding": "broken",
                   "advice": "Fix it."},
                  {"name": "fourth", "verdict": "needs root",
                   "finding": "only root can look at it", "advice": null}]})"));
}

}  // namespace
}  // namespace halvo::control
