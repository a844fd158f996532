#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelper/HelperConnection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/ManualMainQueue.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;
constexpr Seconds hour{3600};

std::string worded(bool ok) { return ok ? "yes" : "no"; }

class HelperConnectionTest : public ::testing::Test {
  protected:
    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // Each of these notes its reply, in words.

    void begin(HelperConnection& connection, const std::string& path, WallDate until,
               WallDate started) {
        connection.begin(path, until, started, [this](const std::expected<bool, BadArgument>& ok) {
            replies.push_back(ok ? "begin " + worded(*ok)
                                 : "bad " + ok.error().name + ": " + ok.error().problem);
        });
    }

    void begin(HelperConnection& connection, const std::string& path) {
        begin(connection, path, now() + hour, now());
    }

    void heartbeat(HelperConnection& connection, bool sessionEnding = false) {
        connection.heartbeat(sessionEnding,
                             [this](bool ok) { replies.push_back("heartbeat " + worded(ok)); });
    }

    void end(HelperConnection& connection) {
        connection.end([this](bool ok) { replies.push_back("end " + worded(ok)); });
    }

    void status(HelperConnection& connection) {
        connection.status([this](const HelperStatus& status) {
            statuses.push_back(status);
            replies.push_back("status " + worded(status.holding));
        });
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    ManualMainQueue queue{world.clock};
    HelperConnection mine{{ann, app}, queue, engine};
    HelperConnection theirs{{ben, app}, queue, engine};
    std::vector<std::string> replies;
    std::vector<HelperStatus> statuses;
};

TEST_F(HelperConnectionTest, PassesEachRequestWithItsPeerToTheEngine) {
    begin(mine, app);
    heartbeat(mine);
    heartbeat(theirs);
    status(mine);
    status(theirs);
    end(theirs);
    end(mine);
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes", "heartbeat yes", "heartbeat no", "status yes",
                                     "status no", "end no", "end yes"));
}

TEST_F(HelperConnectionTest, PassesTheDatesOfABegin) {
    begin(mine, app, now() + hour, now() - Seconds{60});
    queue.runPending();
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, hour);
    EXPECT_EQ(engine.commitment()->startedWall, now() - Seconds{60});
    EXPECT_EQ(engine.commitment()->capRemaining, HelperCommitment::maximum - Seconds{60});
}

TEST_F(HelperConnectionTest, RepliesTheWholeStatus) {
    begin(mine, app);
    status(mine);
    queue.runPending();
    EXPECT_THAT(statuses, ElementsAre(HelperStatus{true, now() + hour, true}));
}

TEST_F(HelperConnectionTest, RepliesAStatusWithoutAnEndWhenNothingIsHeld) {
    status(mine);
    queue.runPending();
    EXPECT_THAT(statuses, ElementsAre(HelperStatus{false, std::nullopt, false}));
}

TEST_F(HelperConnectionTest, PassesTheAnnouncementThatTheSessionEnds) {
    world.session.console = ann;
    begin(mine, app);
    queue.runPending();
    engine.tick();
    heartbeat(mine, true);
    queue.runPending();
    queue.advance(Seconds{60});
    engine.tick();
    EXPECT_THAT(world.opener.openings, IsEmpty());
    // A plain sign of life takes it back.
    heartbeat(mine, false);
    queue.runPending();
    queue.advance(Seconds{10});
    engine.tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

// --------------------------------------------------------------------------------------- the path

TEST_F(HelperConnectionTest, ResolvesSymbolicLinksInTheAppsPath) {
    const std::string folder = std::filesystem::path(app).parent_path();
    std::filesystem::create_directory_symlink(folder, folder + "/Again");
    std::filesystem::create_directory_symlink("Halvo.app", folder + "/Link.app");
    for (const std::string& path :
         {folder + "/Again/Halvo.app", folder + "/Link.app", folder + "/Again/./Link.app",
          folder + "/../Applications//Halvo.app"}) {
        begin(mine, path);
        queue.runPending();
        ASSERT_TRUE(engine.commitment()) << path;
        EXPECT_EQ(engine.commitment()->appPath, app);
        end(mine);
        queue.runPending();
    }
}

TEST_F(HelperConnectionTest, KeepsThePathOfAnAppThatIsNotThere) {
    const std::string missing = app.substr(0, app.size() - 4) + "-gone.app";
    HelperConnection connection{{ann, missing}, queue, engine};
    begin(connection, missing);
    queue.runPending();
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->appPath, missing);
}

TEST_F(HelperConnectionTest, KeepsALinkThatLeadsNowhere) {
    const std::string folder = std::filesystem::path(app).parent_path();
    const std::string link = folder + "/Link.app";
    std::filesystem::create_directory_symlink(folder + "/nothing", link);
    HelperConnection connection{{ann, link}, queue, engine};
    begin(connection, link);
    queue.runPending();
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->appPath, link);
}

TEST_F(HelperConnectionTest, ResolvesThePathWhenTheRequestComesNotWhenItIsServed) {
    const std::string folder = std::filesystem::path(app).parent_path();
    const std::string link = folder + "/Link.app";
    std::filesystem::create_directory_symlink("Halvo.app", link);
    begin(mine, link);
    std::filesystem::remove(link);
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes"));
}

TEST_F(HelperConnectionTest, RefusesAPathWithAZeroByteAsTheEngineDoes) {
    begin(mine, app + std::string("\0.app", 5));
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin no"));
    EXPECT_THAT(log.errors(),
                ElementsAre("Refused a begin for a bundle that isn't the caller's own"));
}

// -------------------------------------------------------------------------------------- the dates

constexpr double tooLate = 253402300800;
constexpr double infinite = std::numeric_limits<double>::infinity();

const double badDates[] = {
    tooLate,
    std::nextafter(tooLate, infinite),
    std::nextafter(0.0, -1.0),
    -1,
    std::numeric_limits<double>::max(),
    std::numeric_limits<double>::lowest(),
    infinite,
    -infinite,
    std::numeric_limits<double>::quiet_NaN(),
    -std::numeric_limits<double>::quiet_NaN(),
    std::numeric_limits<double>::signaling_NaN(),
};

class HelperConnectionBadDateTest : public HelperConnectionTest,
                                    public ::testing::WithParamInterface<double> {
  protected:
    void expectRefusal(const std::string& argument) {
        world.calls.clear();
        queue.runPending();
        const std::string problem = "is not a date of the years 1970 to 9999";
        EXPECT_THAT(replies, ElementsAre("bad " + argument + ": " + problem));
        EXPECT_THAT(log.messages(),
                    ElementsAre(LogMessage{LogLevel::Error,
                                           "Refused a begin: " + argument + " " + problem}));
        EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it reached the engine";
        EXPECT_TRUE(engine.isIdle());
    }
};

TEST_P(HelperConnectionBadDateTest, AsAnEndNeverReachesTheEngine) {
    begin(mine, app, wallDate(GetParam()), now());
    expectRefusal("until");
}

TEST_P(HelperConnectionBadDateTest, AsAStartNeverReachesTheEngine) {
    begin(mine, app, now() + hour, wallDate(GetParam()));
    expectRefusal("started");
}

TEST_P(HelperConnectionBadDateTest, AsBothIsToldOfTheFirst) {
    begin(mine, app, wallDate(GetParam()), wallDate(GetParam()));
    expectRefusal("until");
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionBadDateTest, ::testing::ValuesIn(badDates));

TEST_F(HelperConnectionTest, ABadDateLeavesWhatIsHeld) {
    begin(mine, app);
    queue.runPending();
    const auto held = engine.commitment();
    begin(mine, app, wallDate(infinite), now());
    queue.runPending();
    EXPECT_EQ(engine.commitment(), held);
}

class HelperConnectionGoodDateTest : public HelperConnectionTest,
                                     public ::testing::WithParamInterface<double> {};

TEST_P(HelperConnectionGoodDateTest, ReachesTheEngineAsAnEndAndAsAStart) {
    const WallDate date = wallDate(GetParam());
    begin(mine, app, date, now());
    begin(mine, app, now() + hour, date);
    queue.runPending();
    // The past grants nothing; the future is capped, by the day or by what was asked for.
    const std::string reply = "begin " + worded(date > now());
    EXPECT_THAT(replies, ElementsAre(reply, reply));
    EXPECT_THAT(log.errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionGoodDateTest,
                         ::testing::Values(0.0, -0.0, std::numeric_limits<double>::denorm_min(),
                                           1.5, tooLate - 1, std::nextafter(tooLate, 0.0)));

// ------------------------------------------------------------------------------------ the replies

TEST_F(HelperConnectionTest, DoesNothingBeforeTheQueueIsServed) {
    world.calls.clear();
    begin(mine, app);
    begin(mine, app, wallDate(infinite), now());
    heartbeat(mine);
    end(mine);
    status(mine);
    EXPECT_THAT(replies, IsEmpty());
    EXPECT_THAT(world.calls.calls(), IsEmpty());
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(HelperConnectionTest, KeepsTheOrderOfTheRequestsOfAllConnections) {
    status(mine);
    begin(mine, app);
    begin(mine, app, wallDate(infinite), now());
    status(mine);
    begin(theirs, app);
    end(mine);
    begin(theirs, app);
    status(mine);
    heartbeat(theirs);
    queue.runPending();
    EXPECT_THAT(replies,
                ElementsAre("status no", "begin yes",
                            "bad until: is not a date of the years 1970 to 9999", "status yes",
                            "begin no", "end yes", "begin yes", "status no", "heartbeat yes"));
}

TEST_F(HelperConnectionTest, RepliesExactlyOnce) {
    begin(mine, app);
    heartbeat(mine);
    status(mine);
    end(mine);
    queue.runPending();
    queue.runPending();
    queue.advance(Seconds{60});
    EXPECT_EQ(replies.size(), 4U);
}

TEST_F(HelperConnectionTest, AnswersRequestsThatOutliveTheirConnection) {
    auto connection = std::make_unique<HelperConnection>(HelperPeer{ann, app}, queue, engine);
    begin(*connection, app);
    begin(*connection, app, wallDate(infinite), now());
    heartbeat(*connection);
    status(*connection);
    end(*connection);
    connection.reset();
    queue.runPending();
    EXPECT_THAT(replies,
                ElementsAre("begin yes", "bad until: is not a date of the years 1970 to 9999",
                            "heartbeat yes", "status yes", "end yes"));
}

TEST_F(HelperConnectionTest, TakesRequestsOfAnyThread) {
    std::thread([this] {
        begin(mine, app);
        heartbeat(mine);
        status(mine);
        end(mine);
    }).join();
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes", "heartbeat yes", "status yes", "end yes"));
}

using HelperConnectionDeathTest = HelperConnectionTest;

TEST_F(HelperConnectionDeathTest, ServesEachRequestOnTheMainQueueOnly) {
    const std::function<void()> requests[] = {
        [this] { begin(mine, app); }, [this] { begin(mine, app, wallDate(infinite), now()); },
        [this] { heartbeat(mine); },  [this] { end(mine); },
        [this] { status(mine); },
    };
    for (const auto& request : requests) {
        request();
        EXPECT_DEATH(std::thread([this] { queue.runPending(); }).join(),
                     "Expected same executor as MainActor\\.");
        queue.runPending();
    }
}

}  // namespace
}  // namespace halvo::testing
