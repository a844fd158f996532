#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "HalvoHelper/macOS/ExecutablePath.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/MallocCount.hpp"

namespace halvo::testing {
namespace {

constexpr pid_t process = 300;

class ExecutablePathTest : public ::testing::Test {
  protected:
    ExecutablePathTest() { fake::reset(); }

    // What is told of a process that runs the executable at `path`, when the kernel says that it
    // has so many bytes.
    std::optional<std::string_view> told(const std::string& path,
                                         std::optional<int> size = std::nullopt) {
        fake::world().processes = {{process, 501, path, 64, size}};
        return executablePath(process, *buffer);
    }

    // On the heap, where the address sanitizer sees what is written past its end.
    const std::unique_ptr<PathBuffer> buffer = std::make_unique<PathBuffer>();
};

TEST_F(ExecutablePathTest, IsWhatTheKernelTells) {
    EXPECT_EQ(told("/Applications/Halvo.app/Contents/MacOS/Halvo"),
              "/Applications/Halvo.app/Contents/MacOS/Halvo");
    EXPECT_EQ(told("/"), "/");
}

TEST_F(ExecutablePathTest, IsNothingWhenTheKernelTellsNothing) {
    EXPECT_EQ(told(""), std::nullopt);
}

TEST_F(ExecutablePathTest, IsNothingOfAProcessThatHasEnded) {
    EXPECT_EQ(executablePath(process, *buffer), std::nullopt);
}

TEST_F(ExecutablePathTest, KeepsEveryByteAlsoThoseThatAreNoText) {
    EXPECT_EQ(told("/a\xFF\n\xC3\xA9"), "/a\xFF\n\xC3\xA9");
}

TEST_F(ExecutablePathTest, EndsWhereTheKernelSaysNotWhereAnEarlierPathEnded) {
    EXPECT_EQ(told("/usr/bin/longer"), "/usr/bin/longer");
    EXPECT_EQ(told("/bin/x"), "/bin/x");
}

TEST_F(ExecutablePathTest, MayFillTheWholeBuffer) {
    const std::string path = "/" + std::string(buffer->size() - 1, 'a');
    EXPECT_EQ(buffer->size(), 4096U);
    EXPECT_EQ(told(path), path);
}

TEST_F(ExecutablePathTest, EndsWithTheBufferWhenTheKernelSaysMore) {
    const std::string path = "/" + std::string(buffer->size() - 1, 'a');
    EXPECT_EQ(told(path, 4097), path);
    EXPECT_EQ(told(path + "a", 4097), path);
    EXPECT_EQ(told(path, std::numeric_limits<int>::max()), path);
}

TEST_F(ExecutablePathTest, IsFilledUpWithZerosWhereTheKernelWroteLessThanItSays) {
    EXPECT_EQ(told("/usr/bin/longer"), "/usr/bin/longer");
    EXPECT_EQ(told("/bin/x", 8), std::string_view("/bin/x\0\0", 8));
}

TEST_F(ExecutablePathTest, IsNothingWhenTheKernelFailsWhateverItWrote) {
    EXPECT_EQ(told("/bin/x", 0), std::nullopt);
    EXPECT_EQ(told("/bin/x", -1), std::nullopt);
    EXPECT_EQ(told("/bin/x", std::numeric_limits<int>::min()), std::nullopt);
}

TEST_F(ExecutablePathTest, AllocatesNothing) {
    told("/Applications/Halvo.app/Contents/MacOS/Halvo");
    const std::size_t before = mallocsMade();
    EXPECT_TRUE(executablePath(process, *buffer));
    EXPECT_FALSE(executablePath(process + 1, *buffer));
    EXPECT_EQ(mallocsMade(), before);
}

}  // namespace
}  // namespace halvo::testing
