#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace
}  // namespace halvo
