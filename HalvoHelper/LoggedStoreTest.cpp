#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelper/LoggedStore.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using ::testing::ElementsAre;

struct Line {
    std::string message;
    std::vector<std::string> fields;
};

std::vector<Line> lines;

// What an engine says on such a store, with the fields of each line.
class LoggedStoreTest : public ::testing::Test {
  protected:
    LoggedStoreTest()
        : before_(replaceLogSink([](const Logger&, LogLevel, std::string_view message) {
              lines.push_back({std::string(message), logFields()});
          })) {}

    ~LoggedStoreTest() override {
        replaceLogSink(before_);
        setLogContext(nullptr);
        lines.clear();
    }

    std::vector<std::string> lastFields(const std::string& message) {
        EXPECT_EQ(lines.back().message, message);
        return lines.back().fields;
    }

    testing::TemporaryFolder disk;
    testing::SimulatedWorld world{disk};
    testing::ManualMainQueue queue{world.clock};
    LoggedStore store{world.store, queue};
    HelperEngine engine{world.clock, world.flags, store, world.session, world.opener};
    const std::string app = world.addBundle("Applications/Halvo.app");
    const HelperPeer peer{1000, app};

  private:
    LogSink before_;
};

TEST_F(LoggedStoreTest, HasTheLogTellOfTheCommitmentFromItsBeginToItsEnd) {
    const WallDate now = world.clock.now().wall;
    ASSERT_TRUE(engine.begin(app, now + Seconds{600.4}, now, peer));
    const auto fields =
        ElementsAre("HALVO_UID=1000", "HALVO_BUNDLE=" + app, "HALVO_END=2025-10-09T09:03:20Z");
    EXPECT_THAT(lastFields("Holding Ultra Hard mode for 600 s"), fields);
    ASSERT_TRUE(engine.end(peer));
    EXPECT_THAT(lastFields("Ultra Hard mode let go: ended"), fields);
    queue.runPending();
    EXPECT_FALSE(engine.begin("/Elsewhere.app", now, now, peer));
    EXPECT_THAT(lastFields("Refused a begin for a bundle that isn't the caller's own"),
                ElementsAre());
}

TEST_F(LoggedStoreTest, HasTheLogTellOfWhatFollowsAtOnce) {
    const WallDate now = world.clock.now().wall;
    ASSERT_TRUE(engine.begin(app, now + Seconds{600}, now, peer));
    ASSERT_TRUE(engine.end(peer));
    ASSERT_TRUE(engine.begin(app, now + Seconds{300}, now, peer));
    queue.runPending();
    EXPECT_EQ(logFields().at(2), "HALVO_END=2025-10-09T08:58:20Z");
}

TEST_F(LoggedStoreTest, HasTheLogTellOfWhatRanOutMeanwhile) {
    world.store.stored =
        HelperCommitment{app, 7, {}, Seconds{1}, Seconds{1}, world.clock.now(), true};
    world.clock.advance(Seconds{2});
    engine.startup();
    EXPECT_EQ(lastFields("Ultra Hard mode let go: expiredAtStartup").front(), "HALVO_UID=7");
}

}  // namespace
}  // namespace halvo
