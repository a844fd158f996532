#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "HalvoPlatform/Paths.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::TemporaryFolder;
using testing::writeTestFile;

TEST(HasZeroByteTest, IsSoWhereverItStands) {
    EXPECT_TRUE(hasZeroByte(std::string("\0", 1)));
    EXPECT_TRUE(hasZeroByte(std::string("/a\0b", 4)));
    EXPECT_TRUE(hasZeroByte(std::string("/a\0", 3)));
    EXPECT_FALSE(hasZeroByte("/a"));
    EXPECT_FALSE(hasZeroByte(""));
}

TEST(PathsTest, TellsUTF8FromOtherBytes) {
    struct Row {
        const char* what;
        std::string text;
        bool isUTF8;
    };

    const std::vector<Row> rows{
        {"nothing", "", true},
        {"ASCII", "/Applications/Halvo.app", true},
        {"a zero byte", "a\0b"s, true},
        {"the last of one byte", "\x7F", true},
        {"the first of two bytes", "\xC2\x80", true},
        {"the last of two bytes", "\xDF\xBF", true},
        {"the first of three bytes", "\xE0\xA0\x80", true},
        {"the last of three bytes", "\xEF\xBF\xBF", true},
        {"the last before the surrogates", "\xED\x9F\xBF", true},
        {"the first after the surrogates", "\xEE\x80\x80", true},
        {"the first of four bytes", "\xF0\x90\x80\x80", true},
        {"the last of all", "\xF4\x8F\xBF\xBF", true},
        {"several after one another", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x8D\x8E.app", true},
        {"a byte that only follows", "\x80", false},
        {"the last byte that only follows", "\xBF", false},
        {"a follower too many", "\xC3\xA4\xA4", false},
        {"two bytes, cut off", "\xC3", false},
        {"three bytes, cut off after one", "\xE2", false},
        {"three bytes, cut off after two", "\xE2\x82", false},
        {"four bytes, cut off after three", "\xF0\x9F\x8D", false},
        {"two bytes, broken off by ASCII", "\xC3.app", false},
        {"three bytes, broken off by a lead", "\xE2\x82\xC3\xA4", false},
        {"a follower that is a lead", "\xC3\xC3", false},
        {"ASCII in two bytes, the first", "\xC0\x80", false},
        {"ASCII in two bytes, the last", "\xC1\xBF", false},
        {"a slash in two bytes", "\xC0\xAF", false},
        {"the last of two bytes in three", "\xE0\x9F\xBF", false},
        {"a slash in three bytes", "\xE0\x80\xAF", false},
        {"the last of three bytes in four", "\xF0\x8F\xBF\xBF", false},
        {"the first surrogate", "\xED\xA0\x80", false},
        {"the last surrogate", "\xED\xBF\xBF", false},
        {"a pair of surrogates", "\xED\xA0\xBC\xED\xBD\x8E", false},
        {"the first past the last", "\xF4\x90\x80\x80", false},
        {"a lead past the last", "\xF5\x80\x80\x80", false},
        {"the last lead of four bytes", "\xF7\xBF\xBF\xBF", false},
        {"five bytes", "\xF8\x88\x80\x80\x80", false},
        {"six bytes", "\xFC\x84\x80\x80\x80\x80", false},
        {"a byte that never occurs", "\xFE", false},
        {"another byte that never occurs", "\xFF", false},
        {"Latin-1", "Caf\xE9.app", false},
        {"an error behind good text", "/Applications/Halvo\xFF", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(isUTF8(row.text), row.isUTF8) << row.what;
    }
}

TEST(PathsTest, ResolvesLinksAndDots) {
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder / "real").c_str(), 0755), 0);
    ASSERT_EQ(symlink("real", (folder / "link").c_str()), 0);
    EXPECT_EQ(canonicalPath(folder / "link"), folder / "real");
    EXPECT_EQ(canonicalPath(folder / "real/../link/."), folder / "real");
    EXPECT_EQ(canonicalPath(folder.path() + "//real/"), folder / "real");
}

TEST(PathsTest, HasNoCanonicalPathForWhatIsNotThere) {
    const TemporaryFolder folder;
    ASSERT_EQ(symlink("loop", (folder / "loop").c_str()), 0);
    EXPECT_EQ(canonicalPath(folder / "missing"), std::nullopt);
    EXPECT_EQ(canonicalPath(folder / "loop"), std::nullopt);
    EXPECT_EQ(canonicalPath(""), std::nullopt);
}

TEST(PathsTest, KeepsAPathThatCannotBeResolved) {
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder / "real").c_str(), 0755), 0);
    ASSERT_EQ(symlink("real", (folder / "link").c_str()), 0);
    ASSERT_EQ(symlink("nothing", (folder / "dangling").c_str()), 0);
    EXPECT_EQ(resolvedPath(folder / "link"), folder / "real");
    for (const std::string& path :
         {folder / "missing", folder / "dangling", folder / "link" + "\0x"s, ""s}) {
        EXPECT_EQ(resolvedPath(path), path);
    }
}

TEST(PathsTest, KnowsAFolder) {
    const TemporaryFolder folder;
    EXPECT_TRUE(isFolder(folder.path()));
}

TEST(PathsTest, TakesNothingElseForAFolder) {
    const TemporaryFolder folder;
    writeTestFile(folder / "file", "");
    ASSERT_EQ(symlink(folder.path().c_str(), (folder / "link").c_str()), 0);
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(isFolder(folder / "file"));
    EXPECT_FALSE(isFolder(folder / "link"));
    EXPECT_FALSE(isFolder(folder / "pipe"));
    EXPECT_FALSE(isFolder(folder / "missing"));
    EXPECT_FALSE(isFolder(""));
}

TEST(PathsTest, SeesAnItemThroughALink) {
    const TemporaryFolder folder;
    writeTestFile(folder / "file", "");
    ASSERT_EQ(symlink("file", (folder / "link").c_str()), 0);
    EXPECT_TRUE(itemExists(folder.path()));
    EXPECT_TRUE(itemExists(folder / "file"));
    EXPECT_TRUE(itemExists(folder / "link"));
}

TEST(PathsTest, SeesNoItemWhereThereIsNone) {
    const TemporaryFolder folder;
    ASSERT_EQ(symlink("missing", (folder / "dangling").c_str()), 0);
    EXPECT_FALSE(itemExists(folder / "missing"));
    EXPECT_FALSE(itemExists(folder / "dangling"));
}

// The kernel would take the path for what stands before the zero byte.
TEST(PathsTest, APathWithAZeroByteNamesNothing) {
    const TemporaryFolder folder;
    const std::string path = folder.path() + "\0.app"s;
    EXPECT_EQ(canonicalPath(path), std::nullopt);
    EXPECT_FALSE(isFolder(path));
    EXPECT_FALSE(itemExists(path));
}

}  // namespace
}  // namespace halvo
