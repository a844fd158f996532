#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using testing::ChildResult;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

class ToolTest : public ::testing::Test {
  protected:
    Outcome runWith(const Words& words) { return run(words, machine); }

    FakeMachine fake;
    std::expected<Machine*, std::string> machine = &fake.machine;
    testing::LogCapture log;
};

TEST_F(ToolTest, PrintsHelpForEachCommand) {
    struct {
        Words words;
        Words texts;
    } const rows[] = {
        {{"--help"},
         {"Usage: halvoctl [OPTIONS] COMMAND", "status", "doctor", "release", "--version",
          "64 for a usage"}},
        {{"-h"}, {"Usage: halvoctl [OPTIONS] COMMAND"}},
        {{"--version"}, {std::string("halvoctl ") + version + "\n"}},
        {{"status", "--help"}, {"Usage: halvoctl status", "--json", "salvaged", "Needs root"}},
        {{"doctor", "--json", "-h"}, {"Usage: halvoctl doctor", "--app PATH", "\"verdict\""}},
        {{"release", "--help"},
         {"Usage: halvoctl release", "--and-stop", "--bundle-gone", "Needs root"}}};

    machine = std::unexpected("It is missing");
    for (const auto& [words, texts] : rows) {
        const Outcome outcome = runWith(words);
        EXPECT_EQ(outcome.status, ExitStatus::fine);
        for (const std::string& text : texts) {
            EXPECT_THAT(outcome.output, HasSubstr(text));
        }
    }
}

TEST_F(ToolTest, RejectsUsageErrors) {
    const std::string unknown = "Unknown command or option ";
    const std::string path =
        "--app: the absolute path of a bundle is needed, as /Applications/Halvo.app, not ";
    const std::vector<std::pair<Words, std::string>> rows{
        {{}, "A subcommand is required"},
        {{"relase"}, unknown + "'relase'"},
        {{"\x1B[2J"}, unknown + "'\\u001b[2J'"},
        {{""}, unknown + "''"},
        {{"release", "--json"}, unknown + "'--json'"},
        {{"release", "now"}, unknown + "'now'"},
        {{"status", "--and-stop"}, unknown + "'--and-stop'"},
        {{"status", "release"}, unknown + "'release'"},
        {{"doctor", "--bundle-gone"}, unknown + "'--bundle-gone'"},
        {{"status", "--app", "/A/B.app"}, unknown + "'--app'"},
        {{"doctor", "--app"}, "--app: 1 required PATH missing"},
        {{"doctor", "--app", "B\n.app"}, path + "'B\\n.app'"},
        {{"doctor", "--app="}, path + "''"}};
    fake.hold();
    for (const auto& [words, problem] : rows) {
        EXPECT_EQ(runWith(words), (Outcome{ExitStatus::usage, "",
                                           "halvoctl: " + problem + ". See halvoctl --help.\n"}));
    }
    EXPECT_TRUE(fake.world.calls.calls().empty());
}

TEST_F(ToolTest, RunsTheCommands) {
    EXPECT_THAT(runWith({"status"}).output, StartsWith("com.example.app: Nothing holds.\n"));
    EXPECT_THAT(runWith({"status", "--json"}).output, StartsWith("{\n  \"apps\": ["));
    EXPECT_THAT(runWith({"doctor"}).output, HasSubstr("app's identity"));
    EXPECT_THAT(runWith({"doctor", "--json"}).output, StartsWith("{\n  \"checks\": ["));
    EXPECT_THAT(runWith({"doctor", "--app", "/A/B.app"}).output,
                HasSubstr("/A/B.app/Contents/Info.plist cannot be read"));
    EXPECT_EQ(runWith({"doctor"}).status, ExitStatus::fine);
    EXPECT_EQ(runWith({"doctor", "--app", "/A/B.app"}).status, ExitStatus::problem);
    fake.service.resumed = "It is back.";
    EXPECT_EQ(runWith({"release"}).output, "com.example.app: Nothing was held.\nIt is back.\n");
    EXPECT_EQ(runWith({"release", "--and-stop"}).output, "com.example.app: Nothing was held.\n");
    fake.hold();
    fs::remove_all(fake.app);
    EXPECT_EQ(runWith({"release"}).status, ExitStatus::system);
    EXPECT_EQ(runWith({"release", "--bundle-gone"}).status, ExitStatus::fine);
}

TEST_F(ToolTest, NeedsRootAndTheIdentityOfTheApp) {
    fake.machine.isRoot = false;
    fake.hold();
    EXPECT_EQ(runWith({"status"}),
              failure(ExitStatus::noPermission,
                      "The state can only be read as root. Type: sudo halvoctl status"));
    EXPECT_EQ(runWith({"release"}),
              failure(ExitStatus::noPermission,
                      "Only root can end the commitment. Type: sudo halvoctl release"));
    EXPECT_TRUE(fake.world.calls.calls().empty());
    machine = std::unexpected("It is missing");
    for (const char* command : {"status", "release"}) {
        EXPECT_EQ(runWith({command}),
                  failure(ExitStatus::config, "It is missing. Install the helper again."));
    }
    const Outcome outcome = runWith({"doctor"});
    EXPECT_EQ(outcome.status, ExitStatus::problem);
    EXPECT_THAT(outcome.output, HasSubstr("It is missing\n"));
}

// The built program. End-to-end tests show that it needs root.
TEST(ControlProgramTest, PrintsItsVersionAndReturnsExitStatuses) {
    const std::string versionLine = std::string("halvoctl ") + version + "\n";
    EXPECT_EQ(testing::runInChild({.words = {HALVO_CONTROL, "--version"}}),
              (ChildResult{ExitStatus::fine, versionLine}));
    EXPECT_EQ(testing::runInChild({.words = {HALVO_CONTROL, "stauts"}}).status, ExitStatus::usage);
    const auto bare = testing::runInChild([] {
        char* const none[] = {nullptr};
        execv(HALVO_CONTROL, none);
    });
    EXPECT_EQ(bare.status, ExitStatus::usage) << "argc is 0";
    EXPECT_THAT(bare.output, StartsWith("halvoctl: A subcommand is required."));
    const auto full = testing::runInChild([] {
        dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        testing::execute(HALVO_CONTROL, {"doctor"});
    });
    EXPECT_EQ(full, (ChildResult{ExitStatus::outputLost,
                                 "halvoctl: The output could not be written.\n"}));
}

}  // namespace
}  // namespace halvo::control
