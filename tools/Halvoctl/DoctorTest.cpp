#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {

void PrintTo(const Check& check, std::ostream* stream) {
    *stream << check.name << ": " << static_cast<int>(check.verdict) << ", " << check.finding
            << " -> " << check.advice;
}

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Json = nlohmann::json;

class DoctorTest : public ::testing::Test {
  protected:
    static Check named(const Checks& checks, const std::string& name) {
        for (const Check& check : checks) {
            if (check.name == name) {
                return check;
            }
        }
        ADD_FAILURE() << "no check " << name;
        return {};
    }

    Check examined(const std::string& name) { return named(examine(fake.machine, {}), name); }

    FakeMachine fake;
};

TEST_F(DoctorTest, LooksAtTheBundlesThatItFinds) {
    EXPECT_EQ(examined("app's place"), isOk("app's place", fake.app));
    EXPECT_EQ(examined("app's identity"),
              isOk("app's identity", "com.example.app of team 7QX4KD19MT"));
    EXPECT_EQ(examined("lock"), isOk("lock", "The bundle is not locked"));
    EXPECT_EQ(examined("service"), isOk("service", "fine"));
    EXPECT_EQ(examined("bundle"), isOk("bundle", fake.app + " as root"));
    EXPECT_TRUE(fake.world.calls.changes().empty());
}

TEST_F(DoctorTest, MissesTheApp) {
    fs::remove_all(fake.app);
    const Check check = examined("app");
    EXPECT_EQ(check.verdict, Verdict::problem);
    EXPECT_EQ(check.finding, "no bundle of com.example.app lies in " + fake.applications);
    EXPECT_THAT(check.advice, HasSubstr("--app PATH"));
}

TEST_F(DoctorTest, LooksAtTheBundleThatIsNamed) {
    const std::string other = fake.disk / "Other.app";
    FakeMachine::writeInfo(other, "com.example.other", "OTHERTEAM1");
    const Checks checks = examine(fake.machine, other);
    EXPECT_EQ(named(checks, "app's place").verdict, Verdict::problem);
    EXPECT_EQ(named(checks, "app's identity").finding,
              other +
                  "/Contents/Info.plist has the CFBundleIdentifier \"com.example.other\" and "
                  "the HalvoTeamID \"OTHERTEAM1\", but the helper serves com.example.app of "
                  "team 7QX4KD19MT");
    EXPECT_EQ(checkIdentity("/nowhere/None.app", fake.machine.identity).finding,
              "/nowhere/None.app/Contents/Info.plist cannot be read");
}

TEST_F(DoctorTest, JudgesTheHelper) {
    EXPECT_EQ(examined("helper"), isOk("helper", "does not run; it starts when the app calls"));
    fake.hold();
    EXPECT_EQ(examined("helper"),
              isProblem("helper", "something is stored, and no helper runs that would hold it",
                        "Start it: start-helper"));
    fake.processes.processes = {5};
    EXPECT_EQ(examined("helper"), isOk("helper", "runs, pid 5"));
    fake.processes.processes = {5, 6, 7};
    fake.processes.stopped = {5, 7};
    EXPECT_EQ(examined("helper"),
              isProblem("helper", "is stopped (SIGSTOP), and does nothing: pids 5 and 7",
                        "Let it go on: kill -CONT 5 7; or start another: restart-helper"));
    fake.service.restart = "";
    EXPECT_EQ(examined("helper").advice, "Let it go on: kill -CONT 5 7");
}

TEST_F(DoctorTest, JudgesTheLock) {
    fake.hold();
    fake.world.flags.setByHand(fake.app, false);
    fake.processes.processes = {5};
    EXPECT_EQ(examined("lock"), isProblem("lock", "The bundle is not locked, but should be",
                                          "The helper sets it back within 2 seconds."));
}

TEST_F(DoctorTest, JudgesTheSession) {
    EXPECT_EQ(examined("session").verdict, Verdict::notApplicable);
    fake.world.session.console = FakeMachine::ann;
    EXPECT_EQ(examined("person"), isOk("person", "1000"));
    EXPECT_EQ(examined("session"),
              isOk("session", "ann (uid 1000) is at the console; the app does not run for them"));
    fake.hold();
    EXPECT_EQ(examined("session").verdict, Verdict::problem);
    fake.world.session.start(fake.app, FakeMachine::ann);
    EXPECT_EQ(examined("session"),
              isOk("session", "ann (uid 1000) is at the console; the app runs for them"));
    fake.world.session.quitAll();
    fake.hold().uid = 1001;
    EXPECT_EQ(examined("session").verdict, Verdict::ok);
    fake.hold(Seconds{0});
    EXPECT_EQ(examined("session").verdict, Verdict::ok);
}

TEST_F(DoctorTest, SaysWhatOnlyRootCanSee) {
    fake.machine.isRoot = false;
    fake.world.flags.setByHand(fake.app, true);
    for (const char* name : {"helper", "state", "lock"}) {
        EXPECT_EQ(examined(name), needsRoot(name));
    }
    EXPECT_EQ(examined("bundle"), isOk("bundle", fake.app));
    EXPECT_THAT(doctorText(examine(fake.machine, {})), HasSubstr("Type: sudo halvoctl doctor\n"));
}

TEST_F(DoctorTest, JudgesTheFilesOfTheHelper) {
    // Nothing in a folder for temporary files is root's alone.
    const Check check = examined("helper files");
    EXPECT_EQ(check.verdict, Verdict::problem);
    EXPECT_THAT(check.advice, HasSubstr("Install it again"));
    EXPECT_EQ(checkHelperFiles({{"/usr/bin/env"}, "/"}),
              isOk("helper files", "root's alone, in /usr/bin"));
}

TEST_F(DoctorTest, JudgesWhatIsStored) {
    const std::string folder = "/root-none-here";
    EXPECT_EQ(checkState(folder + "/commitment.json", StateFile::none),
              isOk("state", "nothing is stored, in " + folder));
    const Check check = checkState(fake.disk / "commitment.json", StateFile::whole);
    EXPECT_EQ(check.verdict, Verdict::problem) << "in a folder that is not root's alone";
    EXPECT_EQ(checkState("/usr/commitment.json", StateFile::whole),
              isProblem("state", "others than root can look into /usr", "chmod 700 /usr"));
}

TEST_F(DoctorTest, TellsWhatItSaw) {
    const Checks checks{isOk("first", "fine"), isProblem("second", "broken", "Mend it."),
                        isNotApplicable("third", "not here")};
    EXPECT_TRUE(hasProblem(checks));
    EXPECT_FALSE(hasProblem({checks[0], checks[2], needsRoot("fourth")}));
    EXPECT_EQ(doctorText(checks),
              "ok              first   fine\n"
              "problem         second  broken\n"
              "                        -> Mend it.\n"
              "not applicable  third   not here\n"
              "1 problem.\n");
    EXPECT_EQ(doctorText({checks[0]}), "ok  first  fine\nNo problem.\n");
    EXPECT_EQ(Json::parse(doctorJSON({checks[1], needsRoot("fourth")})),
              (Json{{"checks",
                     {{{"name", "second"},
                       {"verdict", "problem"},
                       {"finding", "broken"},
                       {"advice", "Mend it."}},
                      {{"name", "fourth"},
                       {"verdict", "needs root"},
                       {"finding", "only root can look at it"},
                       {"advice", nullptr}}}},
                    {"problems", 1}}));
}

}  // namespace
}  // namespace halvo::control
