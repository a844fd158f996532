#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "HalvoShared/JSON.hpp"
#include "examples/SampleApp/RecordKeeper.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using S = WidgetSnapshot;

constexpr WallDate now = wallDate(1795165200);
constexpr Seconds minute{60};
constexpr Seconds hour{3600};

class RecordKeeperTest : public ::testing::Test {
  protected:
    static HelperStatus holdingUntil(WallDate until) { return {true, until, true}; }

    TemporaryFolder folder;
    SharedFile<KeepAliveState> keepAlive{"keepalive.json", folder.path()};
    SharedFile<WidgetSnapshot> widgets{"widgets.json", folder.path()};
    RecordKeeper keeper{keepAlive, widgets, "/Applications/Halvo.app"};
};

TEST_F(RecordKeeperTest, WritesNothingBeforeItKnowsAnything) {
    EXPECT_EQ(keeper.end(now), std::nullopt);
    EXPECT_EQ(keepAlive.read(), std::nullopt);
    EXPECT_EQ(widgets.read(), std::nullopt);
}

TEST_F(RecordKeeperTest, WritesWhatHolds) {
    EXPECT_EQ(keeper.update(holdingUntil(now + hour), now), std::nullopt);
    EXPECT_EQ(keepAlive.read(), (KeepAliveState{.pid = getpid(),
                                                .appPath = "/Applications/Halvo.app",
                                                .clean = false,
                                                .commitmentUntil = now + hour,
                                                .ultraHard = true,
                                                .appReleased = false,
                                                .bypassNoted = false,
                                                .updatedAt = now}));
    EXPECT_EQ(widgets.read(), snapshotOf(holdingUntil(now + hour), now, now));
}

TEST_F(RecordKeeperTest, WritesAgainWhenSomethingElseHolds) {
    keeper.update(holdingUntil(now + hour), now);
    keeper.update(holdingUntil(now + hour * 2), now + minute / 6);
    EXPECT_EQ(keepAlive.read()->commitmentUntil, now + hour * 2);
    EXPECT_EQ(std::get<S::Block>(widgets.read()->phases[0].state).running.start, now)
        << "it is still the same commitment";
    keeper.update(HelperStatus::idle, now + hour * 3);
    EXPECT_EQ(keepAlive.read()->commitmentUntil, std::nullopt);
    EXPECT_FALSE(keepAlive.read()->ultraHard);
    EXPECT_EQ(widgets.read(), snapshotOf(HelperStatus::idle, now + hour * 3, now + hour * 3));
}

TEST_F(RecordKeeperTest, WritesAtLeastEveryHalfMinute) {
    keeper.update(holdingUntil(now + hour), now);
    keeper.update(holdingUntil(now + hour), now + Seconds{29});
    EXPECT_EQ(keepAlive.read()->updatedAt, now);
    keeper.update(holdingUntil(now + hour + Seconds{0.5}), now + Seconds{30});
    EXPECT_EQ(keepAlive.read()->updatedAt, now + Seconds{30});
}

TEST_F(RecordKeeperTest, WritesWhenTheClockWasSetBack) {
    keeper.update(holdingUntil(now + hour), now);
    keeper.update(holdingUntil(now + hour), now - hour);
    EXPECT_EQ(keepAlive.read()->updatedAt, now - hour);
}

TEST_F(RecordKeeperTest, WritesThatTheAppEndedAsItShould) {
    keeper.update(holdingUntil(now + hour), now);
    EXPECT_EQ(keeper.end(now + minute), std::nullopt);
    EXPECT_TRUE(keepAlive.read()->clean);
    EXPECT_EQ(keepAlive.read()->updatedAt, now + minute);
}

TEST_F(RecordKeeperTest, SaysOnceWhyItCannotWrite) {
    RecordKeeper lost(SharedFile<KeepAliveState>(folder / "none/keepalive.json"), widgets, "/A");
    const auto said = lost.update(HelperStatus::idle, now);
    EXPECT_EQ(said, "What the widgets show could not be written: " +
                        (folder / "none/keepalive.json") + ": No such file or directory.");
    EXPECT_EQ(lost.update(HelperStatus::idle, now + hour), std::nullopt);
}

TEST_F(RecordKeeperTest, SaysItAgainAfterItHasGoneWell) {
    const std::string place = folder / "later";
    RecordKeeper lost(SharedFile<KeepAliveState>(place + "/keepalive.json"), widgets, "/A");
    EXPECT_NE(lost.update(HelperStatus::idle, now), std::nullopt);
    std::filesystem::create_directory(place);
    EXPECT_EQ(lost.update(HelperStatus::idle, now + hour), std::nullopt);
    std::filesystem::remove_all(place);
    EXPECT_NE(lost.end(now + hour * 2), std::nullopt);
}

TEST(SnapshotOfTest, CountsDownToTheEndOfTheCommitment) {
    const S snapshot = snapshotOf({true, now + hour, true}, now, now + minute);
    EXPECT_TRUE(snapshot.isRunning);
    ASSERT_EQ(snapshot.phases.size(), 2U);
    EXPECT_EQ(std::get<S::Block>(snapshot.state(now)).running.end, now + hour);
    EXPECT_EQ(snapshot.state(now + hour), S::State(S::NothingScheduled{}));
    EXPECT_TRUE(snapshot.blocks.at(0).isRunning);
    EXPECT_GT(snapshot.horizon, now + hour);
}

TEST(SnapshotOfTest, ShowsThatNothingHolds) {
    const S snapshot = snapshotOf(HelperStatus::idle, now, now);
    EXPECT_FALSE(snapshot.isRunning);
    EXPECT_EQ(snapshot.state(now + hour), S::State(S::NothingScheduled{}));
    EXPECT_FALSE(snapshot.blocks.at(0).isRunning);
}

TEST(SnapshotOfTest, CanBeWritten) {
    EXPECT_TRUE(JSON::encode(snapshotOf({true, std::nullopt, false}, now, now)).has_value());
}

}  // namespace
}  // namespace halvo::testing
