#include <gtest/gtest.h>

#include <optional>
#include <string>

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

TEST(BundleTest, KnowsItsFolder) {
    EXPECT_EQ(Bundle("/Applications/Halvo.app").path(), "/Applications/Halvo.app");
}

// What a process that runs the program at `executable` is told of its bundle.
struct ProcessBundle {
    std::string path;
    std::string infoPath;
    std::optional<std::string> executable;

    bool operator==(const ProcessBundle&) const = default;
};

ProcessBundle bundleOfProcess(const std::string& executable) {
    const Bundle bundle = Bundle::ofProcess(executable);
    return {bundle.path(), bundle.infoPath(), bundle.executablePath()};
}

TEST(BundleTest, IsTheFolderAroundAProgramInContentsMacOS) {
    EXPECT_EQ(
        bundleOfProcess("/Applications/Halvo.app/Contents/MacOS/Halvo"),
        (ProcessBundle{"/Applications/Halvo.app", "/Applications/Halvo.app/Contents/Info.plist",
                       "/Applications/Halvo.app/Contents/MacOS/Halvo"}));
}

TEST(BundleTest, IsTheInnermostOfNestedBundles) {
    EXPECT_EQ(bundleOfProcess("/A/Halvo.app/Contents/PlugIns/W.appex/Contents/MacOS/W"),
              (ProcessBundle{"/A/Halvo.app/Contents/PlugIns/W.appex",
                             "/A/Halvo.app/Contents/PlugIns/W.appex/Contents/Info.plist",
                             "/A/Halvo.app/Contents/PlugIns/W.appex/Contents/MacOS/W"}));
}

TEST(BundleTest, IsTheProgramsOwnFolderAnywhereElse) {
    EXPECT_EQ(bundleOfProcess("/Library/PrivilegedHelperTools/Helper"),
              (ProcessBundle{"/Library/PrivilegedHelperTools",
                             "/Library/PrivilegedHelperTools/Info.plist",
                             "/Library/PrivilegedHelperTools/Helper"}));
    for (const std::string folder :
         {"/A/Contents/MacOS/More", "/A/contents/MacOS", "/A/MacOS", "/A/MyContents/MacOS",
          "/A/Contents/MacOS ", "/Contents/MacOS"}) {
        EXPECT_EQ(bundleOfProcess(folder + "/Halvo"),
                  (ProcessBundle{folder, folder + "/Info.plist", folder + "/Halvo"}));
    }
}

TEST(BundleTest, IsTheRootFolderForAProgramThere) {
    EXPECT_EQ(bundleOfProcess("/Halvo"), (ProcessBundle{"/", "/Info.plist", "/Halvo"}));
}

TEST(BundleTest, HasNoExecutableForAProcessThatCannotTellItsProgram) {
    EXPECT_EQ(bundleOfProcess(""), (ProcessBundle{"/", "/Info.plist", std::nullopt}));
}

}  // namespace
}  // namespace halvo
