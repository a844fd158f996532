#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Linux/Checks.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

const Unit socketUp{"loaded", "active", "enabled", "success", ""};
const Unit serviceUp{"loaded", "inactive", "static", "success", ""};
const Unit resumeUp{"loaded", "inactive", "enabled", "success", ""};

TEST(UnitChecksTest, AreFineWhenAllIsEnabled) {
    EXPECT_EQ(
        checkUnits(identity, Units{socketUp, serviceUp, resumeUp, {}}),
        (Checks{isOk("systemd", "com.example.app.helper.socket is enabled, active"),
                isOk("systemd", "com.example.app.helper.service is static, inactive"),
                isOk("systemd", "com.example.app.helper-resume.service is enabled, inactive")}));
}

TEST(UnitChecksTest, SayWhatIsWrongWithAUnit) {
    const std::string socket = "com.example.app.helper.socket";
    const std::string service = "com.example.app.helper.service";
    const std::string resume = "com.example.app.helper-resume.service";
    const auto found = [](const std::string& finding, const std::string& advice) {
        return isProblem("systemd", finding, advice);
    };

    struct {
        Units units;
        std::size_t which;
        Check check;
    } const rows[] = {
        {{{"masked", "inactive", "masked", "", ""}, serviceUp, resumeUp, {}},
         0,
         found(socket + " is masked", "systemctl unmask " + socket)},
        {{{"not-found", "inactive", "", "", ""}, serviceUp, resumeUp, {}},
         0,
         found(socket + " is not-found", "Install the helper's package again.")},
        {{{"loaded", "active", "disabled", "success", ""}, serviceUp, resumeUp, {}},
         0,
         found(socket + " is not enabled", "systemctl enable " + socket)},
        {{{"loaded", "inactive", "enabled", "success", ""}, serviceUp, resumeUp, {}},
         0,
         found(socket + " is not active", "systemctl start " + socket)},
        {{socketUp, {"loaded", "failed", "static", "exit-code", ""}, resumeUp, {}},
         1,
         found(service + " has failed: exit-code",
               "Look into systemctl status " + service +
                   ", mend what it names, then: systemctl reset-failed " + service)},
        {{socketUp, {"loaded", "activating", "static", "exit-code", "auto-restart"}, resumeUp, {}},
         1,
         found(service + " ended, and systemd starts it again: exit-code",
               "Look again. If it stays so, the journal says why: journalctl --unit=" + service)},
        {{socketUp, {"loaded", "active", "", "", ""}, resumeUp, {}},
         1,
         isOk("systemd", service + " is active")},
        {{socketUp, serviceUp, {"loaded", "", "disabled", "", ""}, {}},
         2,
         found(resume + " is not enabled", "systemctl enable " + resume)}};

    for (const auto& [units, which, check] : rows) {
        EXPECT_EQ(checkUnits(identity, units).at(which), check);
    }
}

TEST(UnitChecksTest, SayWhySystemdDoesNotTell) {
    EXPECT_EQ(
        checkUnits(identity, std::unexpected("It is stuck")),
        (Checks{isProblem("systemd", "It is stuck", "Look whether systemctl works at all.")}));
}

TEST(SandboxTest, LetsTheHelperLockWhereItMayWrite) {
    const Sandbox sandbox{true, {"/Applications", "/srv/"}};
    for (const char* folder :
         {"/Applications", "/Applications/Sub/Applications", "/srv", "/srv/Applications"}) {
        EXPECT_EQ(checkSandbox(identity, std::string(folder) + "/Halvo.app", sandbox),
                  isOk("sandbox", std::string("the helper can lock what lies in ") + folder));
    }
    EXPECT_EQ(checkSandbox(identity, "/Other/Halvo.app", Sandbox{false, {}}).verdict, Verdict::ok);
}

TEST(SandboxTest, KeepsTheHelperFromLockingElsewhere) {
    const Sandbox sandbox{true, {"/Applications", "/srv/Applications2"}};
    EXPECT_EQ(checkSandbox(identity, "/srv/Applications/Halvo.app", sandbox),
              isProblem("sandbox",
                        "com.example.app.helper.service may not write to /srv/Applications, so the "
                        "helper cannot lock there",
                        "systemctl edit com.example.app.helper.service, with the lines [Service], "
                        "ReadWritePaths=-/srv/Applications, [Unit], "
                        "RequiresMountsFor=/srv/Applications; then systemctl restart "
                        "com.example.app.helper.service"));
    EXPECT_EQ(checkSandbox(identity, "/srv/100% mine/Applications/Halvo.app", sandbox).advice,
              "systemctl edit com.example.app.helper.service, with the lines [Service], "
              "ReadWritePaths=\"-/srv/100%% mine/Applications\", [Unit], "
              "RequiresMountsFor=\"/srv/100%% mine/Applications\"; then systemctl restart "
              "com.example.app.helper.service");
}

TEST(SandboxTest, HidesSomeFolders) {
    const Sandbox sandbox{true, {"/Applications"}};
    for (const std::string folder : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
        EXPECT_EQ(checkSandbox(identity, folder + "/anna/Applications/Halvo.app", sandbox).advice,
                  "What lies below " + folder +
                      " it cannot see at all. Install the app into /Applications.");
    }
}

TEST(SandboxTest, LetsTheHelperLockInFoldersForApplications) {
    EXPECT_EQ(
        lockableFolders({true,
                         {"/Applications", "/Library/Application Support", "/srv/Applications",
                          "/srv/MyApplications"}}),
        (std::vector<std::string>{"/Applications", "/Library/Application Support/Applications",
                                  "/srv/Applications", "/srv/MyApplications/Applications"}));
    EXPECT_EQ(lockableFolders({false, {"/Applications"}}), homeApplications());
    EXPECT_THAT(homeApplications(), Contains("/root/Applications"));
}

class GroupTest : public ::testing::Test {
  protected:
    GroupTest() {
        facts.gid = 990;
        facts.name = "halvo-app";
        facts.password = "x";
        facts.shadowPassword = "!";
        facts.hasShadow = true;
    }

    // What is wrong with the group.
    std::string problem() {
        const Check check = checkGroup(facts);
        EXPECT_EQ(check.verdict, Verdict::problem);
        EXPECT_NE(check.advice, "");
        EXPECT_EQ(check.advice.find("hash"), std::string::npos);
        const std::string end = ", so the helper refuses the app";
        EXPECT_TRUE(check.finding.ends_with(end)) << check.finding;
        return check.finding.substr(0, check.finding.size() - end.size());
    }

    GroupFacts facts;
};

TEST_F(GroupTest, IsAsItMustBeWhenItIsNobodys) {
    EXPECT_EQ(checkGroup(facts), isOk("app's group", "halvo-app (990) is nobody's"));
    facts.hasShadow = false;
    EXPECT_EQ(checkGroup(facts).finding,
              "halvo-app (990) is nobody's, as far as can be seen without root");
}

TEST_F(GroupTest, HasAdviceForEachFlaw) {
    facts.members = {"ann", "ben\x1B"};
    EXPECT_EQ(problem(), "the group halvo-app has members: ann, ben\\u001b");
    facts.members.clear();
    facts.owners = {"ann"};
    EXPECT_EQ(problem(), "the group halvo-app is the own group of ann");
    facts.owners.clear();
    facts.administrators = {"ann"};
    EXPECT_EQ(problem(), "the group halvo-app has administrators: ann");
    facts.administrators.clear();
    facts.shadowPassword = "$6$hash";
    EXPECT_EQ(problem(), "the group halvo-app has a password");
    facts.name.reset();
    EXPECT_EQ(problem(), "the group 990 has no name");
    facts.gid = 0;
    EXPECT_EQ(problem(), "the group 0 is root's");
}

class SocketCheckTest : public ::testing::Test {
  protected:
    void bindSocket(mode_t mode) {
        socket = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    [[nodiscard]] Check check(bool isExpected = true) const {
        return checkSocket(path, isExpected, "Restart.");
    }

    const testing::TemporaryFolder folder;
    const std::string path = folder / "s";
    Descriptor socket;
};

TEST_F(SocketCheckTest, IsFineWhereEverybodyMayCall) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    bindSocket(0666);
    EXPECT_EQ(check(), isProblem("socket", "nobody listens at " + path, "Restart."));
    ASSERT_EQ(listen(socket.get(), 1), 0);
    EXPECT_EQ(check(), isOk("socket", path));
}

TEST_F(SocketCheckTest, MissesASocket) {
    EXPECT_EQ(check(), isProblem("socket", "there is none at " + path, "Restart."));
    EXPECT_EQ(check(false),
              isNotApplicable("socket", "the helper makes " + path + " when it runs"));
}

TEST_F(SocketCheckTest, RefusesWhatNobodyCanCall) {
    bindSocket(0600);
    EXPECT_EQ(check(),
              isProblem("socket", path + " is not root's with mode 666, as everybody may call",
                        "Restart."));
}

TEST_F(SocketCheckTest, RefusesWhatIsNoSocket) {
    testing::writeTestFile(path, "");
    EXPECT_EQ(check(), isProblem("socket", path + " is no socket", "Remove it, then: Restart."));
}

TEST(ClearCommandTest, IsForAShell) {
    EXPECT_EQ(clearCommand("/Applications/My App.app"), "chattr -i '/Applications/My App.app'");
}

TEST(LogCheckTest, LooksForTheJournal) {
    EXPECT_EQ(checkLog("/").verdict, Verdict::ok);
    EXPECT_EQ(checkLog("/nowhere/socket").verdict, Verdict::notApplicable);
}

TEST(FlagSupportTest, IsTold) {
    EXPECT_THAT(checkFlagSupport("/nowhere/Halvo.app", true).finding,
                StartsWith("/nowhere/Halvo.app: No such file"));
    const Check none = checkFlagSupport("/proc", true);
    EXPECT_EQ(none.verdict, Verdict::problem);
    EXPECT_THAT(none.finding, StartsWith("that of /proc has no immutable flag ("));
}

class ChecksPrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override {
        FakeMachine::writeInfo(app, "com.example.app", "7QX4KD19MT");
        for (const std::string& folder : {app, app + "/Contents", app + "/Contents/MacOS"}) {
            ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
        }
        ASSERT_EQ(chmod((app + "/Contents/Info.plist").c_str(), 0644), 0);
        ASSERT_EQ(chown(executable.c_str(), 0, appGroup), 0);
        ASSERT_EQ(chmod(executable.c_str(), 02755), 0);
    }

    void cleanUp() override { fs::remove_all(app); }

    const std::string app = "/Applications/Checked.app";
    const std::string executable = app + "/Contents/MacOS/Sample";
};

TEST_F(ChecksPrivateMachineTest, AcceptAnAppAsItIsInstalled) {
    EXPECT_EQ(checkAppFiles(app), isOk("app's files", "root's alone, the executable set-group-id"));
    EXPECT_EQ(groupOfApp(app), appGroup);
    EXPECT_EQ(checkFlagSupport(app, true), isOk("file system", "has the immutable flag"));
}

TEST_F(ChecksPrivateMachineTest, RefuseWhatTheHelperWouldRefuse) {
    ASSERT_EQ(chmod(executable.c_str(), 0755), 0);
    EXPECT_EQ(checkAppFiles(app).finding,
              executable + " is not set-group-id, so the helper refuses the app");
    EXPECT_EQ(groupOfApp(app), std::nullopt);
    ASSERT_EQ(chmod((app + "/Contents/Info.plist").c_str(), 0666), 0);
    EXPECT_EQ(checkAppFiles(app).finding,
              "others than its owner can write to " + app +
                  "/Contents/Info.plist, so the helper refuses the app");
    ASSERT_EQ(chown(app.c_str(), user.uid, 0), 0);
    EXPECT_EQ(checkAppFiles(app).finding, app + " belongs to user " + std::to_string(user.uid) +
                                              ", so the helper refuses the app");
    fs::remove(executable);
    EXPECT_EQ(checkAppFiles(app).finding, app + " has no executable that its Info.plist names");
    EXPECT_EQ(groupOfApp(app), std::nullopt);
}

TEST_F(ChecksPrivateMachineTest, SeeHowTheFileSystemIsMounted) {
    ASSERT_EQ(mount(app.c_str(), app.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, app.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID, nullptr), 0);
    EXPECT_THAT(checkAppFiles(app).finding, HasSubstr("mounted with nosuid"));
    ASSERT_EQ(mount(nullptr, app.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(checkFlagSupport(app, true).finding, "that of " + app + " is mounted read-only");
    EXPECT_EQ(checkAppFiles(app).verdict, Verdict::ok);
    ASSERT_EQ(umount(app.c_str()), 0);
}

TEST_F(ChecksPrivateMachineTest, SeeThatRootMayNotLock) {
    const Check check = checkFlagSupport(app, false);
    EXPECT_EQ(check.finding, "root may not set the immutable flag here");
    EXPECT_THAT(check.advice, HasSubstr("CAP_LINUX_IMMUTABLE"));
}

TEST_F(ChecksPrivateMachineTest, LookForAUserManager) {
    EXPECT_EQ(checkUserManager("/run/nowhere").verdict, Verdict::notApplicable);
    EXPECT_EQ(checkUserManager("/run").verdict, Verdict::notApplicable);
}

}  // namespace
}  // namespace halvo::control
