#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Files.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
using testing::Fault;
using testing::PrivateMount;
using testing::readTestFile;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;

constexpr std::size_t enough = 1 << 20;

// Gives the process another umask while it lives.
class Umask {
  public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}

    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

    ~Umask() { umask(before_); }

  private:
    mode_t before_;
};

mode_t permissionsOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::vector<std::string> membersOf(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(folder)) {
        names.push_back(item.path().filename());
    }
    std::ranges::sort(names);
    return names;
}

std::size_t openDescriptors() { return membersOf("/proc/self/fd").size(); }

// What an operation failed with, or 0.
template <class Result>
int codeOf(const Result& result) {
    return result ? 0 : result.error().code;
}

class FilesTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(openDescriptors(), descriptors_) << "left open"; }

    // Puts the old file in its place.
    void writeOldFile() const { writeTestFile(file, "old"); }

    // What must be so after a replacement of the old file has failed.
    void expectOldFileAlone() const {
        EXPECT_EQ(readTestFile(file), "old");
        EXPECT_EQ(membersOf(folder.path()), std::vector<std::string>{"state"});
    }

    auto replace(std::string_view bytes = "new", mode_t mode = 0600) const {
        return replaceFile(folder.path(), "state", bytes, mode);
    }

    TemporaryFolder folder;
    std::string file = folder / "state";
    std::string temporary = folder / ".state.new";

  private:
    std::size_t descriptors_ = openDescriptors();
};

using ReadFileTest = FilesTest;
using CreateFolderTest = FilesTest;
using ReplaceFileTest = FilesTest;

TEST_F(ReadFileTest, ReadsEveryByte) {
    const std::string bytes = "a\0b\r\n\xFF"s + std::string(100'000, 'x');
    writeTestFile(file, bytes);
    EXPECT_EQ(readFile(file, enough), bytes);
}

TEST_F(ReadFileTest, ReadsAnEmptyFile) {
    writeTestFile(file, "");
    EXPECT_EQ(readFile(file, enough), "");
    EXPECT_EQ(readFile(file, 0), "");
}

TEST_F(ReadFileTest, FollowsALink) {
    writeOldFile();
    ASSERT_EQ(symlink("state", (folder / "link").c_str()), 0);
    EXPECT_EQ(readFile(folder / "link", enough), "old");
}

TEST_F(ReadFileTest, ReadsAFileThatDoesNotTellItsLength) {
    // Files of /proc have the length 0.
    const auto text = readFile("/proc/self/status", enough);
    ASSERT_TRUE(text.has_value());
    EXPECT_TRUE(text->starts_with("Name:"));
    EXPECT_TRUE(text->ends_with('\n'));
}

TEST_F(ReadFileTest, SaysWhichFileIsMissing) {
    const auto result = readFile(file, enough);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{ENOENT, file + ": No such file or directory"}));
}

TEST_F(ReadFileTest, ReadsAFileAsLongAsTheLimit) {
    writeTestFile(file, "12345");
    EXPECT_EQ(readFile(file, 5), "12345");
}

TEST_F(ReadFileTest, RefusesALongerFileUnread) {
    writeTestFile(file, "123456");
    const std::size_t reads = testing::callsMade(SystemCall::read);
    EXPECT_EQ(codeOf(readFile(file, 5)), EFBIG);
    EXPECT_EQ(testing::callsMade(SystemCall::read), reads);
}

TEST_F(ReadFileTest, RefusesAFileThatTurnsOutLonger) {
    EXPECT_EQ(codeOf(readFile("/proc/self/status", 10)), EFBIG);
}

TEST_F(ReadFileTest, RefusesAFolder) { EXPECT_EQ(codeOf(readFile(folder.path(), enough)), EINVAL); }

TEST_F(ReadFileTest, RefusesAPipeWithoutWaiting) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(codeOf(readFile(file, enough)), EINVAL);
}

TEST_F(ReadFileTest, RefusesADevice) { EXPECT_EQ(codeOf(readFile("/dev/zero", enough)), EINVAL); }

TEST_F(ReadFileTest, RefusesASocket) {
    const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    ASSERT_LT(file.size(), sizeof address.sun_path);
    file.copy(address.sun_path, file.size());
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(codeOf(readFile(file, enough)), ENXIO);
}

TEST_F(ReadFileTest, FailsWithWhatFstatSays) {
    writeOldFile();
    const Fault fault = Fault::failing(SystemCall::fstat, EIO);
    EXPECT_EQ(codeOf(readFile(file, enough)), EIO);
}

TEST_F(ReadFileTest, FailsWithWhatReadSays) {
    writeOldFile();
    const Fault fault = Fault::failing(SystemCall::read, EIO);
    EXPECT_EQ(codeOf(readFile(file, enough)), EIO);
}

TEST_F(ReadFileTest, GoesOnAfterASignal) {
    writeOldFile();
    const Fault fault = Fault::failing(SystemCall::read, EINTR);
    EXPECT_EQ(readFile(file, enough), "old");
}

TEST_F(ReadFileTest, GoesOnAfterAShortRead) {
    writeOldFile();
    const Fault fault = Fault::cutShort(SystemCall::read, 1);
    EXPECT_EQ(readFile(file, enough), "old");
}

TEST_F(CreateFolderTest, MakesAFolderWithThePermissionsAskedForWhateverTheUmask) {
    for (const mode_t mask : {0U, 022U, 0777U}) {
        const Umask umask(mask);
        const std::string path = folder / std::to_string(mask);
        EXPECT_TRUE(createFolder(path, 0750));
        EXPECT_EQ(permissionsOf(path), 0750U) << mask;
    }
}

TEST_F(CreateFolderTest, MakesTheFoldersAboveAccordingToTheUmask) {
    const Umask umask(022);
    EXPECT_TRUE(createFolder(folder / "a/b/c", 0700));
    EXPECT_EQ(permissionsOf(folder / "a"), 0755U);
    EXPECT_EQ(permissionsOf(folder / "a/b"), 0755U);
    EXPECT_EQ(permissionsOf(folder / "a/b/c"), 0700U);
}

TEST_F(CreateFolderTest, ClosesTheFoldersAboveUnderAStrictUmask) {
    const Umask umask(077);
    EXPECT_TRUE(createFolder(folder / "a/b", 0755));
    EXPECT_EQ(permissionsOf(folder / "a"), 0700U);
    EXPECT_EQ(permissionsOf(folder / "a/b"), 0755U);
}

TEST_F(CreateFolderTest, KeepsThePermissionsOfTheFoldersAboveThatAreThere) {
    ASSERT_EQ(mkdir((folder / "a").c_str(), 0711), 0);
    EXPECT_TRUE(createFolder(folder / "a/b/c", 0700));
    EXPECT_EQ(permissionsOf(folder / "a"), 0711U);
}

TEST_F(CreateFolderTest, LeavesAFolderThatIsThereAsItIs) {
    const std::string path = folder / "there";
    ASSERT_EQ(mkdir(path.c_str(), 0711), 0);
    EXPECT_TRUE(createFolder(path, 0700));
    EXPECT_EQ(permissionsOf(path), 0711U);
}

TEST_F(CreateFolderTest, LeavesAFolderBehindALinkAsItIs) {
    const std::string path = folder / "there";
    ASSERT_EQ(mkdir(path.c_str(), 0711), 0);
    ASSERT_EQ(symlink("there", (folder / "link").c_str()), 0);
    EXPECT_TRUE(createFolder(folder / "link", 0700));
    EXPECT_EQ(permissionsOf(path), 0711U);
}

TEST_F(CreateFolderTest, SyncsEachFolderThatItMadeIntoTheOneAbove) {
    ASSERT_EQ(mkdir((folder / "a").c_str(), 0700), 0);
    const testing::CallTrace trace;
    ASSERT_TRUE(createFolder(folder / "a/b/c/", 0700));
    EXPECT_EQ(trace.calls(), (std::vector<std::string>{
                                 "mkdir " + (folder / "a/b"), "fsync " + (folder / "a"),
                                 "mkdir " + (folder / "a/b/c/"), "fsync " + (folder / "a/b")}));
    ASSERT_TRUE(createFolder(folder / "a/b/c", 0700));
    EXPECT_EQ(trace.calls().size(), 4) << "what is there needs nothing";
}

TEST_F(CreateFolderTest, LeavesNoFolderThatALossOfPowerCouldTake) {
    {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO);
        const auto result = createFolder(folder / "a", 0700);
        ASSERT_FALSE(result.has_value());
        EXPECT_EQ(result.error(), (FileError{EIO, folder.path() + ": Input/output error"}));
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "a")) << "the next call would not sync it";
    const Fault fault = Fault::failing(SystemCall::open, EMFILE);
    EXPECT_EQ(codeOf(createFolder(folder / "a", 0700)), EMFILE);
}

TEST_F(CreateFolderTest, RefusesAFileInItsPlace) {
    writeOldFile();
    const auto result = createFolder(file, 0700);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{ENOTDIR, file + ": Not a directory"}));
}

TEST_F(CreateFolderTest, RefusesALinkThatLeadsNowhere) {
    ASSERT_EQ(symlink("missing", (folder / "link").c_str()), 0);
    EXPECT_EQ(codeOf(createFolder(folder / "link", 0700)), ENOENT);
}

TEST_F(CreateFolderTest, RefusesAFileAboveIt) {
    writeOldFile();
    EXPECT_EQ(codeOf(createFolder(file + "/a", 0700)), ENOTDIR);
    EXPECT_EQ(codeOf(createFolder(file + "/a/b", 0700)), ENOTDIR);
}

TEST_F(CreateFolderTest, RefusesAnEmptyPath) { EXPECT_EQ(codeOf(createFolder("", 0700)), ENOENT); }

TEST_F(CreateFolderTest, FailsWithWhatMkdirSays) {
    const Fault fault = Fault::failing(SystemCall::mkdir, EROFS);
    EXPECT_EQ(codeOf(createFolder(folder / "a", 0700)), EROFS);
}

TEST_F(CreateFolderTest, FailsWhenEvenTheRootIsMissing) {
    const Fault fault = Fault::failing(SystemCall::mkdir, ENOENT);
    EXPECT_EQ(codeOf(createFolder("/halvo", 0700)), ENOENT);
}

TEST_F(CreateFolderTest, FailsWithWhatMkdirSaysOfAFolderAbove) {
    // The first call finds that "a" is missing, the others go down to it.
    const Fault fault = Fault::failing(SystemCall::mkdir, ENOSPC, 2);
    const auto result = createFolder(folder / "a/b", 0700);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ENOSPC);
}

TEST_F(CreateFolderTest, FailsWithWhatMkdirSaysOnceTheFoldersAboveAreThere) {
    const auto depth = std::ranges::count(folder / "a", '/');
    const Fault fault = Fault::failing(SystemCall::mkdir, EDQUOT, 1 + static_cast<int>(depth));
    const auto result = createFolder(folder / "a/b", 0700);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{EDQUOT, (folder / "a/b") + ": Disk quota exceeded"}));
    EXPECT_TRUE(std::filesystem::exists(folder / "a"));
}

TEST_F(CreateFolderTest, FailsWithWhatChmodSays) {
    const Fault fault = Fault::failing(SystemCall::chmod, EPERM);
    EXPECT_EQ(codeOf(createFolder(folder / "a", 0700)), EPERM);
}

TEST_F(CreateFolderTest, FailsWithWhatChmodSaysBelowNewFolders) {
    const Fault fault = Fault::failing(SystemCall::chmod, EPERM);
    EXPECT_EQ(codeOf(createFolder(folder / "a/b", 0700)), EPERM);
}

TEST_F(CreateFolderTest, FailsWithWhatStatSays) {
    const Fault fault = Fault::failing(SystemCall::stat, EIO);
    EXPECT_EQ(codeOf(createFolder(folder.path(), 0700)), EIO);
}

TEST_F(ReplaceFileTest, MakesAFileWithThePermissionsAskedForWhateverTheUmask) {
    for (const mode_t mask : {0U, 0777U}) {
        const Umask umask(mask);
        for (const mode_t mode : {0600U, 0644U}) {
            ASSERT_TRUE(replace("new", mode));
            EXPECT_EQ(permissionsOf(file), mode) << mask;
        }
    }
    EXPECT_EQ(readTestFile(file), "new");
}

TEST_F(ReplaceFileTest, ReplacesAFileAndLeavesNothingBeside) {
    writeOldFile();
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    ASSERT_TRUE(replace());
    EXPECT_EQ(readTestFile(file), "new");
    EXPECT_EQ(permissionsOf(file), 0600U);
    EXPECT_EQ(membersOf(folder.path()), std::vector<std::string>{"state"});
}

TEST_F(ReplaceFileTest, WritesEveryByte) {
    const std::string bytes = "a\0b"s + std::string(1'000'000, 'x');
    ASSERT_TRUE(replace(bytes));
    EXPECT_EQ(readTestFile(file), bytes);
    ASSERT_TRUE(replace(""));
    EXPECT_EQ(readTestFile(file), "");
}

TEST_F(ReplaceFileTest, KeepsTheOldFileWholeForWhoeverHasItOpen) {
    writeOldFile();
    std::ifstream reader(file);
    ASSERT_TRUE(replace());
    std::string text;
    reader >> text;
    EXPECT_EQ(text, "old");
}

TEST_F(ReplaceFileTest, NobodyEverSeesHalfAFile) {
    const std::string one(5000, '1');
    const std::string two(9000, '2');
    ASSERT_TRUE(replace(one));
    std::atomic<bool> done = false;
    std::atomic<int> looks = 0;
    std::atomic<int> torn = 0;
    std::thread reader([&] {
        while (!done) {
            const std::string seen = readTestFile(file);
            torn += seen == one || seen == two ? 0 : 1;
            ++looks;
        }
    });
    for (int i = 0; i < 20 || looks < 20; ++i) {
        EXPECT_TRUE(replace(i % 2 == 0 ? two : one));
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn, 0);
}

TEST_F(ReplaceFileTest, ReplacesALinkAndNotItsTarget) {
    writeTestFile(folder / "target", "target");
    ASSERT_EQ(symlink("target", file.c_str()), 0);
    ASSERT_TRUE(replace());
    EXPECT_FALSE(std::filesystem::is_symlink(file));
    EXPECT_EQ(readTestFile(folder / "target"), "target");
}

TEST_F(ReplaceFileTest, WorksInAFolderBehindALink) {
    const TemporaryFolder elsewhere;
    ASSERT_EQ(symlink(folder.path().c_str(), (elsewhere / "link").c_str()), 0);
    EXPECT_TRUE(replaceFile(elsewhere / "link", "state", "new", 0600));
    EXPECT_EQ(readTestFile(file), "new");
}

TEST_F(ReplaceFileTest, BringsBothTheFileAndTheFolderToTheDisk) {
    const std::size_t before = testing::callsMade(SystemCall::fsync);
    ASSERT_TRUE(replace());
    EXPECT_EQ(testing::callsMade(SystemCall::fsync), before + 2);
}

TEST_F(ReplaceFileTest, WritesNothingBeforeThePermissionsAreRight) {
    const std::size_t writes = testing::callsMade(SystemCall::write);
    const Fault fault = Fault::failing(SystemCall::fchmod, EPERM);
    EXPECT_EQ(codeOf(replace()), EPERM);
    EXPECT_EQ(testing::callsMade(SystemCall::write), writes);
}

TEST_F(ReplaceFileTest, TakesALeftOverTemporaryFileAway) {
    writeTestFile(temporary, "half a fi");
    ASSERT_EQ(chmod(temporary.c_str(), 0666), 0);
    ASSERT_TRUE(replace());
    EXPECT_EQ(readTestFile(file), "new");
    EXPECT_EQ(permissionsOf(file), 0600U);
    EXPECT_EQ(membersOf(folder.path()), std::vector<std::string>{"state"});
}

TEST_F(ReplaceFileTest, NeverWritesThroughALeftOverLink) {
    writeTestFile(folder / "target", "target");
    ASSERT_EQ(symlink("target", temporary.c_str()), 0);
    ASSERT_TRUE(replace());
    EXPECT_EQ(readTestFile(folder / "target"), "target");
    EXPECT_EQ(readTestFile(file), "new");
}

TEST_F(ReplaceFileTest, NeverWaitsForALeftOverPipe) {
    ASSERT_EQ(mkfifo(temporary.c_str(), 0600), 0);
    ASSERT_TRUE(replace());
    EXPECT_EQ(readTestFile(file), "new");
}

TEST_F(ReplaceFileTest, SaysSoWhenALeftOverCannotBeTakenAway) {
    writeOldFile();
    ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
    const auto result = replace();
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{EISDIR, temporary + ": Is a directory"}));
    EXPECT_EQ(readTestFile(file), "old");
}

TEST_F(ReplaceFileTest, FailsWithWhatUnlinkSaysOfALeftOver) {
    writeTestFile(temporary, "half a fi");
    const Fault fault = Fault::failing(SystemCall::unlinkat, EIO);
    EXPECT_EQ(codeOf(replace()), EIO);
}

TEST_F(ReplaceFileTest, FailsWhenSomebodyPutsTheLeftOverBack) {
    writeTestFile(temporary, "half a fi");
    const Fault fault = Fault::failing(SystemCall::openat, EEXIST, 1);
    EXPECT_EQ(codeOf(replace()), EEXIST);
}

TEST_F(ReplaceFileTest, FailsWithoutItsFolder) {
    const std::string missing = folder / "missing";
    const auto result = replaceFile(missing, "state", "new", 0600);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{ENOENT, missing + ": No such file or directory"}));
}

TEST_F(ReplaceFileTest, FailsInAFile) {
    writeOldFile();
    EXPECT_EQ(codeOf(replaceFile(file, "state", "new", 0600)), ENOTDIR);
}

TEST_F(ReplaceFileTest, FailsWithAFolderInTheFilesPlace) {
    ASSERT_EQ(mkdir(file.c_str(), 0700), 0);
    EXPECT_EQ(codeOf(replace()), EISDIR);
    EXPECT_EQ(membersOf(folder.path()), std::vector<std::string>{"state"});
}

TEST_F(ReplaceFileTest, GoesOnAfterAShortWrite) {
    const Fault fault = Fault::cutShort(SystemCall::write, 1);
    ASSERT_TRUE(replace("several bytes"));
    EXPECT_EQ(readTestFile(file), "several bytes");
}

TEST_F(ReplaceFileTest, GoesOnAfterASignal) {
    const Fault fault = Fault::failing(SystemCall::write, EINTR);
    ASSERT_TRUE(replace("several bytes"));
    EXPECT_EQ(readTestFile(file), "several bytes");
}

TEST_F(ReplaceFileTest, AnyFailureBeforeTheEndLeavesTheOldFileAlone) {
    struct Row {
        SystemCall call;
        int code;
    };

    for (const Row row : {Row{SystemCall::open, EMFILE}, Row{SystemCall::openat, EACCES},
                          Row{SystemCall::fchmod, EPERM}, Row{SystemCall::write, ENOSPC},
                          Row{SystemCall::fsync, EIO}, Row{SystemCall::renameat, EROFS}}) {
        writeOldFile();
        const Fault fault = Fault::failing(row.call, row.code);
        EXPECT_EQ(codeOf(replace()), row.code);
        expectOldFileAlone();
    }
}

TEST_F(ReplaceFileTest, SaysWhichFileCouldNotBeWritten) {
    const Fault fault = Fault::failing(SystemCall::write, ENOSPC);
    const auto result = replace();
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().message, file + ": No space left on device");
}

TEST_F(ReplaceFileTest, ReportsAFolderThatDoesNotReachTheDisk) {
    writeOldFile();
    const Fault fault = Fault::failing(SystemCall::fsync, EIO, 1);
    const auto result = replace();
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), (FileError{EIO, folder.path() + ": Input/output error"}));
    EXPECT_EQ(readTestFile(file), "new");
}

TEST_F(ReplaceFileTest, IsForTwoWritersWithNamesOfTheirOwn) {
    // Each content is one letter many times over; a mixture would show.
    constexpr std::size_t size = 200'000;
    constexpr int times = 50;
    const auto writeMany = [&](char letter) {
        for (int i = 0; i < times; ++i) {
            if (!replaceFile(folder.path(), "state", std::string(size, letter), 0600,
                             std::string(1, letter))) {
                return false;
            }
        }
        return true;
    };
    auto first = std::async(std::launch::async, writeMany, 'a');
    auto second = std::async(std::launch::async, writeMany, 'b');
    while (first.wait_for(std::chrono::seconds{0}) != std::future_status::ready) {
        const auto seen = readFile(file, size);
        if (!seen) {
            EXPECT_EQ(seen.error().code, ENOENT) << "before the first of them";
            continue;
        }
        EXPECT_EQ(*seen, std::string(size, seen->front()));
    }
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
    EXPECT_EQ(membersOf(folder.path()), std::vector<std::string>{"state"});
}

TEST_F(ReplaceFileTest, RefusesAZeroByteInAPath) {
    writeOldFile();
    EXPECT_EQ(codeOf(replaceFile(folder.path(), "state\0x"s, "new", 0600)), EINVAL);
    EXPECT_EQ(codeOf(replaceFile(folder.path() + "\0x"s, "state", "new", 0600)), EINVAL);
    EXPECT_EQ(codeOf(readFile(file + "\0x"s, enough)), EINVAL);
    expectOldFileAlone();
}

// Replacements on file systems that refuse them for real.
class HostileDiskTest : public ::testing::Test {
  protected:
    TemporaryFolder folder;
    std::string disk = folder / "disk";

    void SetUp() override { ASSERT_EQ(mkdir(disk.c_str(), 0700), 0); }
};

TEST_F(HostileDiskTest, AFullDiskLeavesTheOldFileWhole) {
    const PrivateMount mount("tmpfs", "tmpfs", disk, 0, "size=64k");
    if (!mount.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    ASSERT_TRUE(replaceFile(disk, "state", "old", 0600));
    const auto result = replaceFile(disk, "state", std::string(100'000, 'x'), 0600);
    EXPECT_EQ(codeOf(result), ENOSPC);
    EXPECT_EQ(readTestFile(disk + "/state"), "old");
    EXPECT_EQ(membersOf(disk), std::vector<std::string>{"state"});
}

TEST_F(HostileDiskTest, AReadOnlyDiskLeavesTheOldFileWhole) {
    ASSERT_TRUE(replaceFile(disk, "state", "old", 0600));
    const PrivateMount mount("none", disk, disk, MS_BIND);
    if (!mount.makeReadOnly()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    EXPECT_EQ(codeOf(replaceFile(disk, "state", "new", 0600)), EROFS);
    EXPECT_EQ(codeOf(createFolder(disk + "/a", 0700)), EROFS);
    EXPECT_EQ(readTestFile(disk + "/state"), "old");
}

TEST_F(HostileDiskTest, AnImmutableFolderLeavesTheOldFileWhole) {
    ASSERT_TRUE(replaceFile(disk, "state", "old", 0600));
    const Descriptor item(open(disk.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int flags = 0;
    if (ioctl(item.get(), FS_IOC_GETFLAGS, &flags) != 0 ||
        ioctl(item.get(), FS_IOC_SETFLAGS, &(flags |= FS_IMMUTABLE_FL)) != 0) {
        GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
    }
    EXPECT_EQ(codeOf(replaceFile(disk, "state", "new", 0600)), EPERM);
    EXPECT_EQ(readTestFile(disk + "/state"), "old");
    EXPECT_EQ(membersOf(disk), std::vector<std::string>{"state"});
}

}  // namespace
}  // namespace halvo
