#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/FakeMachine.hpp"
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
}

TEST_F(ChecksTest, LookForLocksThatNoRecordOwesInTheAppsOwnBundles) {
    const auto homes = otherApplications(fake.machine);
    EXPECT_NE(std::ranges::find(homes, "/root/Applications"), homes.end());
    fake.world.flags.setByHand(fake.app, true);
    const auto own = geteuid() == 0 ? std::vector{fake.app} : std::vector<std::string>{};
    EXPECT_EQ(orphanedLocks(fake.machine, NoCommitment{}), own);
}

TEST_F(ChecksTest, LookAtNothingThatAMacDoesNotHave) {
    EXPECT_TRUE(examineService(fake.machine).empty());
    EXPECT_TRUE(examineApp(fake.machine, fake.app).empty());
    EXPECT_TRUE(examineSession(fake.machine, 501).empty());
}

}  // namespace
}  // namespace halvo::control
