#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/Observation.hpp"
#include "tools/Halvoctl/macOS/LaunchdService.hpp"

namespace halvo::control {
namespace {

TEST(ChecksTest, LookAtTheFilesOfTheHelperFromItsBundleDownwards) {
    const HelperFiles files =
        helperFiles("/Applications/Contents/Halvo.app/Contents/Helpers/HalvoHelper");
    EXPECT_EQ(files.paths, (std::vector<std::string>{
                               "/Applications/Contents/Halvo.app/Contents/Helpers/HalvoHelper",
                               "/Applications/Contents/Halvo.app/Contents/Helpers/halvoctl"}));
    EXPECT_EQ(files.top, "/Applications/Contents/Halvo.app");
}

TEST(ChecksTest, LookAtTheFolderOfAHelperInNoBundle) {
    const HelperFiles files = helperFiles("/usr/local/libexec/HalvoHelper");
    EXPECT_EQ(files.paths, (std::vector<std::string>{"/usr/local/libexec/HalvoHelper",
                                                     "/usr/local/libexec/halvoctl"}));
    EXPECT_EQ(files.top, "/usr/local/libexec");
    EXPECT_EQ(files.risk,
              "Whoever can change the helper can keep it from starting, and whoever can change "
              "halvoctl becomes root when an administrator runs it.");
}

TEST(ClearCommandTest, IsForAShell) {
    EXPECT_EQ(clearCommand("/Applications/My App.app"),
              "chflags noschg '/Applications/My App.app'");
}

// What the helper does for an opening: HalvoHelper/macOS/LiveOpener.mm.
class ChecksPrivateMachineTest : public testing::PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        std::filesystem::create_directory(bundle);
        testing::writeTestFile(helper, "the helper");
        fake::world().signedFiles["the helper"] = identity.helperRequirement();
    }

    void cleanUp() override {
        std::filesystem::remove_all(bundle);
        std::filesystem::remove_all(folder);
    }

    Check opening() { return checkOpening(helper, identity); }

    const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
    const std::string bundle = "/Applications/Halvo.app";
    const std::string helper = bundle + "/HalvoHelper";
    const std::string folder = "/Library/Application Support/com.example.app.helper.copy";
};

TEST_F(ChecksPrivateMachineTest, SayHowTheAppIsOpened) {
    EXPECT_EQ(opening(), isOk("opening", "by the helper's own executable, which is root's alone"));
    ASSERT_EQ(chown(bundle.c_str(), user.uid, user.gid), 0);
    const std::string theirs = bundle + " belongs to user " + std::to_string(user.uid);
    const Check copied =
        isOk("opening", "through a checked copy of the helper in " + folder + ", since " + theirs);
    EXPECT_EQ(opening(), copied);
    std::filesystem::create_directory(folder);
    EXPECT_EQ(opening(), copied);
    ASSERT_EQ(chown(folder.c_str(), user.uid, user.gid), 0);
    EXPECT_EQ(opening(), isProblem("opening",
                                   folder + " belongs to user " + std::to_string(user.uid) +
                                       "; so the app is not opened again",
                                   "rm -r '" + folder + "'"));
    testing::writeTestFile(helper, "something else");
    EXPECT_EQ(opening(),
              isProblem("opening",
                        helper +
                            ": code object is not signed at all; so the app is not opened "
                            "again, since " +
                            theirs,
                        "Install the app again."));
}

}  // namespace
}  // namespace halvo::control
