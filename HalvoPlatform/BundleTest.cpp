#include <gtest/gtest.h>

#include "HalvoPlatform/Bundle.hpp"

namespace halvo {
namespace {

const InfoDictionary info{{"Name", "Halvo"}, {"Empty", ""}, {"Count", NotAString{}}};

TEST(BundleTest, FindsAString) { EXPECT_EQ(infoString(info, "Name"), "Halvo"); }

TEST(BundleTest, TellsAnEmptyStringFromNone) { EXPECT_EQ(infoString(info, "Empty"), ""); }

TEST(BundleTest, FindsNothingUnderAMissingKey) {
    EXPECT_EQ(infoString(info, "name"), std::nullopt);
    EXPECT_EQ(infoString({}, "Name"), std::nullopt);
}

TEST(BundleTest, FindsNothingWhereThereIsNoString) {
    EXPECT_EQ(infoString(info, "Count"), std::nullopt);
}

TEST(BundleTest, LooksForTheInfoPlistInContents) {
    EXPECT_EQ(Bundle("/Applications/Halvo.app").infoPath(),
              "/Applications/Halvo.app/Contents/Info.plist");
}

}  // namespace
}  // namespace halvo
