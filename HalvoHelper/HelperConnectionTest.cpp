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

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

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
    EXPECT_THAT(log.errors(), ElementsAre(notTheirs));
}

// -------------------------------------------------------------------------------------- the dates

constexpr double tooLate = 253402300800;
constexpr double infinite = std::numeric_limits<double>::infinity();

constexpr double latest = std::numeric_limits<double>::max();
// What many programs take for a date before, and after, all others.
constexpr double distantPast = -62135769600;
constexpr double distantFuture = 64092211200;

const std::string notFinite = "is not a finite number";
const std::string pastTheYears = "is after the year 9999";

const double noDates[] = {infinite, -infinite, std::numeric_limits<double>::quiet_NaN(),
                          -std::numeric_limits<double>::quiet_NaN(),
                          std::numeric_limits<double>::signaling_NaN()};
const double lateStarts[] = {tooLate, std::nextafter(tooLate, infinite), 1e300, latest};

class HelperConnectionBadDateTest : public HelperConnectionTest,
                                    public ::testing::WithParamInterface<double> {
  protected:
    void expectRefusal(const std::string& argument, const std::string& problem) {
        world.calls.clear();
        queue.runPending();
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
    expectRefusal("until", notFinite);
}

TEST_P(HelperConnectionBadDateTest, AsAStartNeverReachesTheEngine) {
    begin(mine, app, now() + hour, wallDate(GetParam()));
    expectRefusal("started", notFinite);
}

TEST_P(HelperConnectionBadDateTest, AsBothIsToldOfTheFirst) {
    begin(mine, app, wallDate(GetParam()), wallDate(GetParam()));
    expectRefusal("until", notFinite);
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionBadDateTest, ::testing::ValuesIn(noDates));

using HelperConnectionLateStartTest = HelperConnectionBadDateTest;

TEST_P(HelperConnectionLateStartTest, NeverReachesTheEngine) {
    begin(mine, app, now() + hour, wallDate(GetParam()));
    expectRefusal("started", pastTheYears);
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionLateStartTest, ::testing::ValuesIn(lateStarts));

TEST_F(HelperConnectionTest, ABeginForAnothersBundleIsRefusedAsThatWhateverItsDates) {
    const std::string other = world.addBundle("Applications/Other.app");
    for (const double date : {infinite, -infinite, std::nan(""), latest, -latest, 1e9}) {
        begin(mine, other, wallDate(date), wallDate(date));
        queue.runPending();
    }
    EXPECT_THAT(replies, ::testing::AllOf(::testing::SizeIs(6), ::testing::Each("begin no")));
    EXPECT_THAT(log.errors(), ::testing::AllOf(::testing::SizeIs(6), ::testing::Each(notTheirs)));
}

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

using HelperConnectionPastTest = HelperConnectionGoodDateTest;

TEST_P(HelperConnectionPastTest, AsAnEndEndsWhatIsHeld) {
    begin(mine, app);
    begin(mine, app, wallDate(GetParam()), now());
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes", "begin no"));
    EXPECT_THAT(log.errors(), IsEmpty());
    EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::ended);
}

TEST_P(HelperConnectionPastTest, AsAStartLeavesNothingOfTheDay) {
    begin(mine, app, now() + hour, wallDate(GetParam()));
    begin(mine, app);
    begin(mine, app, now() + hour, wallDate(GetParam()));
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin no", "begin yes", "begin no"));
    EXPECT_THAT(log.errors(), IsEmpty());
    EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::ended);
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionPastTest,
                         ::testing::Values(0.0, -0.0, 1.5, -1, distantPast, -1e300, -latest));

using HelperConnectionFutureTest = HelperConnectionGoodDateTest;

TEST_P(HelperConnectionFutureTest, AsAnEndIsGrantedUpToTheCap) {
    begin(mine, app, wallDate(GetParam()), now() - hour);
    status(mine);
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes", "status yes"));
    EXPECT_EQ(statuses.back().until, now() + HelperCommitment::maximum - hour);
    queue.advance(HelperCommitment::maximum - hour);
    engine.tick();
    EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::deadline);
}

INSTANTIATE_TEST_SUITE_P(Dates, HelperConnectionFutureTest,
                         ::testing::Values(distantFuture, tooLate, 1e300, latest));

TEST_F(HelperConnectionTest, TheLastStartOfTheCalendarGrantsWhatIsAskedFor) {
    begin(mine, app, wallDate(latest), wallDate(std::nextafter(tooLate, 0.0)));
    queue.runPending();
    EXPECT_THAT(replies, ElementsAre("begin yes"));
    EXPECT_THAT(log.errors(), IsEmpty());
}

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
                ElementsAre("status no", "begin yes", "bad until: " + notFinite, "status yes",
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
    EXPECT_THAT(replies, ElementsAre("begin yes", "bad until: " + notFinite, "heartbeat yes",
                                     "status yes", "end yes"));
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
