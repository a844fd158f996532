#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

// "/tmp" and "/private/tmp" are one folder there, of which the second is the link's target; so an
// app that is moved out of quarantine runs from below "/private".
class DarwinPathsTest : public ::testing::Test {
  protected:
    DarwinPathsTest() { std::filesystem::create_directory(bundle); }

    testing::TemporaryFolder disk;
    const std::string bundle = disk / "Halvo.app";
};

TEST_F(DarwinPathsTest, AreNotStandardizedBelowPrivateWhereTheyAreShorterWithoutIt) {
    EXPECT_TRUE(isStandardizedPath(bundle));
    EXPECT_FALSE(isStandardizedPath("/private" + bundle));
    EXPECT_TRUE(isStandardizedPath("/private" + bundle + "/none"));
    EXPECT_TRUE(isStandardizedPath("/privateer" + bundle));
    EXPECT_FALSE(isStandardizedPath("/private" + bundle + "/\xFF"));
}

TEST_F(DarwinPathsTest, OfABundleAreStandardized) {
    EXPECT_TRUE(AppLocation::isBundlePath(bundle));
    EXPECT_FALSE(AppLocation::isBundlePath("/private" + bundle));
    EXPECT_EQ(AppLocation::bundlePath(bundle + "/Contents/MacOS/Halvo"), bundle);
    EXPECT_EQ(AppLocation::bundlePath("/private" + bundle + "/Contents/MacOS/Halvo"), std::nullopt);
    std::filesystem::remove(bundle);
    EXPECT_TRUE(AppLocation::isBundlePath("/private" + bundle));
}

TEST_F(DarwinPathsTest, LeaveNothingBehind) {
    isStandardizedPath("/private" + bundle);
    const long places = fake::liveObjects("NSURL");
    const long texts = fake::liveObjects("NSString");
    isStandardizedPath("/private" + bundle);
    EXPECT_EQ(fake::liveObjects("NSURL"), places);
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
}

}  // namespace
}  // namespace halvo
