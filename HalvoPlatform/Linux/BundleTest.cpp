#include <gtest/gtest.h>
#include <limits.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "HalvoPlatform/Bundle.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;

// The longest file that is read.
constexpr std::size_t limit = 1 << 17;

// An XML property list around `members`.
std::string xml(const std::string& members) {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">)" +
           members + "</plist>\n";
}

std::string dictionary(const std::string& members) { return xml("<dict>" + members + "</dict>"); }

// The same property list in Apple's binary form.
std::string binary(const std::string& text) {
    plist_t raw = nullptr;
    plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &raw);
    const std::unique_ptr<void, decltype(&plist_free)> root(raw, &plist_free);
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root.get(), &bytes, &length);
    const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
    return {bytes, length};
}

const std::string sample = dictionary(
    "<key>HalvoTeamID</key><string>7QX4KD19MT</string>"
    "<key>Title</key><string>Hälvö &amp; &lt;co&gt;</string>"
    "<key>Count</key><integer>3</integer>"
    "<key>Yes</key><true/>"
    "<key>When</key><date>2025-11-15T00:00:00Z</date>"
    "<key>Bytes</key><data>AAEC</data>"
    "<key>Some</key><array><string>one</string></array>"
    "<key>More</key><dict><key>HalvoTeamID</key><string>AAAAAAAAAA</string></dict>"
    "<key>Empty</key><string></string>");

// Its strings.
const InfoDictionary sampleMembers{
    {"HalvoTeamID", "7QX4KD19MT"}, {"Title", "Hälvö & <co>"}, {"Empty", ""}};

class BundleOnDiskTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(folder / "Halvo.app/Contents/MacOS");
    }

    // What the bundle tells when its Info.plist holds `bytes`.
    std::optional<InfoDictionary> infoOf(const std::string& bytes) const {
        writeTestFile(bundle.infoPath(), bytes);
        return bundle.info();
    }

    // The executable's path when CFBundleExecutable is the plist value `value`.
    std::optional<std::string> executableOf(const std::string& value) const {
        writeTestFile(bundle.infoPath(), dictionary("<key>CFBundleExecutable</key>" + value));
        return bundle.executablePath();
    }

    TemporaryFolder folder;
    std::string path = folder / "Halvo.app";
    std::string executable = path + "/Contents/MacOS/Halvo";
    Bundle bundle{path};
};

TEST_F(BundleOnDiskTest, ReadsPropertyListsInXMLAndBinary) {
    EXPECT_EQ(infoOf(sample), sampleMembers);
    EXPECT_EQ(infoOf(xml("<dict/>")), InfoDictionary{});
    ASSERT_TRUE(binary(sample).starts_with("bplist00"));
    EXPECT_EQ(infoOf(binary(sample)), sampleMembers);
    EXPECT_EQ(infoOf(binary(xml("<dict/>"))), InfoDictionary{});
}

TEST_F(BundleOnDiskTest, HasNoInfoWithoutAFile) {
    EXPECT_EQ(bundle.info(), std::nullopt);
    ASSERT_EQ(mkfifo(bundle.infoPath().c_str(), 0644), 0);
    EXPECT_EQ(bundle.info(), std::nullopt);
}

TEST_F(BundleOnDiskTest, HasNoInfoInADamagedFileOrWithoutADictionaryOnTop) {
    for (const std::string& bytes :
         {std::string(), std::string("\0", 1), std::string("not a property list"),
          std::string("bplist00"), "bplist99" + binary(sample).substr(8), std::string("<plist"),
          sample.substr(0, sample.size() / 2), dictionary("<key>A</key><string>one</strong>"),
          std::string(100, '\xFF'), xml(""), xml("<string>one</string>"),
          xml("<integer>1</integer>"), xml("<true/>"), xml("<array><string>one</string></array>"),
          binary(xml("<array><string>one</string></array>"))}) {
        EXPECT_EQ(infoOf(bytes), std::nullopt) << bytes;
    }
}

// Whatever comes of it: no prefix of a good file may bring the process down.
TEST_F(BundleOnDiskTest, SurvivesAFileCutOffAnywhere) {
    for (const std::string& whole : {sample, binary(sample)}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const auto info = infoOf(whole.substr(0, length));
            if (info) {
                EXPECT_LE(info->size(), sampleMembers.size());
            }
        }
        EXPECT_EQ(infoOf(whole), sampleMembers);
    }
}

TEST_F(BundleOnDiskTest, ReadsAFileOf128KibibytesAndNoneThatIsLonger) {
    const std::string start = dictionary("<key>Name</key><string>Halvo</string>");
    const std::string longest = start + std::string(limit - start.size(), ' ');
    EXPECT_EQ(infoOf(longest), (InfoDictionary{{"Name", "Halvo"}}));
    EXPECT_EQ(infoOf(longest + " "), std::nullopt);
}

// As deep as a file can be nested: {"A": [[[...]]]}, in arrays of one member with numbers of two
// bytes for the members and of three for where they lie.
std::string deepestBinary() {
    constexpr std::size_t overhead = 64;
    constexpr std::size_t depth = (limit - overhead) / 6;
    std::string bytes(
        "bplist00\xD1\0\1\0\2\x51"
        "A",
        15);
    std::string offsets("\0\0\x08\0\0\x0D", 6);
    const auto append = [](std::string& text, std::size_t number, int size) {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
            text += static_cast<char>(number >> shift & 0xFF);
        }
    };
    for (std::size_t member = 3; member < depth; ++member) {
        append(offsets, bytes.size(), 3);
        bytes += '\xA1';
        append(bytes, member, 2);
    }
    append(offsets, bytes.size(), 3);
    bytes += '\xA0';
    const std::size_t table = bytes.size();
    bytes += offsets + std::string("\0\0\0\0\0\0\3\2", 8);
    append(bytes, offsets.size() / 3, 8);
    append(bytes, 0, 8);
    append(bytes, table, 8);
    return bytes;
}

TEST_F(BundleOnDiskTest, SurvivesTheDeepestNesting) {
    const std::string bytes = deepestBinary();
    ASSERT_GT(bytes.size(), limit - 64);
    EXPECT_EQ(infoOf(bytes), InfoDictionary{});
    std::string opening;
    std::string closing;
    while (opening.size() + closing.size() < limit - 500) {
        opening += "<array>";
        closing += "</array>";
    }
    EXPECT_EQ(infoOf(dictionary("<key>A</key>" + opening + closing)), InfoDictionary{});
    EXPECT_EQ(infoOf(dictionary("<key>A</key>" + opening)), std::nullopt);
}

TEST_F(BundleOnDiskTest, NamesItsExecutable) {
    const std::string name = "<string>Halvo</string>";
    EXPECT_EQ(bundle.executablePath(), std::nullopt) << "no Info.plist";
    EXPECT_EQ(executableOf(name), std::nullopt) << "it is missing";
    ASSERT_EQ(symlink("Real", executable.c_str()), 0);
    EXPECT_EQ(executableOf(name), std::nullopt) << "a link that leads nowhere";
    writeTestFile(path + "/Contents/MacOS/Real", "");
    writeTestFile(path + "/Contents/Other", "");
    EXPECT_EQ(executableOf(name), executable);
    // No name, or one that leads out of the folder.
    for (const char* value :
         {"<integer>1</integer>", "<array><string>Halvo</string></array>", "<string></string>",
          "<string>../Other</string>", "<string>./Halvo</string>", "<string>/bin/sh</string>"}) {
        EXPECT_EQ(executableOf(value), std::nullopt) << value;
    }
}

TEST(MainBundleTest, IsTheProcessItselfWhereTheSystemTells) {
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(Bundle::main().executablePath(), executable);
    EXPECT_EQ(Bundle::main().path(), executable.parent_path());
    {
        const Fault fault = Fault::failing(SystemCall::readlink, EACCES);
        EXPECT_EQ(Bundle::main().executablePath(), std::nullopt);
    }
    const Fault fault = Fault::returning(SystemCall::readlink, PATH_MAX);
    EXPECT_EQ(Bundle::main().executablePath(), std::nullopt) << "it may be cut off";
}

}  // namespace
}  // namespace halvo
