#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

namespace fs = std::filesystem;

class LockFileTest : public ::testing::Test {
  protected:
    const testing::TemporaryFolder folder;
    const std::string path = folder / "lock";
};

TEST_F(LockFileTest, IsMadeForItsOwnerAlone) {
    const auto lock = takeLockFile(path);
    ASSERT_TRUE(lock) << lock.error().message;
    struct stat status{};
    ASSERT_EQ(fstat(lock->get(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600);
    EXPECT_EQ(fcntl(lock->get(), F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(LockFileTest, IsHeldWhileItIsOpen) {
    {
        const auto lock = takeLockFile(path);
        ASSERT_TRUE(lock);
        EXPECT_EQ(takeLockFile(path).error(),
                  (FileError{EWOULDBLOCK, path + ": Resource temporarily unavailable"}));
    }
    EXPECT_TRUE(takeLockFile(path)) << "what a holder left is taken over";
}

// One that ends takes the file away that the next one may have opened already.
TEST_F(LockFileTest, HasOneHolderAtATimeThoughEachRemovesTheFile) {
    std::atomic<int> holders = 0;
    std::atomic<int> most = 0;
    std::vector<std::thread> all;
    for (int i = 0; i < 4; ++i) {
        all.emplace_back([&] {
            for (int taken = 0; taken < 200;) {
                const auto lock = takeLockFile(path);
                if (lock) {
                    ++taken;
                    most = std::max<int>(most, ++holders);
                    std::this_thread::yield();
                    --holders;
                    fs::remove(path);
                }
            }
        });
    }
    for (std::thread& each : all) {
        each.join();
    }
    EXPECT_EQ(most, 1);
}

TEST_F(LockFileTest, RefusesWhatIsNoFile) {
    fs::create_symlink(folder / "elsewhere", path);
    EXPECT_EQ(takeLockFile(path).error().code, ELOOP);
    EXPECT_FALSE(fs::exists(folder / "elsewhere"));
    EXPECT_EQ(takeLockFile(folder.path()).error().code, EISDIR);
    EXPECT_EQ(takeLockFile(folder / "missing/lock").error().code, ENOENT);
}

}  // namespace
}  // namespace halvo
