#include <gtest/gtest.h>

#include <filesystem>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

class LockOwedTest : public ::testing::Test {
  protected:
    LockOwedTest() { std::filesystem::create_directories(bundle); }

    TemporaryFolder disk;
    const std::string bundle = disk / "Applications/Halvo.app";
};

TEST_F(LockOwedTest, IsThatOfABundleThatMayBeLocked) {
    EXPECT_EQ(lockOwed({bundle, true}), bundle);
}

TEST_F(LockOwedTest, IsNoneWhenNoneWasSet) {
    EXPECT_EQ(lockOwed({bundle, false}), std::nullopt);
    EXPECT_EQ(lockOwed({std::nullopt, true}), std::nullopt);
    EXPECT_EQ(lockOwed({}), std::nullopt);
}

TEST_F(LockOwedTest, IsNoneOfAnythingElse) {
    std::filesystem::create_directories(disk / "Elsewhere/Halvo.app");
    std::filesystem::create_directory_symlink(bundle, disk / "Applications/Link.app");
    for (const std::string& path :
         {std::string("/etc"), std::string("/"), std::string(), disk / "Elsewhere/Halvo.app",
          disk / "Applications/Link.app", disk / "Applications/Gone.app", bundle + "/../Halvo.app",
          bundle + std::string("\0", 1)}) {
        EXPECT_EQ(lockOwed({path, true}), std::nullopt) << path;
    }
}

}  // namespace
}  // namespace halvo::testing
