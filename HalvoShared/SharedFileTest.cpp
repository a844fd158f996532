#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

namespace fs = std::filesystem;

using testing::ChildResult;
using testing::expectInChild;
using testing::Fault;
using testing::longSnapshot;
using testing::readTestFile;
using testing::runInChild;
using testing::sampleSnapshot;
using testing::SystemCall;
using testing::TemporaryFolder;
using testing::writeTestFile;

class SharedFileTest : public ::testing::Test {
  protected:
    // What write() throws, or "nothing".
    std::string failureOf(const WidgetSnapshot& snapshot) const {
        try {
            file.write(snapshot);
        } catch (const SharedFileError& error) {
            return error.what();
        }
        return "nothing";
    }

    [[nodiscard]] std::size_t members() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()));
    }

    TemporaryFolder folder;
    std::string path = folder / "widgets.json";
    SharedFile<WidgetSnapshot> file{path};
};

TEST_F(SharedFileTest, IsTheNameInTheFolder) {
    EXPECT_EQ(SharedFile<WidgetSnapshot>("widgets.json", "/a/b").url(), "/a/b/widgets.json");
    EXPECT_EQ(SharedFile<WidgetSnapshot>("widgets.json", "/a/b/").url(), "/a/b/widgets.json");
    EXPECT_EQ(SharedFile<WidgetSnapshot>("widgets.json", "").url(), "widgets.json");
    EXPECT_EQ(SharedFile<WidgetSnapshot>("/a b/c").url(), "/a b/c");
    EXPECT_EQ(SharedFile<WidgetSnapshot>("widgets.json", folder.path()), file);
}

TEST_F(SharedFileTest, HasWhatWasWrittenLastForThePersonAlone) {
    const WidgetSnapshot long3000 = longSnapshot(3000);
    for (const WidgetSnapshot& snapshot : {sampleSnapshot(), WidgetSnapshot(), long3000}) {
        file.write(snapshot);
        EXPECT_EQ(file.read(), snapshot);
        EXPECT_EQ(members(), 1U);
        struct stat status{};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600U);
    }
}

TEST_F(SharedFileTest, HasNothingWhenItIsNoFile) {
    EXPECT_EQ(file.read(), std::nullopt);
    EXPECT_EQ(file.load().error(), path + ": No such file or directory");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(file.read(), std::nullopt) << "without waiting for a writer";
    for (const std::string& none :
         {folder.path(), std::string(), std::string(5000, 'x'), std::string("/dev/zero")}) {
        EXPECT_EQ(SharedFile<WidgetSnapshot>(none).read(), std::nullopt) << none;
    }
}

TEST_F(SharedFileTest, HasNothingWhenItIsDamaged) {
    for (const std::string& bytes : {std::string(), std::string("{"), std::string(1000, '\0')}) {
        writeTestFile(path, bytes);
        EXPECT_EQ(file.read(), std::nullopt);
    }
    writeTestFile(path, "{\"writtenAt\":5}");
    EXPECT_EQ(file.load().error(),
              path + ": writtenAt: Expected a date such as \"2026-11-20T09:30:00Z\", found 5");
}

TEST_F(SharedFileTest, HasNothingWhenItIsLongerThanAnyRecord) {
    writeTestFile(path, "");
    for (const std::uintmax_t size : {shared_file::sizeLimit + 1, std::uintmax_t{1} << 40U}) {
        fs::resize_file(path, size);
        EXPECT_EQ(file.load().error(), path + ": File too large");
    }
}

#if !HALVO_IS_SANITIZED
// What setrlimit(2) counts against RLIMIT_DATA, in bytes.
rlim_t memoryInUse() {
    std::ifstream status("/proc/self/status");
    std::string word;
    rlim_t kibibytes = 0;
    while (status >> word && word != "VmData:") {
    }
    status >> kibibytes;
    return kibibytes * 1024;
}

// Leaves this process that much memory, whatever it has freed before.
void leaveMemory(std::size_t size) {
    void* volatile spare = std::malloc(size);
    const rlim_t most = memoryInUse();
    const rlimit none{most, most};
    ASSERT_EQ(setrlimit(RLIMIT_DATA, &none), 0);
    for (std::size_t block = std::size_t{1} << 20U; block >= 16; block /= 2) {
        for (void* volatile taken = std::malloc(block); taken != nullptr;) {
            taken = std::malloc(block);
        }
    }
    std::free(spare);
}

// A sanitizer's allocator ends the process where the C library's lets operator new throw.
TEST_F(SharedFileTest, HasNothingWhenThereIsNotTheMemoryForIt) {
    const WidgetSnapshot snapshot = longSnapshot(3000);
    file.write(snapshot);
    constexpr std::size_t enough = 48;
    for (std::size_t mebibytes = 1; mebibytes <= enough; ++mebibytes) {
        const ChildResult child = runInChild([&] {
            leaveMemory(mebibytes << 20U);
            const auto loaded = file.load();
            EXPECT_TRUE(loaded.has_value() || mebibytes < enough);
            EXPECT_TRUE(!loaded || mebibytes > 1);
            EXPECT_TRUE(loaded
                            ? *loaded == snapshot
                            : loaded.error() == path + ": There is not enough memory to read it");
        });
        EXPECT_EQ(child.status, 0) << mebibytes << ": " << child.output;
    }
}
#endif

TEST_F(SharedFileTest, KeepsTheOldRecordWhenTheNewOneCannotBeWritten) {
    file.write(sampleSnapshot());
    WidgetSnapshot bad = sampleSnapshot();
    bad.horizon = wallDate(std::nan(""));
    EXPECT_EQ(failureOf(bad), path + ": horizon: is not a date of the years 0 to 9999");
    bad = sampleSnapshot();
    std::get<WidgetSnapshot::Block>(bad.phases[0].state).running.name = "\xFF";
    EXPECT_EQ(failureOf(bad), path + ": phases[0].state.block._0.name: is not UTF-8 text");
    bad = sampleSnapshot();
    bad.breathe.style.assign(shared_file::sizeLimit, 'x');
    EXPECT_EQ(failureOf(bad),
              path + ": The record is longer than 1048576 bytes, the most that is read");
    {
        const Fault fault = Fault::failing(SystemCall::write, ENOSPC);
        EXPECT_EQ(failureOf(WidgetSnapshot()), path + ": No space left on device");
    }
    EXPECT_EQ(file.read(), sampleSnapshot());
    EXPECT_EQ(members(), 1U);
    const SharedFile<WidgetSnapshot> elsewhere("widgets.json", folder / "none");
    EXPECT_THROW(elsewhere.write(sampleSnapshot()), SharedFileError);
    EXPECT_FALSE(fs::exists(folder / "none"));
}

TEST_F(SharedFileTest, HasTheNewRecordWholeWhenOnlyTheFolderDoesNotReachTheDisk) {
    file.write(sampleSnapshot());
    {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO, 1);
        EXPECT_EQ(failureOf(WidgetSnapshot()), path + ": Input/output error");
    }
    EXPECT_EQ(file.read(), WidgetSnapshot());
}

TEST_F(SharedFileTest, IsNoOtherFileWhenItsPathHasAZeroByte) {
    file.write(sampleSnapshot());
    const SharedFile<WidgetSnapshot> other(path + std::string("\0x", 2));
    EXPECT_EQ(other.read(), std::nullopt);
    EXPECT_THROW(other.write(WidgetSnapshot()), SharedFileError);
    other.remove();
    EXPECT_EQ(file.read(), sampleSnapshot());
}

TEST_F(SharedFileTest, IsWholeWhileManyWriteAtOnce) {
    const WidgetSnapshot first = longSnapshot(100);
    const WidgetSnapshot second = longSnapshot(90);
    file.write(first);
    const auto writeOften = [this](const WidgetSnapshot& snapshot) {
        for (int i = 0; i < 30; ++i) {
            file.write(snapshot);
        }
    };
    // Before there are threads: a child of a process with several may find locks held for ever.
    const pid_t child = fork();
    if (child == 0) {
        writeOften(first);
        _exit(EXIT_SUCCESS);
    }
    std::atomic<int> writing = 2;
    const auto writeInThread = [&](const WidgetSnapshot& snapshot) {
        return std::jthread([&] {
            writeOften(snapshot);
            --writing;
        });
    };
    {
        const std::jthread one = writeInThread(first);
        const std::jthread other = writeInThread(second);
        do {
            const auto read = file.load();
            ASSERT_TRUE(read.has_value()) << read.error();
            EXPECT_TRUE(*read == first || *read == second);
        } while (writing > 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(members(), 1U);
}

TEST_F(SharedFileTest, IsWrittenBesideTheProcessWhenItsPathIsABareName) {
    expectInChild([this] {
        ASSERT_EQ(chdir(folder.path().c_str()), 0);
        SharedFile<WidgetSnapshot>("widgets.json").write(sampleSnapshot());
    });
    EXPECT_EQ(file.read(), sampleSnapshot());
}

TEST_F(SharedFileTest, IsRemovedIfItCanBe) {
    file.write(sampleSnapshot());
    file.remove();
    EXPECT_FALSE(fs::exists(path));
    file.remove();
    fs::create_directory(path);
    writeTestFile(path + "/inside", "kept");
    file.remove();
    EXPECT_EQ(readTestFile(path + "/inside"), "kept");
}

// In a process of its own, whose first use of the file it is.
template <class Record>
void expectInContainer(const std::string& name) {
    const TemporaryFolder home;
    const TemporaryFolder other;
    expectInChild([&] {
        ASSERT_EQ(setenv("XDG_DATA_HOME", home.path().c_str(), 1), 0);
        const std::string url = Record::file().url();
        EXPECT_EQ(url, AppGroup::container() + "/" + name);
        EXPECT_TRUE(url.starts_with(home.path()));
        ASSERT_EQ(setenv("XDG_DATA_HOME", other.path().c_str(), 1), 0);
        ASSERT_TRUE(AppGroup::container().starts_with(other.path()));
        EXPECT_EQ(Record::file().url(), url) << "it stays where the container was";
    });
}

TEST(FileOfRecordTest, LiesInTheContainerUnderItsName) {
    expectInContainer<KeepAliveState>("keepalive.json");
    expectInContainer<WidgetSnapshot>("widgets.json");
}

}  // namespace
}  // namespace halvo
