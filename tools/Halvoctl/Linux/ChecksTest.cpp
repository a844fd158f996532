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
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Linux/Checks.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

const Unit socketUp{"loaded", "active", "enabled", "success", ""};
const Unit serviceUp{"loaded", "inactive", "static", "success", ""};
const Unit resumeUp{"loaded", "inactive", "enabled", "success", ""};

TEST(UnitChecksTest, AreFineWhenAllIsEnabled) {
    EXPECT_EQ(
        checkUnits(identity, Units{socketUp, serviceUp, resumeUp}),
        (Checks{isOk("systemd", "com.example.app.helper.socket is enabled, active"),
                isOk("systemd", "com.example.app.helper.service is static, inactive"),
                isOk("systemd", "com.example.app.helper-resume.service is enabled, inactive")}));
}

TEST(UnitChecksTest, SayWhatIsWrongWithAUnit) {
    const auto socket = [](const Unit& unit) {
        return checkUnits(identity, Units{unit, serviceUp, resumeUp}).at(0);
    };
    const std::string name = "com.example.app.helper.socket";
    EXPECT_EQ(socket({"masked", "inactive", "masked", "", ""}),
              isProblem("systemd", name + " is masked", "systemctl unmask " + name));
    EXPECT_EQ(socket({"not-found", "inactive", "", "", ""}),
              isProblem("systemd", name + " is not-found", "Install the helper's package again."));
    EXPECT_EQ(socket({"loaded", "failed", "enabled", "resources", ""}).finding,
              name + " has failed: resources");
    EXPECT_EQ(socket({"loaded", "active", "disabled", "success", ""}),
              isProblem("systemd", name + " is not enabled", "systemctl enable " + name));
    EXPECT_EQ(socket({"loaded", "inactive", "enabled", "success", ""}),
              isProblem("systemd", name + " is not active", "systemctl start " + name));
    EXPECT_THAT(
        checkUnits(identity,
                   Units{socketUp, {"loaded", "failed", "static", "exit-code", ""}, resumeUp})
            .at(1)
            .advice,
        HasSubstr("systemctl reset-failed com.example.app.helper.service"));
    EXPECT_EQ(
        checkUnits(identity, Units{socketUp,
                                   {"loaded", "activating", "static", "exit-code", "auto-restart"},
                                   resumeUp})
            .at(1),
        isProblem("systemd",
                  "com.example.app.helper.service ended, and systemd starts it again: exit-code",
                  "Look again. If it stays so, the journal says why: journalctl "
                  "--unit=com.example.app.helper.service"));
    EXPECT_EQ(checkUnits(identity, Units{socketUp, serviceUp, {"loaded", "", "disabled", "", ""}})
                  .at(2)
                  .advice,
              "systemctl enable com.example.app.helper-resume.service");
    EXPECT_EQ(checkUnits(identity, Units{socketUp, {"loaded", "active", "", "", ""}, resumeUp})
                  .at(1)
                  .finding,
              "com.example.app.helper.service is active");
}

TEST(UnitChecksTest, SayWhySystemdDoesNotTell) {
    EXPECT_EQ(
        checkUnits(identity, std::unexpected("It is stuck")),
        (Checks{isProblem("systemd", "It is stuck", "Look whether systemctl works at all.")}));
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
