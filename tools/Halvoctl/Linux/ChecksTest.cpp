#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Linux/SystemdService.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

Descriptor boundSocket(const std::string& path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = *socketAddress(path);
    EXPECT_EQ(bind(socket.get(), generic(address), sizeof address), 0);
    return socket;
}

const std::string refused = ", so the helper refuses the app";

TEST(SandboxTest, LetsTheHelperLockWhereItMayWrite) {
    Units units;
    units.service.name = "x.service";
    units.writable = {"/Applications", "/srv/", "/data/Applications2"};
    const auto check = [&](const std::string& folder) {
        return checkSandbox(units, folder + "/Halvo.app");
    };
    for (const std::string folder :
         {"/Applications", "/Applications/Sub/Applications", "/srv", "/srv/Applications"}) {
        EXPECT_EQ(check(folder), isOk("sandbox", "the helper can lock what lies in " + folder));
    }
    EXPECT_EQ(checkSandbox(Units{}, "/Other/Halvo.app").verdict, Verdict::ok);
    const std::string advice = "systemctl edit x.service, with the lines [Service], ";
    const std::string restart = "; then systemctl restart x.service";
    EXPECT_EQ(check("/data/Applications"),
              isProblem("sandbox",
                        "x.service may not write to /data/Applications, so the helper cannot lock "
                        "there",
                        advice +
                            "ReadWritePaths=-/data/Applications, [Unit], "
                            "RequiresMountsFor=/data/Applications" +
                            restart));
    EXPECT_EQ(check("/data/100% mine/Applications").advice,
              advice +
                  "ReadWritePaths=\"-/data/100%% mine/Applications\", [Unit], "
                  "RequiresMountsFor=\"/data/100%% mine/Applications\"" +
                  restart);
    for (const std::string folder : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
        EXPECT_EQ(check(folder + "/anna/Applications").advice,
                  "What lies below " + folder +
                      " it cannot see at all. Install the app into /Applications.");
    }
}

TEST(GroupTest, HasAdviceForEachFlaw) {
    const GroupFacts fine{.gid = 990,
                          .name = "halvo-app",
                          .password = "x",
                          .shadowPassword = "!",
                          .members = {},
                          .administrators = {},
                          .owners = {},
                          .hasShadow = true};
    EXPECT_EQ(checkGroup(fine), isOk("app's group", "halvo-app (990) is the app's alone"));
    EXPECT_EQ(checkGroup(std::unexpected("/etc/group: Input/output\nerror")),
              isProblem("app's group", "/etc/group: Input/output\\nerror",
                        "The helper must read it too: repair that file."));
    GroupFacts facts = fine;
    facts.hasShadow = false;
    EXPECT_EQ(checkGroup(facts).finding,
              "halvo-app (990) is the app's alone, as far as can be seen without root");

    struct {
        void (*spoil)(GroupFacts&);
        std::string finding;
        std::string advice;
    } const rows[] = {
        {[](GroupFacts& f) { f.members = {"ann", "ben\x1B"}; },
         "the group halvo-app has members: ann, ben\\u001b",
         "Remove them: gpasswd --delete USER halvo-app"},
        {[](GroupFacts& f) { f.owners = {"ann"}; },
         "the group halvo-app is the primary group of ann", "Give the app a group of its own."},
        {[](GroupFacts& f) { f.administrators = {"ann"}; },
         "the group halvo-app has administrators: ann",
         "They can add members. Remove them: gpasswd --administrators '' halvo-app"},
        {[](GroupFacts& f) { f.shadowPassword = "$6$hash"; }, "the group halvo-app has a password",
         "Lock it: gpasswd --restrict halvo-app"},
        {[](GroupFacts& f) { f.name.reset(); }, "the group 990 has no name",
         "A new group may get this number, and its members could pass for the app. Install the app "
         "again, or put the group into /etc/group."},
        {[](GroupFacts& f) { f.gid = 0; }, "the group 0 is root's",
         "Give the app a group of its own: groupadd --system NAME, chgrp NAME, chmod 2755."}};

    for (const auto& row : rows) {
        facts = fine;
        row.spoil(facts);
        EXPECT_EQ(checkGroup(facts), isProblem("app's group", row.finding + refused, row.advice));
    }
}

TEST(SocketCheckTest, RequiresASocketOfRootThatAllUsersMayCall) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const testing::TemporaryFolder folder;
    const std::string path = folder / "s";
    const auto check = [&] { return checkSocket(path, true, "Restart."); };
    const auto problem = [](const std::string& finding) {
        return isProblem("socket", finding, "Restart.");
    };
    EXPECT_EQ(check(), problem("there is none at " + path));
    EXPECT_EQ(checkSocket(path, false, "Restart."),
              isNotApplicable("socket", "the helper makes " + path + " when it runs"));
    testing::writeTestFile(path, "");
    EXPECT_EQ(check(), isProblem("socket", path + " is not a socket", "Remove it, then: Restart."));
    fs::remove(path);

    const Descriptor socket = boundSocket(path);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    const std::string closed =
        path + " is not owned by root with mode 0666, which lets all users call";
    EXPECT_EQ(check(), problem(closed));
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(check(), problem("no process listens at " + path));
    ASSERT_EQ(listen(socket.get(), 1), 0);
    EXPECT_EQ(check(), isOk("socket", path));
    ASSERT_EQ(chown(path.c_str(), FakeMachine::ann, 0), 0);
    EXPECT_EQ(check(), problem(closed));
}

TEST(ChecksTest, FindOptionalSocketsAndTheFlag) {
    const testing::TemporaryFolder folder;
    const std::string path = folder / "s";
    const auto check = [](const std::string& socket) {
        return checkOptionalSocket("log", socket, "there", "not there");
    };
    EXPECT_EQ(check(path), isNotApplicable("log", "not there"));
    EXPECT_EQ(check(folder.path()), isNotApplicable("log", "not there")) << "it is a folder";
    const Descriptor socket = boundSocket(path);
    EXPECT_EQ(check(path), isOk("log", "there"));
    EXPECT_EQ(clearCommand("/Applications/My App.app"), "chattr -i '/Applications/My App.app'");
    EXPECT_THAT(checkFlagSupport("/nowhere/Halvo.app", true).finding,
                StartsWith("/nowhere/Halvo.app: No such file"));
    EXPECT_EQ(checkFlagSupport("/proc", true).verdict, Verdict::problem);
    EXPECT_THAT(checkFlagSupport("/proc", true).finding,
                StartsWith("the file system of /proc does not support the immutable flag ("));
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

TEST_F(ChecksPrivateMachineTest, RefuseWhatTheHelperWouldRefuse) {
    EXPECT_THAT(checkAppFiles(app),
                ElementsAre(isOk("app's files", "root's alone, the executable set-group-id"),
                            Field(&Check::name, "app's group")));
    const auto finding = [&] { return checkAppFiles(app).front().finding; };
    ASSERT_EQ(chmod(executable.c_str(), 0755), 0);
    EXPECT_EQ(finding(), executable + " is not set-group-id" + refused);
    EXPECT_THAT(checkAppFiles(app), SizeIs(1));
    ASSERT_EQ(chmod((app + "/Contents/Info.plist").c_str(), 0666), 0);
    EXPECT_EQ(finding(),
              "others than its owner can write to " + app + "/Contents/Info.plist" + refused);
    ASSERT_EQ(chown(app.c_str(), user.uid, 0), 0);
    EXPECT_EQ(finding(), app + " belongs to user " + std::to_string(user.uid) + refused);
    fs::remove(executable);
    EXPECT_EQ(finding(), app + " has no executable that its Info.plist names");
    EXPECT_THAT(checkAppFiles(app), SizeIs(1));
}

TEST_F(ChecksPrivateMachineTest, SeeWhetherTheHelperCanLock) {
    EXPECT_EQ(checkFlagSupport(app, true), isOk("file system", "has the immutable flag"));
    const Check check = checkFlagSupport(app, false);
    EXPECT_EQ(check.finding, "root may not set the immutable flag here");
    EXPECT_THAT(check.advice, HasSubstr("CAP_LINUX_IMMUTABLE"));
    ASSERT_EQ(mount(app.c_str(), app.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, app.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID, nullptr), 0);
    EXPECT_THAT(checkAppFiles(app).front().finding, HasSubstr("mounted with nosuid"));
    ASSERT_EQ(mount(nullptr, app.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(checkFlagSupport(app, true).finding,
              "the file system of " + app + " is mounted read-only");
    EXPECT_EQ(checkAppFiles(app).front().verdict, Verdict::ok);
    ASSERT_EQ(umount(app.c_str()), 0);
}

}  // namespace
}  // namespace halvo::control
