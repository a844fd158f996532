#include "tests/Support/TestBundle.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <utility>

#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

namespace fs = std::filesystem;

TestBundle::TestBundle(std::string path, std::string name)
    : path_(std::move(path)), name_(std::move(name)) {
    fs::create_directories(folder());
    for (const std::string& place : {path_, path_ + "/Contents", folder()}) {
        fs::permissions(place, fs::perms{0755});
    }
    copyProgram(HALVO_TEST_APP, executable());
}

void TestBundle::writeInfo(const std::string& identifier, const std::string& team) const {
    replaceTestFile(info(), infoText(name_, identifier, team));
}

void TestBundle::install(gid_t group) const { makeSetGroupID(executable(), group); }

void makeSetGroupID(const std::string& path, gid_t group) {
    // In this order: chown(2) clears the set-group-id bit.
    ASSERT_EQ(chown(path.c_str(), 0, group), 0);
    ASSERT_EQ(chmod(path.c_str(), 02755), 0);
}

std::string infoText(const std::string& executable, const std::string& identifier,
                     const std::string& team) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<plist version=\"1.0\"><dict>\n"
           "<key>CFBundleExecutable</key><string>" +
           executable +
           "</string>\n"
           "<key>CFBundleIdentifier</key><string>" +
           identifier +
           "</string>\n"
           "<key>HalvoTeamID</key><string>" +
           team +
           "</string>\n"
           "</dict></plist>\n";
}

void replaceTestFile(const std::string& path, const std::string& bytes) {
    const std::string part = path + ".part";
    writeTestFile(part, bytes);
    fs::permissions(part, fs::perms{0644});
    fs::rename(part, path);
}

void overwriteTestFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes;
    file.close();
    ASSERT_TRUE(file.good()) << "cannot write " << path;
}

void copyProgram(const std::string& from, const std::string& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
    fs::permissions(to, fs::perms{0755});
}

std::string copyProgramAsNumber(const std::string& from, const std::string& folder, ino_t number) {
    // tmpfs assigns inode numbers in sequence.
    constexpr int most = 200'000;
    const std::string path = folder + "/program";
    for (int count = 0; count < most; ++count) {
        writeTestFile(path, "");
        struct stat status{};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        if (status.st_ino == number) {
            overwriteTestFile(path, readTestFile(from));
            fs::permissions(path, fs::perms{0755});
            return path;
        }
    }
    ADD_FAILURE() << "no file with the inode number " << number << " in " << folder;
    return path;
}

TestReport readReport(const std::string& path) {
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(path); })) << "no " << path;
    TestReport report;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t sign = line.find('=');
        report[line.substr(0, sign)].push_back(line.substr(sign + 1));
    }
    return report;
}

std::uint64_t ignoredSignals(const TestReport& report) {
    // Signal 1 is the lowest bit.
    constexpr std::uint64_t thoseOfTheCLibrary = std::uint64_t{3} << 31;
    return std::stoull(report.at("SigIgn").at(0), nullptr, 16) & ~thoseOfTheCLibrary;
}

}  // namespace halvo::testing
