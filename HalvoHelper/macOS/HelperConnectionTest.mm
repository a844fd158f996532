// What NSXPC brings, and what goes back. What is made of the requests:
// HalvoHelper/HelperConnectionTest.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "HalvoHelper/macOS/HelperConnection.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t ann = 501;
constexpr Seconds hour{3600};

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

NSDate* dateOf(WallDate date) {
    return [NSDate dateWithTimeIntervalSince1970:secondsSince1970(date)];
}

class ExportedConnectionTest : public ::testing::Test {
  protected:
    ExportedConnectionTest() {
        fake::reset();
        exported = [[::HelperConnection alloc]
            initWithRequests:std::make_unique<halvo::HelperConnection>(HelperPeer{ann, app},
                                                                       liveMainQueue(), engine)];
    }

    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // A block that notes the reply to `request`.
    void (^noting(std::string request))(BOOL) {
        return ^(BOOL ok) {
          replies.push_back(request + (ok ? " yes" : " no"));
        };
    }

    void begin(NSString* path, NSDate* until, NSDate* started) {
        [exported beginWithAppPath:path until:until started:started reply:noting("begin")];
    }

    void begin() { begin(foundationText(app), dateOf(now() + hour), dateOf(now())); }

    // The reply is noted with the end as seconds from now.
    void status() {
        [exported statusWithReply:^(BOOL holding, NSDate* until, BOOL locked) {
          replies.push_back(std::string("status ") + (holding ? "holding" : "idle") +
                            (until == nil ? "" : " until " + fromNow(until)) +
                            (locked ? " locked" : ""));
        }];
    }

    [[nodiscard]] std::string fromNow(NSDate* date) const {
        return std::to_string((wallDate(date.timeIntervalSince1970) - now()).count());
    }

    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    ::HelperConnection* exported;
    std::vector<std::string> replies;
};

TEST_F(ExportedConnectionTest, PassesEachRequestOnAndItsResultBack) {
    [exported heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
    [exported endWithReply:noting("end")];
    begin();
    [exported heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
    [exported endWithReply:noting("end")];
    fake::serve(0);
    EXPECT_THAT(replies,
                ElementsAre("heartbeat no", "end no", "begin yes", "heartbeat yes", "end yes"));
}

TEST_F(ExportedConnectionTest, RepliesTheWholeStatus) {
    begin();
    status();
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes", "status holding until 3600.000000 locked"));
}

TEST_F(ExportedConnectionTest, RepliesAStatusWithoutAnEndWhenNothingIsHeld) {
    status();
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("status idle"));
}

TEST_F(ExportedConnectionTest, TellsALockThatCouldNotBeSet) {
    world.flags.failsToLock = true;
    begin();
    status();
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes", "status holding until 3600.000000"));
}

TEST_F(ExportedConnectionTest, PassesTheDatesOfABeginToTheLastBit) {
    const WallDate until = wallDate(1'760'000'600.123456);
    const WallDate started = wallDate(1'759'999'999.654321);
    begin(foundationText(app), dateOf(until), dateOf(started));
    fake::serve(0);
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, until - now());
    EXPECT_EQ(engine.commitment()->startedWall, started);
}

TEST_F(ExportedConnectionTest, RefusesABeginThatTheEngineRefuses) {
    begin(@"/Applications/Other.app", dateOf(now() + hour), dateOf(now()));
    begin(foundationText(app), dateOf(now() - hour), dateOf(now()));
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin no", "begin no"));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

TEST_F(ExportedConnectionTest, PassesTheAnnouncementThatTheSessionEnds) {
    world.session.console = ann;
    begin();
    fake::serve(0);
    engine.tick();
    [exported heartbeatWithSessionEnding:YES reply:noting("heartbeat")];
    fake::serve(0);
    world.clock.advance(Seconds{60});
    engine.tick();
    EXPECT_THAT(world.opener.openings, IsEmpty());
    [exported heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
    fake::serve(0);
    world.clock.advance(Seconds{10});
    engine.tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

TEST_F(ExportedConnectionTest, ResolvesThePathWhenTheRequestComes) {
    const std::string link = std::filesystem::path(app).parent_path() / "Link.app";
    std::filesystem::create_directory_symlink(app, link);
    begin(foundationText(link), dateOf(now() + hour), dateOf(now()));
    std::filesystem::remove(link);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes"));
    EXPECT_EQ(engine.commitment()->appPath, app);
}

TEST_F(ExportedConnectionTest, TouchesTheEngineOnTheMainQueueOnly) {
    world.calls.clear();
    begin();
    [exported heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
    [exported endWithReply:noting("end")];
    status();
    EXPECT_THAT(world.calls.calls(), IsEmpty());
    EXPECT_THAT(replies, IsEmpty());
    fake::serve(0);
    EXPECT_EQ(replies.size(), 4U);
}

TEST_F(ExportedConnectionTest, RepliesExactlyOnce) {
    begin();
    [exported heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
    status();
    [exported endWithReply:noting("end")];
    fake::serve(0);
    fake::serve(60);
    EXPECT_EQ(replies.size(), 4U);
}

TEST_F(ExportedConnectionTest, AnswersRequestsThatOutliveIt) {
    const long before = fake::liveObjects("HelperConnection");
    @autoreleasepool {
        begin();
        status();
        exported = nil;
    }
    EXPECT_EQ(fake::liveObjects("HelperConnection"), before - 1);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes", "status holding until 3600.000000 locked"));
}

// ---------------------------------------------------------------------------- what may be left out

TEST_F(ExportedConnectionTest, TakesAMissingPathForNoBundlePath) {
    NSString* missing = nil;
    begin(missing, dateOf(now() + hour), dateOf(now()));
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin no"));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

TEST_F(ExportedConnectionTest, TakesAPathThatIsNoUnicodeForNoBundlePath) {
    begin(fake::loneSurrogate(), dateOf(now() + hour), dateOf(now()));
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin no"));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

TEST_F(ExportedConnectionTest, ReadsAPathToItsEndNotToAZeroByte) {
    const std::string path = app + std::string("\0.app", 5);
    begin([[NSString alloc] initWithBytes:path.data()
                                   length:path.size()
                                 encoding:NSUTF8StringEncoding],
          dateOf(now() + hour), dateOf(now()));
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin no"));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

TEST_F(ExportedConnectionTest, TakesAMissingDateForNone) {
    NSDate* missing = nil;
    begin(foundationText(app), missing, dateOf(now()));
    begin(foundationText(app), dateOf(now() + hour), missing);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin no", "begin no"));
    EXPECT_THAT(fake::errors(), ElementsAre("Refused a begin: until is not a finite number",
                                            "Refused a begin: started is not a finite number"));
    EXPECT_TRUE(engine.isIdle());
}

// [NSDate distantPast] and [NSDate distantFuture]: the years 1 and 4001.
TEST_F(ExportedConnectionTest, TakesTheDistantFutureAndTheDistantPastForDates) {
    NSDate* distantPast = dateOf(wallDate(-62'135'769'600));
    NSDate* distantFuture = dateOf(wallDate(64'092'211'200));
    begin(foundationText(app), distantFuture, dateOf(now()));
    status();
    begin(foundationText(app), distantPast, dateOf(now()));
    status();
    begin(foundationText(app), distantFuture, distantPast);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes", "status holding until 86400.000000 locked",
                                     "begin no", "status idle", "begin no"));
    EXPECT_THAT(fake::errors(), IsEmpty());
}

TEST_F(ExportedConnectionTest, ServesARequestWhoseReplyNobodyWants) {
    void (^nobody)(BOOL) = nil;
    void (^nobodyAtAll)(BOOL, NSDate*, BOOL) = nil;
    [exported beginWithAppPath:foundationText(app)
                         until:dateOf(now() + hour)
                       started:dateOf(now())
                         reply:nobody];
    [exported heartbeatWithSessionEnding:NO reply:nobody];
    [exported statusWithReply:nobodyAtAll];
    fake::serve(0);
    EXPECT_FALSE(engine.isIdle());
    [exported endWithReply:nobody];
    fake::serve(0);
    EXPECT_TRUE(engine.isIdle());
}

}  // namespace
}  // namespace halvo::testing
