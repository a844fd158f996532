#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

#include "HalvoPlatform/Bundle.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::TemporaryFolder;
using testing::writeTestFile;

std::string plist(const std::string& members) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<plist version=\"1.0\"><dict>" +
           members + "</dict></plist>\n";
}

const std::string sample =
    plist("<key>HalvoTeamID</key><string>7QX4KD19MT</string>"
          "<key>Title</key><string>Hälvö &amp; &lt;co&gt;</string>"
          "<key>Empty</key><string></string>"
          "<key>Count</key><integer>3</integer>"
          "<key>Yes</key><true/>"
          "<key>Some</key><array><string>one</string></array>"
          "<key>More</key><dict><key>HalvoTeamID</key><string>AAAAAAAAAA</string></dict>");

// Its strings.
const InfoDictionary sampleMembers{
    {"HalvoTeamID", "7QX4KD19MT"}, {"Title", "Hälvö & <co>"}, {"Empty", ""}};

class MainBundleTest : public ::testing::Test {
  protected:
    MainBundleTest() { fake::reset(); }
};

TEST_F(MainBundleTest, IsTheProcessItself) {
    fake::world().mainExecutable = "/Applications/Halvo.app/Contents/MacOS/Halvo";
    fake::world().mainInfo = sample;
    const Bundle main = Bundle::main();
    EXPECT_EQ(main.path(), "/Applications/Halvo.app");
    EXPECT_EQ(main.executablePath(), "/Applications/Halvo.app/Contents/MacOS/Halvo");
    EXPECT_EQ(main.info(), sampleMembers);
}

// Whose Info.plist is a section of the program. One beside it may be writable by other users.
TEST_F(MainBundleTest, HasTheInfoThatTheProgramCarriesWhateverLiesBesideIt) {
    fake::world().mainExecutable = "/Library/PrivilegedHelperTools/com.example.app.helper";
    fake::world().carriedInfo = sample;
    fake::world().mainInfo = plist("<key>HalvoTeamID</key><string>EEEEEEEEEE</string>");
    const Bundle main = Bundle::main();
    EXPECT_EQ(main.path(), "/Library/PrivilegedHelperTools");
    EXPECT_EQ(main.executablePath(), "/Library/PrivilegedHelperTools/com.example.app.helper");
    EXPECT_EQ(main.info(), sampleMembers);
    fake::world().carriedInfo = "damaged";
    EXPECT_EQ(main.info(), std::nullopt);
}

TEST_F(MainBundleTest, HasNoExecutableWhenTheSystemDoesNotTell) {
    fake::world().mainExecutable = std::nullopt;
    fake::world().mainInfo = sample;
    EXPECT_EQ(Bundle::main().executablePath(), std::nullopt);
    EXPECT_EQ(Bundle::main().info(), sampleMembers) << "which does not hang on its path";
}

TEST_F(MainBundleTest, LeavesOutWhatUTF8CannotHold) {
    @autoreleasepool {
        fake::setMainInfo(@{
            @"Name" : @"Hälvö",
            @"Value" : fake::loneSurrogate(),
            fake::loneSurrogate() : @"a name that is none",
        });
    }
    EXPECT_EQ(Bundle::main().info(), (InfoDictionary{{"Name", "Hälvö"}}));
}

TEST_F(MainBundleTest, IsFoundByTheExecutableOfTheProcessAndNoOtherBesideIt) {
    const std::string folder = "/nonexistent/Halvo.app/Contents/MacOS/";
    fake::world().mainExecutable = folder + "Halvo";
    fake::world().mainInfo = sample;
    EXPECT_EQ(Bundle::ofProcess(folder + "Halvo").info(), sampleMembers);
    const Bundle other = Bundle::ofProcess(folder + "Other");
    EXPECT_EQ(other.path(), Bundle::main().path());
    EXPECT_EQ(other.info(), std::nullopt);
    EXPECT_EQ(other.executablePath(), folder + "Other");
}

TEST_F(MainBundleTest, LeavesNothingBehind) {
    fake::world().mainInfo = sample;
    std::ignore = Bundle::main().info();
    const long texts = fake::liveObjects("NSString");
    const long dictionaries = fake::liveObjects("NSDictionary");
    const long bundles = fake::liveObjects("NSBundle");
    for (int count = 0; count < 10; ++count) {
        EXPECT_EQ(Bundle::main().info(), sampleMembers);
        EXPECT_EQ(Bundle("/nonexistent").info(), std::nullopt);
        EXPECT_EQ(Bundle("/nonexistent").executablePath(), std::nullopt);
    }
    EXPECT_EQ(fake::liveObjects("NSString"), texts);
    EXPECT_EQ(fake::liveObjects("NSDictionary"), dictionaries);
    EXPECT_EQ(fake::liveObjects("NSBundle"), bundles);
}

// Any other bundle, which the system reads: one that is there has an -infoDictionary in any case.
TEST(OtherBundleTest, HasWhatTheSystemFindsInItsFolder) {
    fake::reset();
    const TemporaryFolder folder;
    for (const std::string& path : {folder / "Halvo.app", folder / "\xFF.app"}) {
        const bool isText = path.ends_with("Halvo.app");
        const Bundle bundle(path);
        EXPECT_EQ(bundle.info(), std::nullopt) << "no folder";
        EXPECT_EQ(bundle.executablePath(), std::nullopt);
        std::filesystem::create_directories(path + "/Contents/MacOS");
        for (const char* bytes : {"", "not a property list"}) {
            writeTestFile(bundle.infoPath(), bytes);
            EXPECT_EQ(bundle.info(), isText ? std::optional(InfoDictionary{}) : std::nullopt);
        }
        writeTestFile(bundle.infoPath(),
                      plist("<key>CFBundleExecutable</key><string>Halvo</string>"));
        EXPECT_EQ(bundle.executablePath(), std::nullopt) << "it is missing";
        const std::string executable = path + "/Contents/MacOS/Halvo";
        writeTestFile(executable, "");
        EXPECT_EQ(bundle.executablePath(), isText ? std::optional(executable) : std::nullopt);
        EXPECT_EQ(Bundle::ofProcess(executable).info(), bundle.info());
    }
    writeTestFile(folder / "Halvo.app/Contents/Info.plist", sample);
    EXPECT_EQ(Bundle(folder / "Halvo.app").info(), sampleMembers);
}

}  // namespace
}  // namespace halvo
