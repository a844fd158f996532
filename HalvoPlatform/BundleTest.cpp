#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Bundle.hpp"

namespace halvo {
namespace {

TEST(BundleTest, FindsAString) {
    const InfoDictionary info{{"Name", "Halvo"}, {"Empty", ""}};
    EXPECT_EQ(infoString(info, "Name"), "Halvo");
    EXPECT_EQ(infoString(info, "Empty"), "");
    EXPECT_EQ(infoString(info, "name"), std::nullopt);
    EXPECT_EQ(infoString(std::nullopt, "Name"), std::nullopt);
}

TEST(BundleTest, HasItsInfoPlistInContents) {
    EXPECT_EQ(Bundle("/Applications/Halvo.app").path(), "/Applications/Halvo.app");
    EXPECT_EQ(Bundle("/A.app").infoPath(), "/A.app/Contents/Info.plist");
}

TEST(BundleTest, OfAProcessIsTheFolderAroundItsProgramOrTheProgramsOwn) {
    struct Row {
        std::string executable;
        std::string path;
        std::string infoPath;
    };

    std::vector<Row> rows{
        {"/A/Halvo.app/Contents/MacOS/Halvo", "/A/Halvo.app", "/A/Halvo.app/Contents/Info.plist"},
        // The innermost of nested bundles.
        {"/A/Halvo.app/Contents/PlugIns/W.appex/Contents/MacOS/W",
         "/A/Halvo.app/Contents/PlugIns/W.appex",
         "/A/Halvo.app/Contents/PlugIns/W.appex/Contents/Info.plist"},
        {"/Halvo", "/", "/Info.plist"},
        {"", "/", "/Info.plist"},
    };
    for (const std::string folder :
         {"/Library/PrivilegedHelperTools", "/A/Contents/MacOS/More", "/A/contents/MacOS",
          "/A/MacOS", "/A/MyContents/MacOS", "/A/Contents/MacOS ", "/Contents/MacOS"}) {
        rows.push_back({folder + "/Halvo", folder, folder + "/Info.plist"});
    }
    for (const Row& row : rows) {
        const Bundle bundle = Bundle::ofProcess(row.executable);
        EXPECT_EQ(bundle.path(), row.path);
        EXPECT_EQ(bundle.infoPath(), row.infoPath);
        EXPECT_EQ(bundle.executablePath().value_or(""), row.executable);
    }
}

}  // namespace
}  // namespace halvo
