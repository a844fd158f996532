#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/DiskSync.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::SystemCall;
using testing::TemporaryFolder;

TEST(DiskSyncTest, SyncsAFileAndAFolder) {
    const TemporaryFolder folder;
    const Descriptor file(open((folder / "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(syncToDisk(file.get()), 0);
    const Descriptor place(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(syncToDisk(place.get()), 0);
}

TEST(DiskSyncTest, SaysWhyItFailed) {
    std::array<int, 2> pipe{};
    ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
    const Descriptor input(pipe[0]);
    const Descriptor output(pipe[1]);
    EXPECT_EQ(syncToDisk(output.get()), EINVAL) << "a pipe is on no disk";
    const Fault fault = Fault::failing(SystemCall::fsync, EIO);
    EXPECT_EQ(syncToDisk(output.get()), EIO);
}

}  // namespace
}  // namespace halvo
