// What is generated for macOS, and the check of it that runs in every build.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const HelperIdentity identity{HALVO_APP_BUNDLE_ID, HALVO_TEAM_ID};
const std::string folderOfGenerated = HALVO_PACKAGING;

// `text` with the one occurrence of `from` replaced.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const auto at = text.find(from);
    if (at == std::string::npos || text.find(from, at + 1) != std::string::npos) {
        ADD_FAILURE() << "not there exactly once: " << from;
        return text;
    }
    return text.replace(at, from.size(), to);
}

struct Outcome {
    int status = -1;
    // Those of its lines that are findings, without "lint: ".
    std::vector<std::string> findings;
};

// Everything that lint.cmake is given; as it comes, what the build has generated.
struct Input {
    std::string appBundleID = identity.appBundleID;
    std::string teamID = identity.teamID;
    std::string helperInBundle = "Contents/Helpers/HalvoHelper";
    std::string launchdName = identity.helperBundleID() + ".plist";
    std::string launchd = readTestFile(folderOfGenerated + "/" + launchdName);
    std::string info = readTestFile(HALVO_INFO_PLIST);
    std::string requirementName = identity.helperBundleID() + ".requirement";
    std::string requirement = readTestFile(folderOfGenerated + "/" + requirementName);
};

struct CommandResult {
    int status = -1;
    // Standard output and standard error.
    std::string output;
};

CommandResult run(const std::string& command) {
    FILE* stream = popen(("{ " + command + "; } 2>&1").c_str(), "r");
    CommandResult run;
    std::array<char, 4096> part{};
    for (std::size_t size = 0; (size = fread(part.data(), 1, part.size(), stream)) > 0;) {
        run.output.append(part.data(), size);
    }
    const int status = pclose(stream);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

Outcome lint(const Input& input) {
    const TemporaryFolder folder;
    writeTestFile(folder / input.launchdName, input.launchd);
    writeTestFile(folder / "Info.plist", input.info);
    writeTestFile(folder / input.requirementName, input.requirement);
    std::string command = HALVO_CMAKE;
    const auto define = [&command](const std::string& name, const std::string& value) {
        command += " -D '" + name + "=" + value + "'";
    };
    define("APP_BUNDLE_ID", input.appBundleID);
    define("TEAM_ID", input.teamID);
    define("HELPER_IN_BUNDLE", input.helperInBundle);
    define("LAUNCHD_PLIST", folder / input.launchdName);
    define("INFO_PLIST", folder / "Info.plist");
    define("REQUIREMENT", folder / input.requirementName);
    const CommandResult linted = run(command + " -P '" HALVO_PACKAGING_SOURCES "/lint.cmake'");
    Outcome outcome{linted.status, {}};
    std::istringstream lines(linted.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("lint: ")) {
            outcome.findings.push_back(line.substr(6));
        }
    }
    return outcome;
}

TEST(PackagingTest, WhatIsGeneratedHasNoFindings) {
    const Outcome outcome = lint({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.findings, IsEmpty());
}

TEST(PackagingTest, TheRequirementIsTheOneThatTheHelperNames) {
    EXPECT_EQ(Input().requirement, identity.helperRequirement());
}

TEST(PackagingTest, TheLaunchdListIsReadByOthersAsItIsMeant) {
    const std::string text = Input().launchd;
    plist_t raw = nullptr;
    plist_from_memory(text.data(), static_cast<std::uint32_t>(text.size()), &raw);
    const std::unique_ptr<void, decltype(&plist_free)> list(raw, &plist_free);
    ASSERT_NE(list, nullptr);
    char* xml = nullptr;
    std::uint32_t size = 0;
    plist_to_xml(list.get(), &xml, &size);
    const std::string read(xml, size);
    plist_to_xml_free(xml);
    const std::string helper = identity.helperBundleID();
    EXPECT_EQ(read, R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>Label</key>
	<string>)" + helper +
                        R"(</string>
	<key>BundleProgram</key>
	<string>Contents/Helpers/HalvoHelper</string>
	<key>MachServices</key>
	<dict>
		<key>)" +
                        helper + R"(</key>
		<true/>
	</dict>
	<key>AssociatedBundleIdentifiers</key>
	<array>
		<string>)" +
                        identity.appBundleID +
                        R"(</string>
	</array>
	<key>KeepAlive</key>
	<dict>
		<key>SuccessfulExit</key>
		<false/>
	</dict>
	<key>ThrottleInterval</key>
	<integer>2</integer>
	<key>EnableTransactions</key>
	<false/>
	<key>ExitTimeOut</key>
	<integer>20</integer>
	<key>SpawnConstraint</key>
	<dict>
		<key>team-identifier</key>
		<string>)" +
                        identity.teamID +
                        R"(</string>
		<key>signing-identifier</key>
		<string>)" +
                        helper + R"(</string>
	</dict>
</dict>
</plist>
)");
}

// One mistake, and the beginning of the one line that must name it.
struct Mistake {
    const char* name;
    std::string Input::* part;
    std::string from;
    std::string to;
    std::string finding;

    friend void PrintTo(const Mistake& mistake, std::ostream* out) { *out << mistake.name; }
};

class MistakeTest : public ::testing::TestWithParam<Mistake> {};

TEST_P(MistakeTest, IsFoundAndNamed) {
    const Mistake& mistake = GetParam();
    Input input;
    auto& part = input.*mistake.part;
    part = mistake.from.empty() ? mistake.to : replaced(part, mistake.from, mistake.to);
    const Outcome outcome = lint(input);
    EXPECT_NE(outcome.status, 0);
    ASSERT_THAT(outcome.findings, SizeIs(1));
    EXPECT_THAT(outcome.findings.front(), AllOf(HasSubstr(mistake.finding), HasSubstr("; ")));
}

const std::string helper = identity.helperBundleID();
const std::string app = identity.appBundleID;
const std::string team = identity.teamID;

std::string element(const std::string& name, const std::string& text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

// A key and its value, as the templates lay them out.
std::string pairOf(const std::string& key, const std::string& text, const char* indent) {
    return element("key", key) + "\n" + indent + element("string", text);
}

constexpr const char* shallow = "    ";
constexpr const char* deep = "        ";
constexpr auto inJob = &Input::launchd;
constexpr auto inInfo = &Input::info;

INSTANTIATE_TEST_SUITE_P(
    InTheLaunchdList, MistakeTest,
    ::testing::Values(
        Mistake{"Label", inJob, pairOf("Label", helper, shallow), pairOf("Label", app, shallow),
                "Label is \"" + app + "\"; make it \"" + helper + "\""},
        Mistake{"NoLabel", inJob, pairOf("Label", helper, shallow), "",
                "Label is missing; make it \"" + helper + "\""},
        Mistake{"Program", inJob, ">Contents/Helpers/HalvoHelper<", ">Contents/HalvoHelper<",
                "BundleProgram is \"Contents/HalvoHelper\"; make it"},
        Mistake{"MachServiceOff", inJob, "<true/>", "<false/>",
                "MachServices/" + helper + " is false; make it true"},
        Mistake{"SecondMachService", inJob, "<true/>", "<true/><key>x</key><true/>",
                "MachServices/x is not known here; remove it"},
        Mistake{"AppOfTheJob", inJob, element("string", app), element("string", "a.b"),
                "AssociatedBundleIdentifiers/0 is \"a.b\"; make it \"" + app + "\""},
        Mistake{"SecondAppOfTheJob", inJob, element("string", app),
                element("string", app) + element("string", "a.b"),
                "AssociatedBundleIdentifiers/1 is not known here"},
        Mistake{"KeptAliveAfterSuccess", inJob, "<key>SuccessfulExit</key>\n        <false/>",
                "<key>SuccessfulExit</key><true/>",
                "KeepAlive/SuccessfulExit is true; make it false"},
        Mistake{"KeptAliveForMore", inJob, "<key>SuccessfulExit</key>",
                "<key>Crashed</key><true/><key>SuccessfulExit</key>",
                "KeepAlive/Crashed is not known here"},
        Mistake{"Throttle", inJob, element("integer", "2"), element("integer", "10"),
                "ThrottleInterval is 10; make it 2"},
        Mistake{"ThrottleAsText", inJob, element("integer", "2"), element("string", "2"),
                "ThrottleInterval is \"2\"; make it 2"},
        Mistake{"Transactions", inJob, "<key>EnableTransactions</key>\n    <false/>",
                "<key>EnableTransactions</key><true/>",
                "EnableTransactions is true; make it false"},
        Mistake{"NoTimeToExit", inJob, element("integer", "20"), element("integer", "1"),
                "ExitTimeOut is 1; make it 20"},
        Mistake{"TeamOfTheConstraint", inJob, pairOf("team-identifier", team, deep),
                pairOf("team-identifier", "AAAAAAAAAA", deep),
                "SpawnConstraint/team-identifier is \"AAAAAAAAAA\"; make it \"" + team + "\""},
        Mistake{"SignerOfTheConstraint", inJob, pairOf("signing-identifier", helper, deep),
                pairOf("signing-identifier", app, deep),
                "SpawnConstraint/signing-identifier is \"" + app + "\"; make it \"" + helper},
        Mistake{"UnknownKey", inJob, "<key>KeepAlive</key>",
                "<key>UserName</key><string>nobody</string><key>KeepAlive</key>",
                "UserName is not known here; remove it"},
        Mistake{"FileName", &Input::launchdName, "", app + ".plist",
                "is named " + app + ".plist; name it " + helper + ".plist"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    InTheInfoList, MistakeTest,
    ::testing::Values(
        Mistake{"Identifier", inInfo, element("string", helper), element("string", app + ".other"),
                "Info.plist: CFBundleIdentifier is \"" + app + ".other\"; make it \"" + helper},
        Mistake{"App", inInfo, element("string", app), element("string", "a.b"),
                "Info.plist: HalvoAppBundleID is \"a.b\"; make it \"" + app + "\""},
        Mistake{"Team", inInfo, element("string", team), element("string", "AAAAAAAAAA"),
                "Info.plist: HalvoTeamID is \"AAAAAAAAAA\"; make it \"" + team + "\""},
        Mistake{"NoTeam", inInfo, pairOf("HalvoTeamID", team, shallow), "",
                "Info.plist: HalvoTeamID is missing; make it \"" + team + "\""},
        Mistake{"TeamNoText", inInfo, pairOf("HalvoTeamID", team, shallow),
                "<key>HalvoTeamID</key><true/>", "Info.plist: HalvoTeamID is true; make it"},
        Mistake{"UnknownKey", inInfo, "<key>HalvoTeamID</key>",
                "<key>HalvoTeam</key><string>x</string><key>HalvoTeamID</key>",
                "Info.plist: HalvoTeam is not known here"},
        Mistake{"VersionNoText", inInfo, "<key>CFBundleName</key>",
                "<key>LSMinimumSystemVersion</key><integer>26</integer><key>CFBundleName</key>",
                "Info.plist: LSMinimumSystemVersion is not known here"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    InTheRequirement, MistakeTest,
    ::testing::Values(
        Mistake{"Identifier", &Input::requirement, helper, app,
                "the identifier is \"" + app + "\"; make it \"" + helper + "\""},
        Mistake{"Team", &Input::requirement, team, "AAAAAAAAAA",
                "the organizational unit is \"AAAAAAAAAA\"; make it \"" + team + "\""},
        Mistake{"Anchor", &Input::requirement, "anchor apple generic and ", "",
                "it is no requirement of the one form"},
        Mistake{"EndOfLine", &Input::requirement, "\" and", "\"\nand",
                "it is no requirement of the one form"},
        Mistake{"FileName", &Input::requirementName, "", app + ".requirement",
                "is named " + app + ".requirement; name it " + helper + ".requirement"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    InTheVariables, MistakeTest,
    ::testing::Values(
        Mistake{"NoApp", &Input::appBundleID, "", "", "HALVO_APP_BUNDLE_ID is \"\""},
        Mistake{"PointInFront", &Input::appBundleID, "", ".com.example", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"TwoPoints", &Input::appBundleID, "", "com..example", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"Underscore", &Input::appBundleID, "", "com.a_b", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"Umlaut", &Input::appBundleID, "", "com.hälvo", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"Quote", &Input::appBundleID, "", "com.\"a\"", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"Semicolon", &Input::appBundleID, "", "com;a", "HALVO_APP_BUNDLE_ID is"},
        Mistake{"LongApp", &Input::appBundleID, "", std::string(201, 'a'),
                "HALVO_APP_BUNDLE_ID is"},
        Mistake{"ShortTeam", &Input::teamID, "", "7QX4KD19M", "HALVO_TEAM_ID is \"7QX4KD19M\""},
        Mistake{"LongTeam", &Input::teamID, "", "7QX4KD19MTT", "HALVO_TEAM_ID is"},
        Mistake{"SmallLetters", &Input::teamID, "", "7qx4kd19mt", "HALVO_TEAM_ID is"},
        Mistake{"ForeignDigit", &Input::teamID, "", "7QX4KD19\xD9\xA1", "HALVO_TEAM_ID is"}),
    [](const auto& given) { return given.param.name; });

// What cannot be read is a finding by itself; whether the rest is right is then not known.
INSTANTIATE_TEST_SUITE_P(
    InTheWayOfReading, MistakeTest,
    ::testing::Values(Mistake{"NoDictionary", inJob, "<dict>\n    <!-- The job's",
                              "<true/> <!-- The job's",
                              "cannot be read: its top level is no dictionary"},
                      Mistake{"Doctype", inJob, "<!DOCTYPE plist ", "<!DOCTYPE list ",
                              "cannot be read: it does not begin like an XML property list"},
                      Mistake{"Empty", inInfo, "", " ", "cannot be read: it does not begin like"},
                      Mistake{"CommentOfTwoHyphens", inJob, "<!-- The job's", "<!-- -- The job's",
                              "cannot be read: a comment holds \"--\""},
                      Mistake{"OpenComment", inInfo, "</plist>", "<!-- ",
                              "cannot be read: a comment holds \"--\" or does not end"},
                      Mistake{"Twice", inJob, pairOf("Label", helper, shallow),
                              pairOf("Label", helper, shallow) + pairOf("Label", helper, shallow),
                              "cannot be read: the key Label occurs twice"},
                      Mistake{"KeyWithoutValue", inInfo, element("string", team), "",
                              "cannot be read: </dict> stands where it cannot"},
                      Mistake{"ValueWithoutKey", inInfo, "<key>HalvoTeamID</key>", "",
                              "cannot be read: a key should stand where it says \"<string>"},
                      Mistake{"Entity", inInfo, element("string", team), "<string>&lt;</string>",
                              "cannot be read: a value should stand where it says \"<string>&lt;"},
                      Mistake{"Attribute", inInfo, "<string>" + team, "<string a=\"b\">" + team,
                              "cannot be read: a value should stand where it says \"<string a="},
                      Mistake{"OtherType", inJob, "<integer>2</integer>", "<real>2</real>",
                              "cannot be read: a value should stand where it says \"<real>"},
                      Mistake{"NoNumber", inJob, "<integer>2</integer>", "<integer>two</integer>",
                              "cannot be read: \"integer two\" is no whole number"},
                      Mistake{"WrongEndTag", inJob, "</array>", "</dict>",
                              "cannot be read: </dict> stands where it cannot"},
                      Mistake{"Unfinished", inInfo, "</dict>\n</plist>", "</plist>",
                              "cannot be read: it ends too early"},
                      Mistake{"TwoValues", inInfo, "</dict>\n", "</dict>\n<dict/>\n",
                              "cannot be read: it holds more than one value"},
                      Mistake{"More", inInfo, "</plist>", "</plist><plist>",
                              "cannot be read: something follows the end"}),
    [](const auto& given) { return given.param.name; });

TEST(PackagingTest, ShowsEveryMistake) {
    Input input;
    input.launchd =
        replaced(replaced(input.launchd, "<true/>", "<false/>"), ">2</integer>", ">3</integer>");
    input.info = replaced(input.info, element("string", team), element("string", "AAAAAAAAAA"));
    input.requirement = "nothing";
    const Outcome outcome = lint(input);
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.findings,
                ElementsAre(HasSubstr("MachServices/"), HasSubstr("ThrottleInterval"),
                            HasSubstr("HalvoTeamID"), HasSubstr("no requirement")));
}

// In both: the variable, and what was generated from it.
Input laidOutAt(const std::string& place) {
    Input input;
    input.helperInBundle = place;
    input.launchd = replaced(input.launchd, "Contents/Helpers/HalvoHelper", place);
    return input;
}

TEST(PackagingTest, KeepsTheHelperOutOfTheFolderOfTheApp) {
    const Outcome outcome = lint(laidOutAt("Contents/MacOS/HalvoHelper"));
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.findings, ElementsAre(HasSubstr("put it elsewhere: in Contents/MacOS")));
}

TEST(PackagingTest, KeepsTheHelperInsideTheBundle) {
    for (const char* place :
         {"/Library/HalvoHelper", "Contents/../HalvoHelper", "HalvoHelper", "Contents/Helpers/"}) {
        const Outcome outcome = lint(laidOutAt(place));
        EXPECT_NE(outcome.status, 0);
        EXPECT_THAT(outcome.findings,
                    ElementsAre(HasSubstr("put it in a folder inside the bundle's Contents")))
            << place;
    }
}

TEST(PackagingTest, SaysWhichFilesAreMissing) {
    const CommandResult linted =
        run(std::string(HALVO_CMAKE) + " -D APP_BUNDLE_ID=" + app + " -D TEAM_ID=" + team +
            " -D HELPER_IN_BUNDLE=Contents/a/b" + " -D LAUNCHD_PLIST=/nowhere/" + helper +
            ".plist" + " -D INFO_PLIST=/nowhere/Info.plist -D REQUIREMENT=/nowhere/" + helper +
            ".requirement -P '" HALVO_PACKAGING_SOURCES "/lint.cmake'");
    EXPECT_NE(linted.status, 0);
    for (const std::string& name :
         {helper + ".plist", std::string("Info.plist"), helper + ".requirement"}) {
        EXPECT_THAT(linted.output, HasSubstr("lint: /nowhere/" + name +
                                             " cannot be read: there is no such file; "));
    }
}

// Builds for macOS, with a file in place of the helper, and a codesign that only writes down how it
// was called.
class LayoutTest : public ::testing::Test {
  protected:
    void SetUp() override {
        writeTestFile(folder_ / "helper", "the helper");
        writeTestFile(folder_ / "control", "halvoctl");
        writeTestFile(folder_ / "CMakeLists.txt", R"(cmake_minimum_required(VERSION 3.25)
project(Layout LANGUAGES NONE)
set(HALVO_SYSTEM macOS)
set(HALVO_APP_BUNDLE_ID )" + app + R"()
set(HALVO_TEAM_ID )" + team + R"()
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
configure_file()" HALVO_INFO_PLIST R"( ${PROJECT_BINARY_DIR}/bin/Info.plist COPYONLY)
add_executable(HalvoHelper IMPORTED GLOBAL)
set_target_properties(HalvoHelper PROPERTIES IMPORTED_LOCATION ${PROJECT_SOURCE_DIR}/helper)
add_executable(halvoctl IMPORTED GLOBAL)
set_target_properties(halvoctl PROPERTIES IMPORTED_LOCATION ${PROJECT_SOURCE_DIR}/control)
add_subdirectory()" HALVO_PACKAGING_SOURCES R"( packaging/macos)
)");
        std::filesystem::create_directory(folder_ / "tools");
        setSigningTo("true");
    }

    // Makes codesign end like `command`.
    void setSigningTo(const std::string& command) const {
        const std::string tool = folder_ / "tools/codesign";
        writeTestFile(tool, "#!/bin/sh\necho \"$*\" >>'" + folder_ / "calls" + "'\n" + command);
        std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    }

    [[nodiscard]] CommandResult configure(const std::string& arguments = "") const {
        return run(std::string(HALVO_CMAKE) + " -G Ninja -S " + folder_.path() + " -B " + build_ +
                   " " + arguments);
    }

    [[nodiscard]] CommandResult build() const {
        return run("PATH='" + folder_ / "tools" + "':$PATH " + HALVO_CMAKE + " --build " + build_);
    }

    TemporaryFolder folder_;
    std::string build_ = folder_ / "build";
    std::string bundle_ = build_ + "/Halvo.app/";
    std::string installed_ = bundle_ + "Contents/Helpers/HalvoHelper";
    std::string control_ = bundle_ + "Contents/Helpers/halvoctl";
};

TEST_F(LayoutTest, PutsTheHelperAndItsJobIntoTheBundle) {
    ASSERT_EQ(configure().status, 0);
    const CommandResult built = build();
    ASSERT_EQ(built.status, 0) << built.output;
    EXPECT_EQ(readTestFile(installed_), "the helper");
    EXPECT_EQ(readTestFile(control_), "halvoctl");
    EXPECT_EQ(readTestFile(bundle_ + "Contents/Library/LaunchDaemons/" + helper + ".plist"),
              Input().launchd);
    EXPECT_EQ(readTestFile(folder_ / "calls"), "") << "nothing to sign with";
}

TEST_F(LayoutTest, FollowsANewHelper) {
    ASSERT_EQ(configure().status, 0);
    ASSERT_EQ(build().status, 0);
    const std::filesystem::path linked = folder_ / "helper";
    writeTestFile(linked, "the new helper");
    // The clock of the file system stands still for some milliseconds at a time.
    std::filesystem::last_write_time(
        linked, std::filesystem::last_write_time(linked) + std::chrono::seconds{1});
    ASSERT_EQ(build().status, 0);
    EXPECT_EQ(readTestFile(installed_), "the new helper");
}

TEST_F(LayoutTest, SignsTheHelperAndChecksWhatTheAppWillDemand) {
    ASSERT_EQ(configure("-D HALVO_SIGNING_IDENTITY='Developer ID Application: A (B)'").status, 0);
    const CommandResult built = build();
    ASSERT_EQ(built.status, 0) << built.output;
    EXPECT_EQ(readTestFile(folder_ / "calls"),
              "--force --sign Developer ID Application: A (B) --identifier " + app +
                  ".halvoctl --options runtime --timestamp " + control_ +
                  "\n--force --sign Developer ID Application: A (B) --identifier " + helper +
                  " --options runtime --timestamp " + installed_ + "\n--verify --strict -R " +
                  build_ + "/packaging/macos/" + helper + ".requirement " + installed_ + "\n");
}

TEST_F(LayoutTest, TriesASignatureAgainThatFailed) {
    ASSERT_EQ(configure("-D HALVO_SIGNING_IDENTITY=A").status, 0);
    setSigningTo("false");
    EXPECT_NE(build().status, 0);
    EXPECT_NE(build().status, 0);
    setSigningTo("true");
    EXPECT_EQ(build().status, 0);
}

TEST_F(LayoutTest, LaysNothingOutThatTheCheckRefuses) {
    ASSERT_EQ(configure("-D HALVO_SIGNING_IDENTITY=A").status, 0);
    writeTestFile(build_ + "/bin/Info.plist", "");
    EXPECT_NE(build().status, 0);
    EXPECT_FALSE(std::filesystem::exists(installed_));
    EXPECT_EQ(readTestFile(folder_ / "calls"), "");
}

}  // namespace
}  // namespace halvo::testing
