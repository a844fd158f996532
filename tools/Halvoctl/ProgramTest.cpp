// The program as it is built, run as a process of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::control {
namespace {

using testing::ChildResult;
namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

ChildResult runProgram(
    std::vector<std::string> words, const std::function<void()>& prepare = [] {},
    const std::string& program = HALVO_CONTROL) {
    return testing::runInChild([&] {
        words.insert(words.begin(), "halvoctl");
        std::vector<char*> pointers;
        pointers.reserve(words.size() + 1);
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        prepare();
        execv(program.c_str(), pointers.data());
        FAIL() << "cannot run " << program;
    });
}

TEST(ControlProgramTest, Helps) {
    const ChildResult result = runProgram({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, StartsWith("Usage: halvoctl COMMAND [WORDS]\n"));
}

TEST(ControlProgramTest, TellsItsVersion) {
    const ChildResult result = runProgram({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, std::string("halvoctl ") + version + "\n");
}

TEST(ControlProgramTest, EndsWithSixtyFourForWrongWords) {
    const ChildResult result = runProgram({"stauts"});
    EXPECT_EQ(result.status, 64);
    EXPECT_THAT(result.output, StartsWith("halvoctl: There is no command 'stauts'"));
}

TEST(ControlProgramTest, EndsWithSeventySevenWithoutRoot) {
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
            {command}, [] { ASSERT_EQ(setresuid(nobody, nobody, nobody), 0); },
            folder / "halvoctl");
        EXPECT_EQ(result.status, 77) << result.output;
    }
}

TEST(ControlProgramTest, EndsWithSeventyFourWhenTheDiskIsFull) {
    const ChildResult result = runProgram(
        {"doctor"}, [] { dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); });
    EXPECT_EQ(result.status, 74);
    EXPECT_EQ(result.output, "halvoctl: The output could not be written.\n");
}

TEST(ControlProgramTest, NeedsNoNameOfItsOwn) {
    const ChildResult result = testing::runInChild([] {
        char* const none[] = {nullptr};
        execv(HALVO_CONTROL, none);
    });
    EXPECT_EQ(result.status, 64);
    EXPECT_THAT(result.output, HasSubstr("What is to be done?"));
}

}  // namespace
}  // namespace halvo::control
