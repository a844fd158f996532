#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <expected>
#include <string>

#include "HalvoHelper/macOS/CodeSignature.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::IsEmpty;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

TEST(CodeSignatureTest, IsNoneOfWhatIsNotThere) {
    fake::reset();
    EXPECT_EQ(
        checkCodeSignature("/nowhere", identity.helperRequirement()),
        (std::expected<void, std::string>(std::unexpected("/nowhere: code signing error -67068"))));
}

// Any signature would do if the words could not be read and nobody noticed.
TEST(CodeSignatureTest, IsNotEnoughForARequirementThatCannotBeRead) {
    fake::reset();
    const TemporaryFolder disk;
    writeTestFile(disk / "file", "signed");
    fake::world().signedFiles["signed"] = "anything";
    EXPECT_EQ(checkCodeSignature(disk / "file", "anything"),
              (std::expected<void, std::string>(
                  std::unexpected(disk / "file: code signing error -67052"))));
    EXPECT_THAT(fake::world().signatureChecks, IsEmpty());
}

TEST(CodeSignatureTest, LeavesNothingBehind) {
    fake::reset();
    const TemporaryFolder disk;
    writeTestFile(disk / "file", "signed");
    fake::world().signedFiles["signed"] = identity.helperRequirement();
    const long before = fake::liveObjects("NSObject");
    for (const auto& requirement : {identity.helperRequirement(), identity.appRequirement()}) {
        static_cast<void>(checkCodeSignature(disk / "file", requirement));
        static_cast<void>(checkCodeSignature(disk / "file", "no requirement"));
        static_cast<void>(checkCodeSignature(disk / "none", requirement));
    }
    EXPECT_EQ(fake::liveObjects("NSObject"), before);
}

}  // namespace
}  // namespace halvo::testing
