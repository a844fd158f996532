// A commitment that cannot be saved. The tests of the store and of the engine cover each kind of
// damage and failure.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;
using ::testing::StartsWith;

struct DiskTest : ::testing::Test {
    World world;
};

// Fills the file system at `folder`.
void fill(const std::string& folder) {
    std::ofstream file(folder + "/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
    ASSERT_TRUE(exists(folder + "/filler"));
}

TEST_F(DiskTest, AFullDiskMeansNoLockAndASaveRetriedEachMinute) {
    const std::string couldNotSave =
        "error: Couldn't save the state: " + Place::stateFile + ": No space left on device";
    ASSERT_EQ(mount("test", Place::support.c_str(), "tmpfs", 0, "size=64k"), 0);
    fill(Place::support);
    RunningHelper helper;
    // Held although both saves failed, but not locked: after a crash no record would owe the
    // unlock.
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_THAT(
        helper.log(),
        ElementsAre(couldNotSave, "error: Didn't lock Halvo: no record on the disk owes the unlock",
                    "error: Couldn't lock Halvo's app", couldNotSave, StartsWith("Holding")));
    const Status status = world.status();
    EXPECT_TRUE(status.holding);
    EXPECT_FALSE(status.locked);
    EXPECT_FALSE(isLocked());
    EXPECT_EQ(world.ask({"heartbeat"}).status, Reply::yes);
    EXPECT_TRUE(fs::is_empty(Place::stateFolder)) << "a partial file was left";

    fs::remove(Place::support + "/filler");
    EXPECT_TRUE(eventually(Seconds{66}, [] { return exists(Place::stateFile); }));
    const auto state = world.state();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->locked);
    EXPECT_THAT(state->remaining, AllOf(Ge(530), Le(541)));
    EXPECT_EQ(helper.count("error: Couldn't save the state: *"), 2);
    // The next begin is saved, and sets the lock.
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    ASSERT_TRUE(world.state());
    EXPECT_TRUE(world.state()->locked);
    EXPECT_TRUE(isLocked());
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists(Place::stateFolder));
    umount2(Place::support.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace halvo::testing
