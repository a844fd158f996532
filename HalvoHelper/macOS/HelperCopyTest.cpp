#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Result = std::expected<std::string, std::string>;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string folder = "/Library/Application Support/com.example.app.helper.copy";
const std::string copy = folder + "/HalvoHelper";
const std::string unchecked = copy + ".unchecked";

// The executable lies in a bundle of the person's.
class HelperCopyPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        fake::world().signedFiles["the helper"] = identity.helperRequirement();
        fake::world().signedFiles["the app"] = identity.appRequirement();
        put("the helper");
    }

    void cleanUp() override {
        fs::remove_all(folder);
        fs::remove_all(executable);
    }

    void put(const std::string& bytes) const { writeTestFile(executable, bytes); }

    // That there is no copy for this reason, and nothing is left of a try.
    void expectRefusal(const std::string& reason) const {
        EXPECT_EQ(HelperCopy::make(executable, identity), Result(std::unexpected(reason)));
        EXPECT_FALSE(fs::exists(folder));
    }

    TemporaryFolder disk;
    const std::string executable = disk / "HalvoHelper";
};

TEST_F(HelperCopyPrivateMachineTest, LiesWhereRootAloneCanReachIt) {
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    EXPECT_EQ(readTestFile(copy), "the helper");
    for (const std::string& path : {folder, copy}) {
        struct stat status{};
        ASSERT_EQ(lstat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0700U) << path;
        EXPECT_EQ(status.st_uid, 0U) << path;
    }
    expectInChild([&] {
        become(user);
        EXPECT_EQ(open(copy.c_str(), O_RDONLY), -1);
        EXPECT_EQ(unlink(copy.c_str()), -1);
        EXPECT_EQ(rename(folder.c_str(), "/tmp/mine"), -1);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
    });
    HelperCopy::remove(identity);
    EXPECT_FALSE(fs::exists(folder));
}

// Strictly, every architecture, and without the network: CSCommon.h and SecStaticCode.h.
TEST_F(HelperCopyPrivateMachineTest, IsItselfWhatIsChecked) {
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    EXPECT_THAT(fake::world().signatureChecks,
                ElementsAre(fake::SignatureCheck{unchecked, 0x20000011}));
}

TEST_F(HelperCopyPrivateMachineTest, IsNotTouchedByWhoChangesTheBundleMeanwhile) {
    fake::world().onSignatureCheck = [this] { put("a way to root"); };
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    EXPECT_EQ(readTestFile(copy), "the helper");
    // And what is checked is what is there by then.
    put("the helper");
    fake::world().onSignatureCheck = [] { writeTestFile(unchecked, "a way to root"); };
    expectRefusal(unchecked + ": code object is not signed at all");
}

// What the last opening has started may still be on its way there.
TEST_F(HelperCopyPrivateMachineTest, IsNeverAtItsPathBeforeItWasChecked) {
    fake::world().onSignatureCheck = [] { EXPECT_FALSE(fs::exists(copy)); };
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    put("a way to root");
    fake::world().onSignatureCheck = [] { EXPECT_EQ(readTestFile(copy), "the helper"); };
    expectRefusal(unchecked + ": code object is not signed at all");
}

TEST_F(HelperCopyPrivateMachineTest, IsMadeAnewEachTimeFromWhatTheBundleHoldsByThen) {
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    struct stat first{};
    ASSERT_EQ(stat(copy.c_str(), &first), 0);
    const int held = open(copy.c_str(), O_RDONLY | O_CLOEXEC);
    fake::world().signedFiles["the next release"] = identity.helperRequirement();
    put("the next release");
    EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
    EXPECT_EQ(readTestFile(copy), "the next release");
    struct stat second{};
    ASSERT_EQ(stat(copy.c_str(), &second), 0);
    EXPECT_NE(first.st_ino, second.st_ino) << "what runs from the first is left alone";
    close(held);
}

TEST_F(HelperCopyPrivateMachineTest, IsRefusedForWhatTheTeamHasSignedAsSomethingElse) {
    put("the app");
    expectRefusal(unchecked + ": code failed to satisfy specified code requirement(s)");
    fake::world().errorsHaveTexts = false;
    expectRefusal(unchecked + ": code signing error -67050");
}

TEST_F(HelperCopyPrivateMachineTest, IsNotMadeOfWhatIsNoFileOrMoreThanAHelperCanBe) {
    fs::resize_file(executable, 16777216);
    expectRefusal(unchecked + ": code object is not signed at all");
    fs::resize_file(executable, 16777217);
    expectRefusal(executable + ": File too large");
    fs::remove(executable);
    expectRefusal(executable + ": No such file or directory");
    ASSERT_EQ(mkfifo(executable.c_str(), 0666), 0);
    expectRefusal(executable + ": Invalid argument");
    fs::remove(executable);
    fs::create_directory(executable);
    expectRefusal(executable + ": Invalid argument");
}

TEST_F(HelperCopyPrivateMachineTest, IsNotPutWhereAnotherUserCouldChangeIt) {
    fs::create_directory(disk / "theirs");
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[this] {
             fs::create_directory(folder);
             ASSERT_EQ(chown(folder.c_str(), user.uid, user.gid), 0);
         },
         folder + " belongs to user " + std::to_string(user.uid)},
        {[this] { fs::create_directory_symlink(disk / "theirs", folder); },
         folder + " is a symbolic link"},
        {[] { writeTestFile(folder, ""); }, folder + ": Not a directory"},
        {[] { fs::create_directories(unchecked); }, unchecked + ": Is a directory"},
        {[] { fs::create_directories(copy); }, copy + ": Is a directory"},
    };
    for (const auto& [spoil, reason] : rows) {
        EXPECT_THAT(fake::world().signatureChecks, IsEmpty());
        spoil();
        EXPECT_EQ(HelperCopy::make(executable, identity), Result(std::unexpected(reason)));
        fs::remove_all(folder);
    }
    EXPECT_TRUE(fs::is_empty(disk / "theirs"));
}

TEST_F(HelperCopyPrivateMachineTest, GoesWhenTheProcessEnds) {
    for (const int openings : {1, 2}) {
        expectInChild([&] {
            for (int count = 0; count < openings; ++count) {
                EXPECT_EQ(HelperCopy::make(executable, identity), Result(copy));
            }
            EXPECT_TRUE(fs::exists(copy));
            std::exit(::testing::Test::HasFailure() ? 1 : 0);
        });
        EXPECT_FALSE(fs::exists(folder)) << openings;
    }
}

TEST(CodeSignatureTest, IsCheckedAgainstARequirementThatCanBeReadAndLeavesNothingBehind) {
    fake::reset();
    const TemporaryFolder disk;
    const std::string file = disk / "file";
    writeTestFile(file, "signed");
    using Checked = std::expected<void, std::string>;
    const long before = fake::liveObjects("NSObject");
    fake::world().signedFiles["signed"] = identity.helperRequirement();
    EXPECT_EQ(checkCodeSignature(file, identity.helperRequirement()), Checked());
    EXPECT_FALSE(checkCodeSignature(file, identity.appRequirement()));
    EXPECT_EQ(checkCodeSignature("/nowhere", identity.helperRequirement()),
              Checked(std::unexpected("/nowhere: code signing error -67068")));
    // A requirement that cannot be parsed is an error; else any signature would satisfy it.
    fake::world().signatureChecks.clear();
    fake::world().signedFiles["signed"] = "anything";
    EXPECT_EQ(checkCodeSignature(file, "anything"),
              Checked(std::unexpected(file + ": code signing error -67052")));
    EXPECT_THAT(fake::world().signatureChecks, IsEmpty());
    EXPECT_EQ(fake::liveObjects("NSObject"), before);
}

}  // namespace
}  // namespace halvo::testing
