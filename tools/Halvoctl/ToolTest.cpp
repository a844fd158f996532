#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using testing::ChildResult;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

class ToolTest : public ::testing::Test {
  protected:
    Outcome runWith(const Words& words) {
        return run(words, machine, *GregorianCalendar::named("UTC"));
    }

    FakeMachine fake;
    std::expected<Machine*, std::string> machine = &fake.machine;
    testing::LogCapture log;
};

TEST_F(ToolTest, HelpsWithEachCommandAndItsOptions) {
    struct {
        Words words;
        std::vector<std::string> texts;
    } const rows[] = {
        {{"--help"},
         {"Usage: halvoctl [OPTIONS] COMMAND", "status", "doctor", "release", "--version",
          "64 for a usage"}},
        {{"-h"}, {"Usage: halvoctl [OPTIONS] COMMAND"}},
        {{"status", "--help"}, {"Usage: halvoctl status", "--json", "salvaged", "Needs root"}},
        {{"doctor", "--json", "-h"}, {"Usage: halvoctl doctor", "--app PATH", "\"verdict\""}},
        {{"release", "--help"},
         {"Usage: halvoctl release", "--and-stop", "--bundle-gone", "Needs root"}}};

    for (const auto& [words, texts] : rows) {
        const Outcome outcome = runWith(words);
        EXPECT_EQ(outcome.status, ExitStatus::fine);
        for (const std::string& text : texts) {
            EXPECT_THAT(outcome.output, HasSubstr(text));
        }
    }
    EXPECT_EQ(runWith({"--version"}),
              (Outcome{ExitStatus::fine, std::string("halvoctl ") + version + "\n", ""}));
}

TEST_F(ToolTest, RefusesACommandLineThatItDoesNotKnow) {
    struct {
        Words words;
        std::string problem;
    } const rows[] = {
        {{}, "A subcommand is required"},
        {{"relase"}, "Unknown command or option 'relase'"},
        {{"\x1B[2J"}, "Unknown command or option '\\u001b[2J'"},
        {{""}, "Unknown command or option ''"},
        {{"release", "--json"}, "Unknown command or option '--json'"},
        {{"release", "now"}, "Unknown command or option 'now'"},
        {{"status", "--and-stop"}, "Unknown command or option '--and-stop'"},
        {{"status", "release"}, "Unknown command or option 'release'"},
        {{"doctor", "--bundle-gone"}, "Unknown command or option '--bundle-gone'"},
        {{"status", "--app", "/A/B.app"}, "Unknown command or option '--app'"},
        {{"doctor", "--app"}, "--app: 1 required PATH missing"},
        {{"doctor", "--app", "B\n.app"},
         "--app: the absolute path of a bundle is needed, as /Applications/Halvo.app, not "
         "'B\\n.app'"}};

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
    EXPECT_EQ(runWith({"doctor"}).status, ExitStatus::problem) << "the helper is nowhere";
    EXPECT_EQ(runWith({"release"}).output, "com.example.app: Nothing was held.\n");
    fake.service.resumed = "It is back.";
    EXPECT_EQ(runWith({"release", "--and-stop"}).output, "com.example.app: Nothing was held.\n");
    fake.hold();
    fs::remove_all(fake.app);
    EXPECT_EQ(runWith({"release"}).status, ExitStatus::system);
    EXPECT_EQ(runWith({"release", "--bundle-gone"}).status, ExitStatus::fine);
}

TEST_F(ToolTest, NeedsRoot) {
    fake.machine.isRoot = false;
    fake.hold();
    for (const char* command : {"status", "release"}) {
        const Outcome outcome = runWith({command});
        EXPECT_EQ(outcome.status, ExitStatus::noPermission);
        EXPECT_THAT(outcome.errors, HasSubstr(std::string("Type: sudo halvoctl ") + command));
        EXPECT_EQ(outcome.output, "");
    }
    EXPECT_TRUE(fake.world.calls.calls().empty());
}

TEST_F(ToolTest, NeedsTheIdentityOfTheApp) {
    machine = std::unexpected("It is missing");
    for (const char* command : {"status", "release"}) {
        EXPECT_EQ(runWith({command}),
                  (Outcome{ExitStatus::config, "",
                           "halvoctl: It is missing. Install the helper again.\n"}));
    }
    const Outcome outcome = runWith({"doctor"});
    EXPECT_EQ(outcome.status, ExitStatus::problem);
    EXPECT_THAT(outcome.output, HasSubstr("It is missing\n"));
}

// The program as it is built, run as a process of its own.
ChildResult runProgram(
    const Words& words, const std::function<void()>& prepare = [] {},
    const std::string& program = HALVO_CONTROL) {
    return testing::runInChild([&] {
        std::vector<char*> pointers;
        for (const std::string& word : words) {
            pointers.push_back(const_cast<char*>(word.c_str()));
        }
        pointers.push_back(nullptr);
        prepare();
        execv(program.c_str(), pointers.data());
        FAIL() << "cannot run " << program;
    });
}

TEST(ControlProgramTest, TellsItsVersion) {
    const ChildResult result = runProgram({"halvoctl", "--version"});
    EXPECT_EQ(result.status, ExitStatus::fine);
    EXPECT_EQ(result.output, std::string("halvoctl ") + version + "\n");
}

TEST(ControlProgramTest, RefusesACommandLineAlsoWithoutANameOfItsOwn) {
    EXPECT_EQ(runProgram({"halvoctl", "stauts"}).status, ExitStatus::usage);
    const ChildResult result = runProgram({});
    EXPECT_EQ(result.status, ExitStatus::usage);
    EXPECT_THAT(result.output, StartsWith("halvoctl: A subcommand is required."));
}

TEST(ControlProgramTest, NeedsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be somebody else";
    }
    constexpr uid_t nobody = 65534;
    // Where everybody can reach it.
    const testing::TemporaryFolder folder;
    fs::permissions(folder.path(), fs::perms{0755});
    for (const char* name : {"halvoctl", "Info.plist"}) {
        fs::copy_file(fs::path(HALVO_CONTROL).replace_filename(name), folder / name);
    }
    for (const char* command : {"status", "release"}) {
        // For good: a process that could be root again cannot be looked at for leaks.
        const ChildResult result = runProgram(
            {"halvoctl", command}, [] { ASSERT_EQ(setresuid(nobody, nobody, nobody), 0); },
            folder / "halvoctl");
        EXPECT_EQ(result.status, ExitStatus::noPermission) << result.output;
    }
}

TEST(ControlProgramTest, SaysThatTheDiskIsFull) {
    const ChildResult result = runProgram({"halvoctl", "doctor"}, [] {
        dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    });
    EXPECT_EQ(result.status, ExitStatus::outputLost);
    EXPECT_EQ(result.output, "halvoctl: The output could not be written.\n");
}

}  // namespace
}  // namespace halvo::control
