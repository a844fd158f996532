// What becomes of a commitment when the disk fails it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;
using ::testing::StartsWith;

const std::string couldNotSave = "error: Couldn't save the state: ";
const std::string notOnRecord = "error: Didn't lock Halvo: no record on the disk owes the unlock";
const std::string unreadable = "error: The state file couldn't be read; everything was lifted";

class DiskTest : public ::testing::Test {
  protected:
    // The commitment is held and told, though not saved: each of the two saves of a begin failed
    // because of `why`, and said so. Nothing is locked that a crash could leave locked for ever.
    void expectHeldUnsaved(const RunningHelper& helper, const std::string& why) {
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        EXPECT_THAT(helper.log(),
                    ElementsAre(couldNotSave + why, notOnRecord, "error: Couldn't lock Halvo's app",
                                couldNotSave + why, StartsWith("Holding")));
        const Told told = world.status();
        EXPECT_TRUE(told.holding);
        EXPECT_FALSE(told.locked);
        EXPECT_FALSE(isLocked());
        EXPECT_EQ(world.heartbeat(), Reply::yes);
    }

    // The next begin sets the lock.
    void expectSaved() {
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        const auto state = world.state();
        ASSERT_TRUE(state);
        EXPECT_TRUE(state->locked);
        EXPECT_TRUE(isLocked());
    }

    World world;
};

// Takes all the room there is at `folder`.
void fill(const std::string& folder) {
    std::ofstream file(folder + "/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
    ASSERT_TRUE(exists(folder + "/filler"));
}

TEST_F(DiskTest, ThatIsFullLocksNothingAndIsTriedAgainEveryMinute) {
    const Mount disk("tmpfs", Place::support, "size=64k");
    fill(Place::support);
    RunningHelper helper;
    expectHeldUnsaved(helper, Place::stateFile + ": No space left on device");
    EXPECT_TRUE(fs::is_empty(Place::stateFolder)) << "half a file was left";
    fs::remove(Place::support + "/filler");
    // Once a minute the budget is saved.
    EXPECT_TRUE(eventually(Seconds{66}, [] { return exists(Place::stateFile); }));
    const auto state = world.state();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->locked);
    EXPECT_THAT(state->remaining, AllOf(Ge(530), Le(541)));
    EXPECT_EQ(helper.count(couldNotSave + "*"), 2);
    expectSaved();
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(DiskTest, ThatBecomesFullKeepsTheRecordBefore) {
    const Mount disk("tmpfs", Place::support, "size=64k");
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const std::string before = readTestFile(Place::stateFile);
    fill(Place::support);
    EXPECT_EQ(world.begin(Seconds{1200}), Reply::yes);
    EXPECT_EQ(helper.count(couldNotSave + Place::stateFile + ": No space left on device"), 1);
    EXPECT_EQ(readTestFile(Place::stateFile), before);
    EXPECT_TRUE(isLocked()) << "as the record before owes it";
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
    fs::remove(Place::support + "/filler");
    ASSERT_EQ(world.begin(Seconds{1200}), Reply::yes);
    EXPECT_NE(readTestFile(Place::stateFile), before);
}

TEST_F(DiskTest, WithoutRoomForAnotherFileHolds) {
    // The root of it and one more.
    const Mount disk("tmpfs", Place::support, "nr_inodes=2");
    RunningHelper helper;
    expectHeldUnsaved(helper,
                      Place::stateFolder + "/.commitment.json.new: No space left on device");
    disk.remount("nr_inodes=100", 0);
    expectSaved();
}

TEST_F(DiskTest, ThatIsReadOnlyHolds) {
    const Mount disk("tmpfs", Place::support);
    disk.remount("", MS_RDONLY);
    RunningHelper helper;
    expectHeldUnsaved(helper, Place::stateFolder + ": Read-only file system");
    disk.remount("", 0);
    expectSaved();
}

TEST_F(DiskTest, WithAFileInTheFoldersPlaceHolds) {
    put(Place::stateFolder, "somebody's");
    RunningHelper helper;
    expectHeldUnsaved(helper, Place::stateFolder + ": Not a directory");
    EXPECT_EQ(readTestFile(Place::stateFolder), "somebody's");
    fs::remove(Place::stateFolder);
    expectSaved();
}

TEST_F(DiskTest, WithALinkToNothingInTheFoldersPlaceHolds) {
    fs::create_symlink("/tmp/missing", Place::stateFolder);
    RunningHelper helper;
    expectHeldUnsaved(helper, Place::stateFolder + ": No such file or directory");
    EXPECT_FALSE(exists("/tmp/missing"));
    fs::remove(Place::stateFolder);
    expectSaved();
}

TEST_F(DiskTest, WithALinkToAFolderInItsPlaceIsUsedAndItsTargetIsLeft) {
    fs::remove_all("/tmp/elsewhere");
    fs::create_directory("/tmp/elsewhere");
    put("/tmp/elsewhere/other", "somebody's");
    fs::create_directory_symlink("/tmp/elsewhere", Place::stateFolder);
    RunningHelper helper;
    expectSaved();
    EXPECT_EQ(modeOf("/tmp/elsewhere/commitment.json"), 0600);
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists("/tmp/elsewhere/commitment.json"));
    EXPECT_FALSE(exists(Place::stateFolder));
    EXPECT_EQ(readTestFile("/tmp/elsewhere/other"), "somebody's");
}

TEST_F(DiskTest, WithAFolderInTheFilesPlaceHolds) {
    fs::create_directories(Place::stateFile);
    RunningHelper helper;
    EXPECT_THAT(helper.log(), ElementsAre());
    expectHeldUnsaved(helper, Place::stateFile + ": Is a directory");
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(exists(Place::stateFolder));
}

TEST_F(DiskTest, WithAFolderThatOthersMayReadClosesTheFileAlone) {
    fs::create_directory(Place::stateFolder);
    ASSERT_EQ(chmod(Place::stateFolder.c_str(), 0755), 0);
    const RunningHelper helper;
    expectSaved();
    EXPECT_EQ(modeOf(Place::stateFolder), 0755);
    EXPECT_EQ(modeOf(Place::stateFile), 0600);
}

TEST_F(DiskTest, WithoutTheFolderAboveMakesIt) {
    fs::remove(Place::support);
    {
        const RunningHelper helper;
        expectSaved();
        EXPECT_EQ(modeOf(Place::support), 0755);
        EXPECT_EQ(modeOf(Place::stateFolder), 0700);
    }
}

// A state file that cannot be taken for a record.

class DamagedStateTest : public DiskTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(Place::stateFolder.c_str(), 0700), 0);
        setLockedByHand(true);
    }

    // Starts a helper on a state file that holds `bytes`: everything is lifted, and the lock goes
    // off when the file still says whose it is.
    void expectLifted(const std::string& bytes, bool unlocks) {
        SCOPED_TRACE(bytes.substr(0, 200));
        if (!exists(Place::stateFolder)) {
            SetUp();
        }
        put(Place::stateFile, bytes, 0600);
        RunningHelper helper;
        EXPECT_THAT(helper.log(), ElementsAre(unreadable));
        EXPECT_EQ(isLocked(), !unlocks);
        EXPECT_FALSE(exists(Place::stateFolder));
        EXPECT_FALSE(world.status().holding);
        EXPECT_EQ(helper.terminate(), 0);
    }
};

// An object with these members after the app's path.
std::string recordWith(const std::string& members) {
    std::string text = R"({"appPath": "/Applications/Halvo.app")";
    return text.append(members).append("}");
}

// What a damaged record still says is held by the tests of the store.
TEST_F(DamagedStateTest, IsForgottenAndTheUnlockThatItStillOwesIsMade) {
    const std::string owing = R"(, "locked": true)";
    const std::string whole = recordWith(owing);
    expectLifted(whole, true);
    expectLifted(recordWith(owing + R"(, "uid": -1, "remaining": "600")"), true);
    expectLifted(recordWith(R"(, "locked": false)"), false);
    expectLifted(R"({"locked": true, "appPath": "/Applications/../Applications/Halvo.app"})",
                 false);
    expectLifted(R"({"locked": true})", false);
    expectLifted("", false);
    expectLifted(whole.substr(0, whole.size() - 1), false);
    expectLifted(std::string(1000, '\0'), false);
    constexpr std::size_t megabytes = 20'000'000;
    expectLifted(std::string(megabytes, ' ').append(whole), false);
}

TEST_F(DamagedStateTest, ThatIsDeeplyNestedIsForgotten) {
    // The address sanitizer makes much of each of them.
    constexpr std::size_t deep = HALVO_IS_SANITIZED ? 40'000 : 400'000;
    expectLifted(std::string(2 * deep, '['), false);
    expectLifted(std::string(deep, '[') + std::string(deep, ']'), false);
    std::string objects = R"(, "locked": true, "more": )";
    for (std::size_t i = 0; i < deep / 4; ++i) {
        objects += R"({"":)";
    }
    expectLifted(recordWith(objects.append("1").append(deep / 4, '}')), true);
}

TEST_F(DamagedStateTest, ThatIsNoFileIsLeftUnread) {
    setLockedByHand(false);
    for (const char* kind : {"fifo", "link to a device", "link to nothing"}) {
        SCOPED_TRACE(kind);
        fs::create_directory(Place::stateFolder);
        if (std::string(kind) == "fifo") {
            ASSERT_EQ(mkfifo(Place::stateFile.c_str(), 0600), 0);
        } else {
            fs::create_symlink(std::string(kind) == "link to nothing" ? "/missing" : "/dev/zero",
                               Place::stateFile);
        }
        RunningHelper helper;
        EXPECT_THAT(helper.log(), ElementsAre());
        expectSaved();
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Place::stateFile)));
        EXPECT_EQ(world.end(), Reply::yes);
    }
    EXPECT_TRUE(exists("/dev/zero"));
}

TEST_F(DamagedStateTest, NeverUnlocksAnythingButAnApp) {
    setLockedByHand(false);
    const std::string folder = Place::applications + "/Folder";
    fs::create_directory(folder);
    setLockedByHand(true, folder);
    fs::create_directories("/Library/Other.app");
    setLockedByHand(true, "/Library/Other.app");
    fs::create_directory_symlink("/Library/Other.app", Place::applications + "/Link.app");
    for (const char* target :
         {"/Applications/Folder", "/Library/Other.app", "/Applications/Link.app"}) {
        fs::create_directory(Place::stateFolder);
        put(Place::stateFile, R"({"locked": true, "appPath": ")" + std::string(target) + R"("})");
        RunningHelper helper;
        EXPECT_THAT(helper.log(), ElementsAre(unreadable));
    }
    EXPECT_TRUE(isLocked(folder));
    EXPECT_TRUE(isLocked("/Library/Other.app"));
    setLockedByHand(false, "/Library/Other.app");
    fs::remove_all("/Library/Other.app");
}

// Where the app cannot be locked.

class UnlockableTest : public ::testing::Test {
  protected:
    // A commitment is held all the same, and says that it has no lock.
    void expectHeldWithoutLock(const World& world, const RunningHelper& helper, int code) {
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        EXPECT_THAT(helper.log(),
                    ElementsAre("error: Couldn't lock Halvo: errno " + std::to_string(code),
                                "error: Couldn't lock Halvo's app",
                                StartsWith("Holding Ultra Hard mode for 59")));
        const Told told = world.status();
        EXPECT_TRUE(told.holding);
        EXPECT_FALSE(told.locked);
        ASSERT_TRUE(world.state());
        EXPECT_FALSE(world.state()->locked);
        // No tick tries again.
        sleepFor(Seconds{2.5});
        EXPECT_EQ(helper.log().size(), 3);
        EXPECT_EQ(world.end(), Reply::yes);
    }
};

TEST_F(UnlockableTest, IsAFileSystemWithoutFlags) {
    const World world;
    const Mount disk("ramfs", Place::applications, "mode=755");
    world.installApp(Place::app);
    const RunningHelper helper;
    expectHeldWithoutLock(world, helper, ENOTTY);
}

TEST_F(UnlockableTest, IsEverythingWithoutTheCapability) {
    const World world;
    const RunningHelper helper(withoutCapability(CAP_LINUX_IMMUTABLE));
    expectHeldWithoutLock(world, helper, EPERM);
    EXPECT_FALSE(isLocked());
}

}  // namespace
}  // namespace halvo::testing
