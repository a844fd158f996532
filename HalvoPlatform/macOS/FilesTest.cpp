#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "HalvoPlatform/Files.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::TemporaryFolder;

class DiskSyncTest : public ::testing::Test {
  protected:
    DiskSyncTest() { fake::reset(); }

    TemporaryFolder folder;
    Descriptor file{open((folder / "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600)};
};

TEST_F(DiskSyncTest, EmptiesTheDrivesOwnCacheToo) {
    const Descriptor place(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fake::world().syncError = EIO;
    EXPECT_EQ(syncToDisk(file.get()), 0);
    EXPECT_EQ(syncToDisk(place.get()), 0);
    EXPECT_EQ(fake::world().fullSyncCalls, 2);
    EXPECT_EQ(fake::world().syncCalls, 0) << "one of the two is enough";
}

TEST_F(DiskSyncTest, DoesWhatAFileSystemCanThatDoesNotKnowIt) {
    for (const int unknown : {ENOTSUP, ENOTTY, EINVAL}) {
        for (const auto syncError : {std::optional<int>(), std::optional(EIO)}) {
            fake::reset();
            fake::world().fullSyncError = unknown;
            fake::world().syncError = syncError;
            EXPECT_EQ(syncToDisk(file.get()), syncError.value_or(0));
            EXPECT_EQ(fake::world().fullSyncCalls, 1);
            EXPECT_EQ(fake::world().syncCalls, 1);
        }
    }
}

TEST_F(DiskSyncTest, TakesNoFailureOfTheDiskForIgnorance) {
    fake::world().fullSyncError = EIO;
    EXPECT_EQ(syncToDisk(file.get()), EIO);
    EXPECT_EQ(fake::world().syncCalls, 0);
}

}  // namespace
}  // namespace halvo
