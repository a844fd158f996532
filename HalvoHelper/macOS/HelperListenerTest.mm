// What NSXPC brings, and what goes back. What is made of the requests:
// HalvoHelper/HelperServiceTest.cpp.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "tests/FakeDarwin/FakeCaller.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string machService = "com.example.app.helper";
const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
constexpr pid_t process = 300;
constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;
constexpr double hour = 3600;

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

NSDate* dateOf(WallDate date) {
    return [NSDate dateWithTimeIntervalSince1970:secondsSince1970(date)];
}

class XPCListenerTest : public ::testing::Test {
  protected:
    XPCListenerTest() { world.session.console = ann; }

    // The caller runs the executable at `path`, which is not told when it is empty.
    static void runs(const std::string& path) { fake::world().processes = {{process, ann, path}}; }

    static NSXPCConnection* connect() { return fake::connect(machService, process, ann); }

    void serve() { listener->serve(service); }

    // Serves, and connects as the app.
    void serveApp() {
        serve();
        runs(app + "/Contents/MacOS/Halvo");
        caller.connection = connect();
    }

    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // Whether a caller that connects now may commit the bundle at `path`.
    bool owns(const std::string& path) {
        caller.connection = connect();
        caller.begin(path, hour);
        fake::serve(0);
        return engine.commitment() && engine.commitment()->appPath == path;
    }

    // Before what it is asked for.
    const int worldReset = (fake::reset(), 0);
    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    std::unique_ptr<HelperListener> listener = makeListener(identity);
    HelperService service{{world.clock, world.flags, world.store, world.session, world.opener},
                          *listener,
                          liveMainQueue()};
    HelperEngine& engine = service.engine();
    std::vector<std::string> replies;
    FakeCaller caller{replies, [this] { return secondsSince1970(now()); }};
};

TEST_F(XPCListenerTest, KnowsWhoMayComeInAndWhoAdmitsThemBeforeItIsResumed) {
    ASSERT_TRUE(fake::listener(machService));
    EXPECT_FALSE(fake::listener("com.example.app"));
    EXPECT_FALSE(fake::listener(machService)->isResumed);
    EXPECT_EQ(connect(), nil);
    serve();
    EXPECT_EQ(fake::listener(machService)->requirement,
              "anchor apple generic and identifier \"com.example.app\" and certificate "
              "leaf[subject.OU] = \"7QX4KD19MT\"");
    EXPECT_TRUE(fake::listener(machService)->isResumed);
    EXPECT_TRUE(fake::listener(machService)->hadRequirementWhenResumed);
    EXPECT_TRUE(fake::listener(machService)->hadDelegateWhenResumed);
    EXPECT_NE(connect(), nil);
}

// NSXPCListener does not.
TEST_F(XPCListenerTest, KeepsItsDelegateForAsLongAsItLives) {
    const long before = fake::liveObjects("ConnectionAcceptor");
    @autoreleasepool {
        serve();
    }
    EXPECT_EQ(fake::liveObjects("ConnectionAcceptor"), before + 1);
    @autoreleasepool {
        EXPECT_NE(connect(), nil);
        listener.reset();
    }
    EXPECT_EQ(fake::liveObjects("ConnectionAcceptor"), before);
}

TEST_F(XPCListenerTest, ExportsTheRequestsAndHearsOfTheEndBeforeItResumes) {
    serveApp();
    EXPECT_THAT(fake::steps(caller.connection),
                ElementsAre("interface", "object", "handler", "resume"));
    EXPECT_EQ(fake::exportedProtocol(caller.connection), "HalvoHelperXPC");
}

TEST_F(XPCListenerTest, CountsOnTheMainQueue) {
    world.calls.clear();
    serveApp();
    NSXPCConnection* other = connect();
    EXPECT_EQ(service.connections(), 0);
    fake::serve(0);
    EXPECT_EQ(service.connections(), 2);
    fake::invalidate(caller.connection);
    EXPECT_EQ(service.connections(), 2);
    fake::serve(0);
    fake::serve(10);
    EXPECT_EQ(service.connections(), 1);
    fake::invalidate(other);
    fake::serve(0);
    EXPECT_EQ(service.connections(), 0);
    EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it touched the engine without a request";
}

TEST_F(XPCListenerTest, CountsAConnectionBeforeItsFirstRequestIsServed) {
    serveApp();
    fake::request(caller.connection, ^(id<HalvoHelperXPC> helper) {
      [helper endWithReply:^(BOOL) {
        replies.push_back(std::to_string(service.connections()));
      }];
    });
    fake::invalidate(caller.connection);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("1"));
    EXPECT_EQ(service.connections(), 0);
}

TEST_F(XPCListenerTest, FindsTheCallersUserAndBundleWhenItAdmits) {
    serve();
    EXPECT_NE(fake::connect(machService, process + 1, 4294967295), nil) << "an unknown process";
    // Nothing, what is in no bundle, and another bundle.
    for (const std::string& path :
         {std::string(), app + "/Halvo",
          world.addBundle("Applications/Other.app") + "/Contents/MacOS/Halvo"}) {
        runs(path);
        const std::size_t refused = fake::errors().size();
        EXPECT_FALSE(owns(app)) << path;
        EXPECT_EQ(fake::errors().size(), refused + 1);
        EXPECT_EQ(fake::errors().back(), notTheirs) << path;
    }
    // Of a name that is longer than the buffer, as much as fits. The user is the connection's.
    fake::world().processes = {{process, ben, app + "/Contents/MacOS/" + std::string(5000, 'a')}};
    caller.connection = connect();
    runs("/usr/bin/tool");
    caller.begin(app, hour);
    fake::serve(0);
    EXPECT_THAT(replies.back(), "begin yes");
    EXPECT_EQ(engine.commitment()->uid, ann);
}

TEST_F(XPCListenerTest, PassesEachRequestOnAndItsResultBackInTheirOrder) {
    serveApp();
    caller.heartbeat();
    caller.end();
    caller.status();
    caller.begin("/Applications/Other.app", hour);
    caller.begin(app, hour);
    caller.heartbeat();
    caller.status();
    caller.end();
    EXPECT_THAT(replies, IsEmpty());
    EXPECT_THAT(world.calls.changes(), IsEmpty()) << "it touched the engine on another queue";
    fake::serve(0);
    fake::serve(10);
    EXPECT_THAT(replies, ElementsAre("heartbeat no", "end no", "idle", "begin no", "begin yes",
                                     "heartbeat yes", "holding for 3600 s, locked", "end yes"));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

TEST_F(XPCListenerTest, PassesDatesToTheLastBit) {
    serveApp();
    const WallDate until = wallDate(1'760'000'600.123456);
    const WallDate started = wallDate(1'759'999'999.654321);
    world.flags.failsToLock = true;
    caller.begin(foundationText(app), dateOf(until), dateOf(started));
    caller.status();
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes", "holding for 600 s"));
    EXPECT_EQ(caller.toldUntil, secondsSince1970(until));
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, until - now());
    EXPECT_EQ(engine.commitment()->startedWall, started);
}

TEST_F(XPCListenerTest, PassesTheAnnouncementThatTheSessionEnds) {
    serveApp();
    caller.begin(app, hour);
    fake::serve(0);
    engine.tick();
    // A plain sign of life takes it back.
    for (const bool ending : {true, false}) {
        caller.heartbeat(ending);
        fake::serve(0);
        world.clock.advance(Seconds{60});
        engine.tick();
        EXPECT_THAT(world.opener.openings, SizeIs(ending ? 0 : 1));
    }
}

TEST_F(XPCListenerTest, ResolvesThePathWhenTheRequestComes) {
    serveApp();
    const std::string link = std::filesystem::path(app).parent_path() / "Link.app";
    std::filesystem::create_directory_symlink(app, link);
    caller.begin(link, hour);
    std::filesystem::remove(link);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("begin yes"));
    EXPECT_EQ(engine.commitment()->appPath, app);
}

TEST_F(XPCListenerTest, TakesWhatIsMissingForNoBundlePathAndNoDate) {
    serveApp();
    // A zero byte does not end the path.
    const std::string path = app + std::string("\0.app", 5);
    NSString* noText = nil;
    NSDate* noDate = nil;
    NSDate* date = dateOf(now());
    for (NSString* text : {noText, fake::loneSurrogate(), foundationText(path)}) {
        caller.begin(text, date, date);
    }
    caller.begin(foundationText(app), noDate, date);
    caller.begin(foundationText(app), date, noDate);
    fake::serve(0);
    EXPECT_THAT(replies, AllOf(SizeIs(5), Each("begin no")));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs, notTheirs, notTheirs,
                                            "Refused a begin: until is not a finite number",
                                            "Refused a begin: started is not a finite number"));
    EXPECT_TRUE(engine.isIdle());
}

TEST_F(XPCListenerTest, ServesARequestWithoutAReply) {
    serveApp();
    void (^none)(BOOL) = nil;
    void (^noStatus)(BOOL, NSDate*, BOOL) = nil;
    fake::request(caller.connection, ^(id<HalvoHelperXPC> helper) {
      [helper beginWithAppPath:foundationText(app)
                         until:dateOf(now() + Seconds{hour})
                       started:dateOf(now())
                         reply:none];
      [helper heartbeatWithSessionEnding:NO reply:none];
      [helper statusWithReply:noStatus];
    });
    fake::serve(0);
    EXPECT_FALSE(engine.isIdle());
    fake::request(caller.connection, ^(id<HalvoHelperXPC> helper) {
      [helper endWithReply:none];
    });
    fake::serve(0);
    EXPECT_TRUE(engine.isIdle());
}

TEST_F(XPCListenerTest, LetsGoOfWhatItExportedAfterTheInvalidationButAnswersWhatIsUnderWay) {
    // What others may have left to the pool of the thread.
    const long exported = fake::liveObjects("HelperConnection");
    const long connections = fake::liveObjects("NSXPCConnection");
    @autoreleasepool {
        serveApp();
        caller.status();
        fake::serve(0);
        EXPECT_EQ(fake::liveObjects("HelperConnection"), exported + 1);
        caller.begin(app, hour);
        caller.status();
        fake::invalidate(caller.connection);
        caller.connection = nil;
    }
    EXPECT_EQ(fake::liveObjects("HelperConnection"), exported);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("idle", "begin yes", "holding for 3600 s, locked"));
    EXPECT_EQ(service.connections(), 0);
    EXPECT_EQ(fake::liveObjects("NSXPCConnection"), connections);
}

}  // namespace
}  // namespace halvo::testing
