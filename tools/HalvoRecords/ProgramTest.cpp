// The program as it is built, run as a process of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "tests/Support/TestProcess.hpp"

namespace halvo::records {
namespace {

using testing::ChildResult;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string widgetsFile = HALVO_GOLDEN "/widgets.json";
const std::string lost = "halvo-records: The output could not be written.\n";

// Runs the program with `words`, in a process that `prepare` has readied.
ChildResult runProgram(
    std::vector<std::string> words, const std::function<void()>& prepare = [] {}) {
    return testing::runInChild([&] {
        words.insert(words.begin(), "halvo-records");
        std::vector<char*> pointers;
        pointers.reserve(words.size() + 1);
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        prepare();
        execv(HALVO_RECORDS, pointers.data());
        FAIL() << "cannot run " << HALVO_RECORDS;
    });
}

void open(int descriptor, const char* path, int flags) {
    dup2(::open(path, flags | O_CLOEXEC), descriptor);
}

TEST(ProgramTest, Helps) {
    const ChildResult result = runProgram({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, StartsWith("Usage: halvo-records COMMAND [WORDS]\n"));
}

TEST(ProgramTest, ChecksAFile) {
    const ChildResult result = runProgram({"check", widgetsFile});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, widgetsFile +
                                 ": fine, a widget snapshot of 6 phases, 2 days, 1 list "
                                 "and 1 block\n");
}

TEST(ProgramTest, ReadsStandardInput) {
    const ChildResult result =
        runProgram({"check", "-"}, [] { open(STDIN_FILENO, widgetsFile.c_str(), O_RDONLY); });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, StartsWith("standard input: fine, a widget snapshot"));
}

TEST(ProgramTest, EndsWithOneWhenAFileIsWrong) {
    const ChildResult missing = runProgram({"show", "/none"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, "halvo-records: /none: No such file or directory\n");
    const ChildResult folder =
        runProgram({"check", "-"}, [] { open(STDIN_FILENO, "/", O_RDONLY); });
    EXPECT_EQ(folder.status, 1);
    EXPECT_EQ(folder.output, "standard input: This cannot be read\n");
    EXPECT_EQ(runProgram({"check", "-"}, [] { close(STDIN_FILENO); }).status, 1);
}

TEST(ProgramTest, EndsWithSixtyFourForWrongWords) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{}, {"bogus"}, {"check"}, {"show", "--zone", "none"}}) {
        const ChildResult result = runProgram(words);
        EXPECT_EQ(result.status, 64);
        EXPECT_THAT(result.output, StartsWith("halvo-records: "));
        EXPECT_THAT(result.output, EndsWith(" See halvo-records --help.\n"));
    }
}

TEST(ProgramTest, EndsWithSeventyFourWhenTheDiskIsFull) {
    const ChildResult result = runProgram({"show", widgetsFile, "--json"},
                                          [] { open(STDOUT_FILENO, "/dev/full", O_WRONLY); });
    EXPECT_EQ(result.status, 74);
    EXPECT_EQ(result.output, lost);
}

TEST(ProgramTest, EndsWithSeventyFourWhenNobodyReads) {
    const ChildResult result = runProgram({"--help"}, [] {
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe(ends.data()), 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        // As a shell leaves it.
        std::signal(SIGPIPE, SIG_DFL);
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 74);
    EXPECT_EQ(result.output, lost);
}

TEST(ProgramTest, EndsWithSeventyFourWhenOutputIsClosed) {
    const ChildResult result = runProgram({"--help"}, [] { close(STDOUT_FILENO); });
    EXPECT_EQ(result.status, 74);
    EXPECT_EQ(result.output, lost);
}

TEST(ProgramTest, NeedsNoNameOfItsOwn) {
    const ChildResult result = testing::runInChild([] {
        std::array<char*, 1> none{nullptr};
        execv(HALVO_RECORDS, none.data());
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 64);
    EXPECT_THAT(result.output, HasSubstr("What is to be done?"));
}

}  // namespace
}  // namespace halvo::records
