#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Paths.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::TemporaryFolder;
using testing::writeTestFile;

TEST(PathsTest, TellsUTF8FromOtherBytes) {
    // The first and the last of each number of bytes, and what is next to the surrogates.
    for (const std::string& text :
         {""s, "/Applications/Halvo.app"s, "a\0b"s, "\x7F"s, "\xC2\x80"s, "\xDF\xBF"s,
          "\xE0\xA0\x80"s, "\xEF\xBF\xBF"s, "\xED\x9F\xBF"s, "\xEE\x80\x80"s, "\xF0\x90\x80\x80"s,
          "\xF4\x8F\xBF\xBF"s, "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x8D\x8E.app"s}) {
        EXPECT_TRUE(isUTF8(text)) << text;
    }

    struct Row {
        const char* what;
        std::vector<std::string> texts;
    };

    const std::vector<Row> rows{
        {"a byte that only follows", {"\x80", "\xBF", "\xC3\xA4\xA4"}},
        {"cut off", {"\xC3", "\xE2", "\xE2\x82", "\xF0\x9F\x8D"}},
        {"broken off", {"\xC3.app", "\xE2\x82\xC3\xA4", "\xC3\xC3"}},
        {"one byte in two", {"\xC0\x80", "\xC1\xBF", "\xC0\xAF"}},
        {"fewer bytes in three", {"\xE0\x9F\xBF", "\xE0\x80\xAF"}},
        {"three bytes in four", {"\xF0\x8F\xBF\xBF"}},
        {"surrogates", {"\xED\xA0\x80", "\xED\xBF\xBF", "\xED\xA0\xBC\xED\xBD\x8E"}},
        {"past the last", {"\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF7\xBF\xBF\xBF"}},
        {"five and six bytes", {"\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80"}},
        {"bytes that never occur", {"\xFE", "\xFF", "/Applications/Halvo\xFF"}},
        {"Latin-1", {"Caf\xE9.app"}},
    };
    for (const auto& [what, texts] : rows) {
        for (const std::string& text : texts) {
            EXPECT_FALSE(isUTF8(text)) << what << ": " << text;
        }
    }
}

TEST(PathsTest, KnowsWhereAPathLeadsAndWhatIsThere) {
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder / "real").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    writeTestFile(folder / "file", "");
    for (const auto& [name, target] :
         {std::pair("link", "real"), std::pair("toFile", "file"), std::pair("dangling", "nothing"),
          std::pair("loop", "loop")}) {
        ASSERT_EQ(symlink(target, (folder / name).c_str()), 0);
    }

    struct Row {
        std::string path;
        std::optional<std::string> canonical;
        bool isFolder;
        bool exists;
    };

    const std::vector<Row> rows{
        {folder / "real", folder / "real", true, true},
        {folder / "link", folder / "real", false, true},
        {folder / "real/../link/.", folder / "real", true, true},
        {folder.path() + "//real/", folder / "real", true, true},
        {folder / "file", folder / "file", false, true},
        {folder / "toFile", folder / "file", false, true},
        {folder / "pipe", folder / "pipe", false, true},
        {folder / "missing", std::nullopt, false, false},
        {folder / "dangling", std::nullopt, false, false},
        {folder / "loop", std::nullopt, false, false},
        {"", std::nullopt, false, false},
        // The kernel would take the path for what stands before the zero byte.
        {folder / "real" + "\0x"s, std::nullopt, false, false},
        {folder / "real" + "\0"s, std::nullopt, false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(canonicalPath(row.path), row.canonical);
        EXPECT_EQ(resolvedPath(row.path), row.canonical.value_or(row.path));
        EXPECT_EQ(isFolder(row.path), row.isFolder);
        EXPECT_EQ(itemExists(row.path), row.exists);
        EXPECT_EQ(hasZeroByte(row.path), row.path.contains('\0'));
    }
}

TEST(PathsTest, ReadsALinkAsItStands) {
    const TemporaryFolder folder;
    ASSERT_EQ(symlink("../not/there", (folder / "link").c_str()), 0);
    EXPECT_EQ(linkTarget(folder / "link"), "../not/there");
    EXPECT_EQ(linkTarget(folder / "missing"), std::unexpected(ENOENT));
    EXPECT_EQ(linkTarget(folder.path()), std::unexpected(EINVAL));
}

}  // namespace
}  // namespace halvo
