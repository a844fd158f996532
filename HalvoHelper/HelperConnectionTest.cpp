#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>

#include "HalvoHelper/HelperConnection.hpp"
#include "tests/Support/LogCapture.hpp"
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

    // The reply in words.
    static std::string begin(const HelperConnection& connection, const std::string& path,
                             WallDate until, WallDate started) {
        const auto ok = connection.begin(path, until, started);
        return ok ? worded(*ok) : ok.error();
    }

    std::string begin(const HelperConnection& connection, const std::string& path) {
        return begin(connection, path, now() + hour, now());
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    const HelperConnection mine{{ann, app}, engine};
    const HelperConnection theirs{{ben, app}, engine};
};

TEST_F(HelperConnectionTest, PassesEachRequestWithItsPeerToTheEngine) {
    EXPECT_EQ(begin(mine, app), "yes");
    EXPECT_TRUE(mine.heartbeat(false));
    EXPECT_FALSE(theirs.heartbeat(false));
    EXPECT_EQ(mine.status(), (HelperStatus{true, now() + hour, true}));
    EXPECT_EQ(theirs.status(), (HelperStatus{false, std::nullopt, false}));
    EXPECT_FALSE(theirs.end());
    EXPECT_TRUE(mine.end());
}

TEST_F(HelperConnectionTest, PassesTheDatesOfABegin) {
    begin(mine, app, now() + hour, now() - Seconds{60});
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, hour);
    EXPECT_EQ(engine.commitment()->startedWall, now() - Seconds{60});
    EXPECT_EQ(engine.commitment()->capRemaining, HelperCommitment::maximum - Seconds{60});
}

TEST_F(HelperConnectionTest, PassesTheAnnouncementThatTheSessionEnds) {
    world.session.console = ann;
    begin(mine, app);
    engine.tick();
    EXPECT_TRUE(mine.heartbeat(true));
    world.clock.advance(Seconds{60});
    engine.tick();
    EXPECT_THAT(world.opener.openings, IsEmpty());
    // A plain sign of life takes it back.
    EXPECT_TRUE(mine.heartbeat(false));
    world.clock.advance(Seconds{10});
    engine.tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

TEST_F(HelperConnectionTest, PassesThePathOfAnAppThatIsNotThere) {
    const std::string missing = app.substr(0, app.size() - 4) + "-gone.app";
    EXPECT_EQ(begin(HelperConnection{{ann, missing}, engine}, missing), "yes");
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->appPath, missing);
}

TEST_F(HelperConnectionTest, RefusesAPathWithAZeroByteAsTheEngineDoes) {
    EXPECT_EQ(begin(mine, app + std::string("\0.app", 5)), "no");
    EXPECT_THAT(log.errors(), ElementsAre(notTheirs));
}

// -------------------------------------------------------------------------------------- the dates

constexpr double tooLate = 253402300800;
constexpr double infinite = std::numeric_limits<double>::infinity();

constexpr double latest = std::numeric_limits<double>::max();
// What many programs take for a date before, and after, all others.
constexpr double distantPast = -62135769600;
constexpr double distantFuture = 64092211200;

const std::string untilNotFinite = "until is not a finite number";
const std::string startedNotFinite = "started is not a finite number";
const std::string startedTooLate = "started is after the year 9999";

const double noDates[] = {infinite, -infinite, std::numeric_limits<double>::quiet_NaN(),
                          -std::numeric_limits<double>::quiet_NaN(),
                          std::numeric_limits<double>::signaling_NaN()};
const double lateStarts[] = {tooLate, std::nextafter(tooLate, infinite), 1e300, latest};
const double pastDates[] = {0.0, -0.0, 1.5, -1, distantPast, -1e300, -latest};
const double futureDates[] = {distantFuture, tooLate, 1e300, latest};

TEST_F(HelperConnectionTest, ABadDateNeverReachesTheEngine) {
    const auto expectRefusal = [this](WallDate until, WallDate started,
                                      const std::string& problem) {
        world.calls.clear();
        log.clear();
        EXPECT_EQ(begin(mine, app, until, started), problem);
        EXPECT_THAT(log.messages(),
                    ElementsAre(LogMessage{LogLevel::Error, "Refused a begin: " + problem}));
        EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it reached the engine";
        EXPECT_TRUE(engine.isIdle());
    };
    for (const double date : noDates) {
        expectRefusal(wallDate(date), now(), untilNotFinite);
        expectRefusal(now() + hour, wallDate(date), startedNotFinite);
        expectRefusal(wallDate(date), wallDate(date), untilNotFinite);
    }
    for (const double date : lateStarts) {
        expectRefusal(now() + hour, wallDate(date), startedTooLate);
    }
}

TEST_F(HelperConnectionTest, ABeginForAnothersBundleIsRefusedAsThatWhateverItsDates) {
    const std::string other = world.addBundle("Applications/Other.app");
    for (const double date : {infinite, -infinite, std::nan(""), latest, -latest, 1e9}) {
        log.clear();
        EXPECT_EQ(begin(mine, other, wallDate(date), wallDate(date)), "no") << date;
        EXPECT_THAT(log.errors(), ElementsAre(notTheirs)) << date;
    }
}

TEST_F(HelperConnectionTest, ABadDateLeavesWhatIsHeld) {
    begin(mine, app);
    const auto held = engine.commitment();
    begin(mine, app, wallDate(infinite), now());
    EXPECT_EQ(engine.commitment(), held);
}

TEST_F(HelperConnectionTest, APastEndEndsWhatIsHeld) {
    for (const double date : pastDates) {
        EXPECT_EQ(begin(mine, app), "yes");
        EXPECT_EQ(begin(mine, app, wallDate(date), now()), "no") << date;
        EXPECT_TRUE(engine.isIdle()) << date;
    }
    EXPECT_THAT(log.errors(), IsEmpty());
    EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::ended);
}

TEST_F(HelperConnectionTest, APastStartLeavesNothingOfTheDay) {
    for (const double date : pastDates) {
        EXPECT_EQ(begin(mine, app, now() + hour, wallDate(date)), "no") << date;
        EXPECT_EQ(begin(mine, app), "yes");
        EXPECT_EQ(begin(mine, app, now() + hour, wallDate(date)), "no") << date;
        EXPECT_TRUE(engine.isIdle()) << date;
    }
    EXPECT_THAT(log.errors(), IsEmpty());
    EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::ended);
}

TEST_F(HelperConnectionTest, AFutureEndIsGrantedUpToTheCap) {
    for (const double date : futureDates) {
        EXPECT_EQ(begin(mine, app, wallDate(date), now() - hour), "yes") << date;
        EXPECT_EQ(mine.status().until, now() + HelperCommitment::maximum - hour);
        world.clock.advance(HelperCommitment::maximum - hour);
        engine.tick();
        EXPECT_EQ(engine.lastLift(), HelperEngine::Lift::deadline);
    }
}

TEST_F(HelperConnectionTest, TheLastStartOfTheCalendarGrantsWhatIsAskedFor) {
    EXPECT_EQ(begin(mine, app, wallDate(latest), wallDate(std::nextafter(tooLate, 0.0))), "yes");
    EXPECT_THAT(log.errors(), IsEmpty());
}

using HelperConnectionDeathTest = HelperConnectionTest;

TEST_F(HelperConnectionDeathTest, ServesEachRequestOnTheMainQueueOnly) {
    const std::function<void()> requests[] = {
        [this] { begin(mine, app); },
        [this] { begin(mine, app, wallDate(infinite), now()); },
        [this] { (void)mine.heartbeat(false); },
        [this] { (void)mine.end(); },
        [this] { (void)mine.status(); },
    };
    for (const auto& request : requests) {
        EXPECT_DEATH(std::thread(request).join(), "Expected same executor as MainActor\\.");
    }
}

}  // namespace
}  // namespace halvo::testing
