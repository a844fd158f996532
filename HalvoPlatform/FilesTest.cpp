#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using testing::Fault;
using testing::readTestFile;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;
using Names = std::vector<std::string>;

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

Names membersOf(const std::string& folder) {
    Names names;
    for (const auto& item : fs::directory_iterator(folder)) {
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

// The same in words.
template <class Result>
std::string messageOf(const Result& result) {
    return result ? "" : result.error().message;
}

class FilesTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(openDescriptors(), descriptors_) << "left open"; }

    // Puts the old file in its place.
    void writeOldFile() const { writeTestFile(file, "old"); }

    // What must be so after a replacement of the old file has failed.
    void expectOldFileAlone() const {
        EXPECT_EQ(readTestFile(file), "old");
        EXPECT_EQ(membersOf(folder.path()), Names{"state"});
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
using LockFileTest = FilesTest;

TEST_F(ReadFileTest, ReadsEveryByteUpToTheLimit) {
    for (const std::string& bytes : {"a\0b\r\n\xFF"s + std::string(100'000, 'x'), ""s}) {
        writeTestFile(file, bytes);
        EXPECT_EQ(readFile(file, enough), bytes);
        EXPECT_EQ(readFile(file, bytes.size()), bytes);
    }
    writeTestFile(file, "123456");
    const std::size_t reads = testing::callsMade(SystemCall::read);
    EXPECT_EQ(codeOf(readFile(file, 5)), EFBIG);
    EXPECT_EQ(testing::callsMade(SystemCall::read), reads) << "unread";
    fs::create_symlink("state", folder / "link");
    EXPECT_EQ(readFile(folder / "link", enough), "123456");
}

// Files of /proc have the length 0.
TEST_F(ReadFileTest, ReadsAFileThatDoesNotTellItsLength) {
    const auto text = readFile("/proc/self/status", enough);
    ASSERT_TRUE(text.has_value());
    EXPECT_TRUE(text->starts_with("Name:"));
    EXPECT_TRUE(text->ends_with('\n'));
    EXPECT_EQ(codeOf(readFile("/proc/self/status", 10)), EFBIG);
}

TEST_F(ReadFileTest, RefusesWhatIsNoFileWithoutWaiting) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = socketAddress(temporary);
    ASSERT_EQ(bind(listener.get(), generic(*address), sizeof *address), 0);
    for (const auto& [path, code] :
         {std::pair(folder / "missing", ENOENT), std::pair(folder.path(), EINVAL),
          std::pair("/dev/zero"s, EINVAL), std::pair("/dev/null\0x"s, EINVAL),
          std::pair(file, EINVAL), std::pair(temporary, ENXIO)}) {
        EXPECT_EQ(codeOf(readFile(path, enough)), code) << path;
    }
    EXPECT_EQ(messageOf(readFile(folder / "missing", enough)),
              (folder / "missing") + ": No such file or directory");
}

TEST_F(ReadFileTest, FailsWithWhatTheSystemSaysAndGoesOnWhereItCan) {
    writeOldFile();
    for (const SystemCall call : {SystemCall::fstat, SystemCall::read}) {
        const Fault fault = Fault::failing(call, EIO);
        EXPECT_EQ(codeOf(readFile(file, enough)), EIO);
    }
    {
        const Fault interrupted = Fault::failing(SystemCall::read, EINTR);
        EXPECT_EQ(readFile(file, enough), "old");
    }
    const Fault cut = Fault::cutShort(SystemCall::read, 1);
    EXPECT_EQ(readFile(file, enough), "old");
}

TEST_F(CreateFolderTest, MakesAFolderAndThoseAboveWithTheirPermissions) {
    struct Row {
        mode_t umask;
        mode_t mode;
        // Of the folders above; the folder itself has `mode`.
        mode_t above;
    };

    for (const Row& row : {Row{0, 0750, 0755}, Row{022, 0700, 0755}, Row{077, 0755, 0700}}) {
        const Umask umask(row.umask);
        const std::string path = folder / std::to_string(row.umask);
        EXPECT_TRUE(createFolder(path + "/b/c", row.mode));
        EXPECT_EQ(permissionsOf(path), row.above);
        EXPECT_EQ(permissionsOf(path + "/b"), row.above);
        EXPECT_EQ(permissionsOf(path + "/b/c"), row.mode);
    }
    const Umask umask(0777);
    EXPECT_TRUE(createFolder(folder / "closed", 0750));
    EXPECT_EQ(permissionsOf(folder / "closed"), 0750U);
}

TEST_F(CreateFolderTest, LeavesWhatIsThereAsItIsAlsoBehindALink) {
    const std::string path = folder / "there";
    ASSERT_EQ(mkdir(path.c_str(), 0711), 0);
    fs::create_directory_symlink("there", folder / "link");
    for (const std::string& same : {path, folder / "link", path + "/a/b"}) {
        EXPECT_TRUE(createFolder(same, 0700));
        EXPECT_EQ(permissionsOf(path), 0711U);
    }
}

TEST_F(CreateFolderTest, SyncsEachFolderThatItMadeIntoTheOneAbove) {
    ASSERT_EQ(mkdir((folder / "a").c_str(), 0700), 0);
    const testing::CallTrace trace;
    ASSERT_TRUE(createFolder(folder / "a/b/c/", 0700));
    EXPECT_EQ(trace.calls(), (Names{"mkdir " + (folder / "a/b"), "fsync " + (folder / "a"),
                                    "mkdir " + (folder / "a/b/c/"), "fsync " + (folder / "a/b")}));
    ASSERT_TRUE(createFolder(folder / "a/b/c", 0700));
    EXPECT_EQ(trace.calls().size(), 4) << "what is there needs nothing";
}

TEST_F(CreateFolderTest, FailsWithWhatTheSystemSays) {
    struct Row {
        SystemCall call;
        int code;
        int skip;
        std::string path;
        // What the message names.
        std::string failed;
    };

    for (const Row& row :
         std::vector<Row>{{SystemCall::mkdir, EROFS, 0, folder / "a", folder / "a"},
                          {SystemCall::mkdir, ENOENT, 0, "/", "/"},
                          // The first call finds that "b" is missing, the second makes it.
                          {SystemCall::mkdir, ENOSPC, 1, folder / "b/c", folder / "b"},
                          {SystemCall::mkdir, EDQUOT, 2, folder / "b/c", folder / "b/c"},
                          // What is not synced is taken back, as the next call would not sync it.
                          {SystemCall::fsync, EIO, 0, folder / "a", folder.path()},
                          {SystemCall::open, EMFILE, 0, folder / "a", folder.path()},
                          {SystemCall::stat, EIO, 0, folder.path(), folder.path()},
                          {SystemCall::chmod, EPERM, 0, folder / "d", folder / "d"}}) {
        const Fault fault = Fault::failing(row.call, row.code, row.skip);
        const auto result = createFolder(row.path, 0700);
        EXPECT_EQ(codeOf(result), row.code) << row.path;
        EXPECT_EQ(messageOf(result), row.failed + ": " + errorText(row.code));
        EXPECT_FALSE(fs::exists(folder / "a"));
    }
}

TEST_F(CreateFolderTest, RefusesAnythingElseInItsPlaceOrAbove) {
    writeOldFile();
    fs::create_symlink("missing", folder / "link");
    for (const auto& [path, code] : {std::pair(file, ENOTDIR), std::pair(file + "/a", ENOTDIR),
                                     std::pair(file + "/a/b", ENOTDIR),
                                     std::pair(folder / "link", ENOENT), std::pair(""s, ENOENT)}) {
        EXPECT_EQ(codeOf(createFolder(path, 0700)), code) << path;
    }
}

TEST_F(ReplaceFileTest, ReplacesAFileWithThePermissionsAskedForWhateverTheUmask) {
    for (const mode_t mask : {0U, 0777U}) {
        const Umask umask(mask);
        for (const mode_t mode : {0600U, 0644U}) {
            ASSERT_TRUE(replace("new", mode));
            EXPECT_EQ(permissionsOf(file), mode) << mask;
        }
    }
    for (const std::string& bytes : {"a\0b"s + std::string(1'000'000, 'x'), ""s}) {
        ASSERT_EQ(chmod(file.c_str(), 0666), 0);
        ASSERT_TRUE(replace(bytes));
        EXPECT_EQ(readTestFile(file), bytes);
        EXPECT_EQ(permissionsOf(file), 0600U);
        EXPECT_EQ(membersOf(folder.path()), Names{"state"});
    }
}

TEST_F(ReplaceFileTest, ReplacesALinkAndNotItsTarget) {
    writeTestFile(folder / "target", "target");
    fs::create_symlink("target", file);
    ASSERT_TRUE(replace());
    EXPECT_FALSE(fs::is_symlink(file));
    EXPECT_EQ(readTestFile(folder / "target"), "target");
    const TemporaryFolder elsewhere;
    fs::create_directory_symlink(folder.path(), elsewhere / "link");
    EXPECT_TRUE(replaceFile(elsewhere / "link", "state", "newer", 0600));
    EXPECT_EQ(readTestFile(file), "newer") << "in a folder behind a link";
}

TEST_F(ReplaceFileTest, BringsBothTheFileAndTheFolderToTheDisk) {
    const std::size_t before = testing::callsMade(SystemCall::fsync);
    ASSERT_TRUE(replace());
    EXPECT_EQ(testing::callsMade(SystemCall::fsync), before + 2);
    {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO, 1);
        EXPECT_EQ(messageOf(replace("newer")), folder.path() + ": Input/output error");
    }
    EXPECT_EQ(readTestFile(file), "newer");
}

TEST_F(ReplaceFileTest, TakesALeftOverAwayWhateverItIs) {
    writeTestFile(folder / "target", "target");
    const std::vector<std::function<void()>> leftOvers{
        [&] {
            writeTestFile(temporary, "half a fi");
            chmod(temporary.c_str(), 0666);
        },
        [&] { fs::create_symlink("target", temporary); },
        [&] { mkfifo(temporary.c_str(), 0600); },
    };
    for (const auto& make : leftOvers) {
        fs::remove(file);
        make();
        ASSERT_TRUE(replace());
        EXPECT_EQ(readTestFile(file), "new");
        EXPECT_EQ(permissionsOf(file), 0600U);
        EXPECT_EQ(membersOf(folder.path()), (Names{"state", "target"}));
    }
    EXPECT_EQ(readTestFile(folder / "target"), "target");
}

TEST_F(ReplaceFileTest, SaysSoWhenALeftOverCannotBeTakenAway) {
    writeOldFile();
    for (const auto& [call, code, skip] :
         {std::tuple(SystemCall::unlinkat, EIO, 0), std::tuple(SystemCall::openat, EEXIST, 1)}) {
        writeTestFile(temporary, "half a fi");
        const Fault fault = Fault::failing(call, code, skip);
        EXPECT_EQ(codeOf(replace()), code);
    }
    fs::remove(temporary);
    ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
    EXPECT_EQ(codeOf(replace()), EISDIR);
    EXPECT_EQ(messageOf(replace()), temporary + ": Is a directory");
    EXPECT_EQ(readTestFile(file), "old");
}

TEST_F(ReplaceFileTest, FailsWhereThereCanBeNoFile) {
    EXPECT_EQ(messageOf(replaceFile(folder / "missing", "state", "new", 0600)),
              (folder / "missing") + ": No such file or directory");
    writeOldFile();
    EXPECT_EQ(codeOf(replaceFile(file, "state", "new", 0600)), ENOTDIR);
    EXPECT_EQ(codeOf(replaceFile(folder.path(), "state\0x"s, "new", 0600)), EINVAL);
    EXPECT_EQ(codeOf(replaceFile(folder.path() + "\0x"s, "state", "new", 0600)), EINVAL);
    expectOldFileAlone();
    fs::remove(file);
    ASSERT_EQ(mkdir(file.c_str(), 0700), 0);
    EXPECT_EQ(codeOf(replace()), EISDIR);
    EXPECT_EQ(membersOf(folder.path()), Names{"state"});
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
        const std::size_t writes = testing::callsMade(SystemCall::write);
        const Fault fault = Fault::failing(row.call, row.code);
        const auto result = replace();
        EXPECT_EQ(codeOf(result), row.code);
        EXPECT_TRUE(messageOf(result).starts_with(folder.path()));
        expectOldFileAlone();
        const bool isBefore = row.call != SystemCall::write && row.call != SystemCall::fsync &&
                              row.call != SystemCall::renameat;
        EXPECT_EQ(testing::callsMade(SystemCall::write) == writes, isBefore)
            << "no byte before the permissions are right";
    }
}

TEST_F(ReplaceFileTest, GoesOnAfterAShortWriteOrASignal) {
    {
        const Fault fault = Fault::cutShort(SystemCall::write, 1);
        ASSERT_TRUE(replace("several bytes"));
        EXPECT_EQ(readTestFile(file), "several bytes");
    }
    const Fault fault = Fault::failing(SystemCall::write, EINTR);
    ASSERT_TRUE(replace("other bytes"));
    EXPECT_EQ(readTestFile(file), "other bytes");
}

TEST_F(LockFileTest, IsMadeForItsOwnerAloneAndHeldWhileItIsOpen) {
    {
        const auto lock = takeLockFile(file);
        ASSERT_TRUE(lock) << lock.error().message;
        EXPECT_EQ(permissionsOf(file), 0600U);
        EXPECT_EQ(fcntl(lock->get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(takeLockFile(file).error(),
                  (FileError{EWOULDBLOCK, file + ": Resource temporarily unavailable"}));
    }
    EXPECT_TRUE(takeLockFile(file)) << "what a holder left is taken over";
}

// One that ends takes the file away that the next one may have opened already.
TEST_F(LockFileTest, HasOneHolderAtATimeThoughEachRemovesTheFile) {
    std::atomic<int> holders = 0;
    std::atomic<int> most = 0;
    std::vector<std::thread> all;
    for (int i = 0; i < 4; ++i) {
        all.emplace_back([&] {
            for (int taken = 0; taken < 200;) {
                const auto lock = takeLockFile(file);
                if (lock) {
                    ++taken;
                    most = std::max<int>(most, ++holders);
                    std::this_thread::yield();
                    --holders;
                    fs::remove(file);
                }
            }
        });
    }
    std::ranges::for_each(all, &std::thread::join);
    EXPECT_EQ(most, 1);
}

TEST_F(LockFileTest, RefusesWhatIsNoFile) {
    fs::create_symlink(folder / "elsewhere", file);
    EXPECT_EQ(takeLockFile(file).error().code, ELOOP);
    EXPECT_FALSE(fs::exists(folder / "elsewhere"));
    EXPECT_EQ(takeLockFile(folder.path()).error().code, EISDIR);
    EXPECT_EQ(takeLockFile(folder / "missing/lock").error().code, ENOENT);
}

TEST_F(FilesTest, SyncsAFileAndAFolderOrSaysWhyNot) {
    writeOldFile();
    for (const std::string& path : {file, folder.path()}) {
        const Descriptor item(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(syncToDisk(item.get()), 0);
        const Fault fault = Fault::failing(SystemCall::fsync, EIO);
        EXPECT_EQ(syncToDisk(item.get()), EIO);
    }
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(syncToDisk(null.get()), EINVAL) << "it is on no disk";
}

TEST(DescriptorTest, OwnsWhatItIsGivenUntilItsEndMovesWithoutClosingAndNeverCopies) {
    static_assert(!std::is_copy_constructible_v<Descriptor>);
    static_assert(!std::is_copy_assignable_v<Descriptor>);
    const auto openNull = [] { return open("/dev/null", O_RDONLY | O_CLOEXEC); };
    const auto isOpenFile = [](int number) { return fcntl(number, F_GETFD) != -1; };
    const int number = openNull();
    const int other = openNull();
    {
        Descriptor first(number);
        EXPECT_TRUE(first.isOpen());
        Descriptor second(std::move(first));
        Descriptor& same = second;
        second = std::move(same);
        EXPECT_EQ(second.get(), number);
        EXPECT_TRUE(isOpenFile(number)) << "given itself";
        second = Descriptor(other);
        EXPECT_FALSE(isOpenFile(number)) << "what it held is closed";
        EXPECT_TRUE(isOpenFile(other));
    }
    EXPECT_FALSE(isOpenFile(other));
    EXPECT_FALSE(Descriptor().isOpen());
    EXPECT_FALSE(Descriptor(-1).isOpen()) << "a call that failed";
    Descriptor zero(0);
    EXPECT_TRUE(zero.isOpen());
    EXPECT_EQ(zero.release(), 0);
    EXPECT_FALSE(zero.isOpen());
}

}  // namespace
}  // namespace halvo
