#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;

class ReleaseLockTest : public ::testing::Test {
  protected:
    [[nodiscard]] std::expected<ReleaseLock, std::string> take(Seconds limit = Seconds{0}) {
        return ReleaseLock::take(path, {limit, [this] { ++slow; }});
    }

    const testing::TemporaryFolder folder;
    const std::string path = folder / "lock";
    int slow = 0;
};

TEST_F(ReleaseLockTest, IsAFileOfRootsForAsLongAsItLives) {
    {
        const auto lock = take();
        ASSERT_TRUE(lock) << lock.error();
        struct stat status{};
        ASSERT_EQ(lstat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0600);
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(take());
}

TEST_F(ReleaseLockTest, IsTakenOverFromOneThatWasKilled) {
    testing::writeTestFile(path, "");
    EXPECT_TRUE(take());
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ReleaseLockTest, IsOnesAlone) {
    const auto lock = take();
    ASSERT_TRUE(lock);
    EXPECT_EQ(take().error(),
              "Another halvoctl release runs and does not end. Wait for it, or kill it, and try "
              "again.");
    EXPECT_EQ(slow, 0);
    EXPECT_FALSE(take(Seconds{1.2}));
    EXPECT_EQ(slow, 1);
    EXPECT_TRUE(fs::exists(path)) << "who waits in vain takes it away from nobody";
}

TEST_F(ReleaseLockTest, IsWaitedFor) {
    std::optional<ReleaseLock> lock = *take();
    std::thread other([&lock] {
        std::this_thread::sleep_for(std::chrono::milliseconds{100});
        lock.reset();
    });
    EXPECT_TRUE(take(Seconds{30}));
    other.join();
}

TEST_F(ReleaseLockTest, IsHeldByOneOfManyAtATime) {
    std::atomic<int> holders = 0;
    std::atomic<int> most = 0;
    std::vector<std::thread> all;
    for (int i = 0; i < 4; ++i) {
        all.emplace_back([&] {
            for (int j = 0; j < 20; ++j) {
                const auto lock = ReleaseLock::take(path, {Seconds{30}, {}});
                ASSERT_TRUE(lock) << lock.error();
                most = std::max<int>(most, ++holders);
                std::this_thread::sleep_for(std::chrono::microseconds{200});
                --holders;
            }
        });
    }
    for (std::thread& each : all) {
        each.join();
    }
    EXPECT_EQ(most, 1);
}

TEST_F(ReleaseLockTest, FollowsNoLinkAndSaysWhatIsWrong) {
    fs::create_symlink(folder / "elsewhere", path);
    EXPECT_EQ(take().error(), path +
                                  " cannot be locked: Too many levels of symbolic links. Mend "
                                  "that and try again.");
    EXPECT_FALSE(fs::exists(folder / "elsewhere"));
}

}  // namespace
}  // namespace halvo::control
