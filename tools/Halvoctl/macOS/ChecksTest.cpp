#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {
namespace {

class ChecksTest : public ::testing::Test {
  protected:
    ChecksTest() { fake::reset(); }

    FakeMachine fake;
};

TEST_F(ChecksTest, LookAtTheFilesOfTheHelperFromItsBundleDownwards) {
    fake.machine.helper = "/Applications/Contents/Halvo.app/Contents/Helpers/HalvoHelper";
    const HelperFiles files = helperFiles(fake.machine);
    EXPECT_EQ(files.paths, (std::vector<std::string>{
                               "/Applications/Contents/Halvo.app/Contents/Helpers/HalvoHelper",
                               "/Applications/Contents/Halvo.app/Contents/Helpers/halvoctl"}));
    EXPECT_EQ(files.top, "/Applications/Contents/Halvo.app");
}

TEST_F(ChecksTest, LookAtTheFolderOfAHelperInNoBundle) {
    fake.machine.helper = "/usr/local/libexec/HalvoHelper";
    const HelperFiles files = helperFiles(fake.machine);
    EXPECT_EQ(files.paths, (std::vector<std::string>{"/usr/local/libexec/HalvoHelper",
                                                     "/usr/local/libexec/halvoctl"}));
    EXPECT_EQ(files.top, "/usr/local/libexec");
    EXPECT_EQ(files.risk,
              "Whoever can change the helper can keep it from starting, and whoever can change "
              "halvoctl becomes root when an administrator runs it.");
}

TEST_F(ChecksTest, LookForLocksThatNoRecordOwesInTheAppsOwnBundles) {
    const auto homes = otherApplications(fake.machine);
    EXPECT_NE(std::ranges::find(homes, "/root/Applications"), homes.end());
    fake.world.flags.setByHand(fake.app, true);
    const auto own = geteuid() == 0 ? std::vector{fake.app} : std::vector<std::string>{};
    EXPECT_EQ(orphanedLocks(fake.machine, NoCommitment{}), own);
}

TEST_F(ChecksTest, LookAtNothingThatAMacDoesNotHave) {
    EXPECT_TRUE(examineApp(fake.machine, fake.app).empty());
    EXPECT_TRUE(examineSession(fake.machine, 501).empty());
}

// What the helper does for an opening: HalvoHelper/macOS/LiveOpener.mm.
class ChecksPrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        std::filesystem::create_directory(bundle);
        testing::writeTestFile(fake.machine.helper = bundle + "/HalvoHelper", "the helper");
        fake::world().signedFiles["the helper"] = fake.machine.identity.helperRequirement();
    }

    void cleanUp() override {
        std::filesystem::remove_all(bundle);
        std::filesystem::remove_all(folder);
    }

    FakeMachine fake;
    const std::string bundle = "/Applications/Halvo.app";
    const std::string folder = "/Library/Application Support/com.example.app.helper.copy";
};

TEST_F(ChecksPrivateMachineTest, SayHowTheAppIsOpened) {
    EXPECT_EQ(examineService(fake.machine),
              Checks{isOk("opening", "by the helper's own executable, which is root's alone")});
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    const std::string theirs = bundle + " belongs to user " + std::to_string(user.uid);
    const Checks copied{
        isOk("opening", "through a checked copy of the helper in " + folder + ", since " + theirs)};
    EXPECT_EQ(examineService(fake.machine), copied);
    std::filesystem::create_directory(folder);
    EXPECT_EQ(examineService(fake.machine), copied);
    ASSERT_EQ(chown(folder.c_str(), user.uid, user.gid), 0);
    EXPECT_EQ(examineService(fake.machine),
              Checks{isProblem("opening",
                               folder + " belongs to user " + std::to_string(user.uid) +
                                   "; so the app is not opened again",
                               "rm -r '" + folder + "'")});
    testing::writeTestFile(fake.machine.helper, "something else");
    EXPECT_EQ(examineService(fake.machine),
              Checks{isProblem("opening",
                               fake.machine.helper +
                                   ": code object is not signed at all; so the app is not opened "
                                   "again, since " +
                                   theirs,
                               "Install the app again.")});
}

}  // namespace
}  // namespace halvo::control
