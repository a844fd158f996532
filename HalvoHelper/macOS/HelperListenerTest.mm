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
#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"
#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeFoundation.hpp"
#include "tests/FakeDarwin/FakeXPC.hpp"
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
constexpr pid_t caller = 300;
constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;
constexpr Seconds hour{3600};

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

NSDate* dateOf(WallDate date) {
    return [NSDate dateWithTimeIntervalSince1970:secondsSince1970(date)];
}

class XPCListenerTest : public ::testing::Test {
  protected:
    XPCListenerTest() { world.session.console = ann; }

    // The caller runs the executable at `path`, which is not told when it is empty.
    static void runs(const std::string& path) { fake::world().processes = {{caller, ann, path}}; }

    static NSXPCConnection* connect() { return fake::connect(machService, caller, ann); }

    void serve() { listener->serve(identity, service); }

    // Serves, and connects as the app.
    void serveApp() {
        serve();
        runs(app + "/Contents/MacOS/Halvo");
        connection = connect();
    }

    [[nodiscard]] WallDate now() const { return world.clock.now().wall; }

    // A block that notes the reply to `request`.
    void (^noting(std::string request))(BOOL) {
        return ^(BOOL ok) {
          replies.push_back(request + (ok ? " yes" : " no"));
        };
    }

    // The requests on `connection`. Each notes its reply.

    void begin(NSString* path, NSDate* until, NSDate* started) {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper beginWithAppPath:path until:until started:started reply:noting("begin")];
        });
    }

    void begin(const std::string& path) {
        begin(foundationText(path), dateOf(now() + hour), dateOf(now()));
    }

    void begin() { begin(app); }

    void heartbeat(BOOL sessionEnding = NO) {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper heartbeatWithSessionEnding:sessionEnding reply:noting("heartbeat")];
        });
    }

    void end() {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper endWithReply:noting("end")];
        });
    }

    // The reply is noted with the end as seconds from now.
    void status() {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper statusWithReply:^(BOOL holding, NSDate* until, BOOL locked) {
            replies.push_back(std::string("status ") + (holding ? "holding" : "idle") +
                              (until == nil ? "" : " until " + fromNow(until)) +
                              (locked ? " locked" : ""));
          }];
        });
    }

    [[nodiscard]] std::string fromNow(NSDate* date) const {
        return std::to_string((wallDate(date.timeIntervalSince1970) - now()).count());
    }

    // Whether a caller that connects now may commit the bundle at `path`.
    bool owns(const std::string& path) {
        connection = connect();
        begin(path);
        fake::serve(0);
        return engine.commitment() && engine.commitment()->appPath == path;
    }

    // Before what it is asked for.
    const int worldReset = (fake::reset(), 0);
    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    std::unique_ptr<HelperListener> listener = makeListener(machService);
    HelperService service{identity,
                          {world.clock, world.flags, world.store, world.session, world.opener},
                          *listener,
                          liveMainQueue()};
    HelperEngine& engine = service.engine();
    NSXPCConnection* connection = nil;
    std::vector<std::string> replies;
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
    EXPECT_THAT(fake::steps(connection), ElementsAre("interface", "object", "handler", "resume"));
    EXPECT_EQ(fake::exportedProtocol(connection), "HalvoHelperXPC");
}

TEST_F(XPCListenerTest, CountsOnTheMainQueue) {
    world.calls.clear();
    serveApp();
    NSXPCConnection* other = connect();
    EXPECT_EQ(service.connections(), 0);
    fake::serve(0);
    EXPECT_EQ(service.connections(), 2);
    fake::invalidate(connection);
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
    fake::request(connection, ^(id<HalvoHelperXPC> helper) {
      [helper endWithReply:^(BOOL) {
        replies.push_back(std::to_string(service.connections()));
      }];
    });
    fake::invalidate(connection);
    fake::serve(0);
    EXPECT_THAT(replies, ElementsAre("1"));
    EXPECT_EQ(service.connections(), 0);
}

TEST_F(XPCListenerTest, FindsTheCallersUserAndBundleWhenItAdmits) {
    serve();
    EXPECT_NE(fake::connect(machService, caller + 1, 4294967295), nil) << "an unknown process";
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
    fake::world().processes = {{caller, ben, app + "/Contents/MacOS/" + std::string(5000, 'a')}};
    connection = connect();
    runs("/usr/bin/tool");
    begin();
    fake::serve(0);
    EXPECT_THAT(replies.back(), "begin yes");
    EXPECT_EQ(engine.commitment()->uid, ann);
}

TEST_F(XPCListenerTest, PassesEachRequestOnAndItsResultBackInTheirOrder) {
    serveApp();
    heartbeat();
    end();
    status();
    begin();
    heartbeat();
    status();
    end();
    EXPECT_THAT(replies, IsEmpty());
    EXPECT_THAT(world.calls.changes(), IsEmpty()) << "it touched the engine on another queue";
    fake::serve(0);
    fake::serve(10);
    EXPECT_THAT(replies,
                ElementsAre("heartbeat no", "end no", "status idle", "begin yes", "heartbeat yes",
                            "status holding until 3600.000000 locked", "end yes"));
}

TEST_F(XPCListenerTest, PassesTheDatesOfABeginToTheLastBitAndWhatTheEngineSaysOfIt) {
    serveApp();
    const WallDate until = wallDate(1'760'000'600.123456);
    const WallDate started = wallDate(1'759'999'999.654321);
    world.flags.failsToLock = true;
    begin("/Applications/Other.app");
    begin(foundationText(app), dateOf(until), dateOf(started));
    status();
    fake::serve(0);
    EXPECT_THAT(replies,
                ElementsAre("begin no", "begin yes",
                            "status holding until " + std::to_string((until - now()).count())));
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->remaining, until - now());
    EXPECT_EQ(engine.commitment()->startedWall, started);
    EXPECT_THAT(fake::errors().front(), notTheirs);
}

TEST_F(XPCListenerTest, PassesTheAnnouncementThatTheSessionEnds) {
    serveApp();
    begin();
    fake::serve(0);
    engine.tick();
    heartbeat(YES);
    fake::serve(0);
    world.clock.advance(Seconds{60});
    engine.tick();
    EXPECT_THAT(world.opener.openings, IsEmpty());
    heartbeat(NO);
    fake::serve(0);
    world.clock.advance(Seconds{10});
    engine.tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

TEST_F(XPCListenerTest, ResolvesThePathWhenTheRequestComes) {
    serveApp();
    const std::string link = std::filesystem::path(app).parent_path() / "Link.app";
    std::filesystem::create_directory_symlink(app, link);
    begin(link);
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
    for (NSString* text : {noText, fake::loneSurrogate(), foundationText(path)}) {
        begin(text, dateOf(now() + hour), dateOf(now()));
    }
    begin(foundationText(app), noDate, dateOf(now()));
    begin(foundationText(app), dateOf(now() + hour), noDate);
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
    fake::request(connection, ^(id<HalvoHelperXPC> helper) {
      [helper beginWithAppPath:foundationText(app)
                         until:dateOf(now() + hour)
                       started:dateOf(now())
                         reply:none];
      [helper heartbeatWithSessionEnding:NO reply:none];
      [helper statusWithReply:noStatus];
    });
    fake::serve(0);
    EXPECT_FALSE(engine.isIdle());
    fake::request(connection, ^(id<HalvoHelperXPC> helper) {
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
        status();
        fake::serve(0);
        EXPECT_EQ(fake::liveObjects("HelperConnection"), exported + 1);
        begin();
        status();
        fake::invalidate(connection);
        connection = nil;
    }
    EXPECT_EQ(fake::liveObjects("HelperConnection"), exported);
    fake::serve(0);
    EXPECT_THAT(replies,
                ElementsAre("status idle", "begin yes", "status holding until 3600.000000 locked"));
    EXPECT_EQ(service.connections(), 0);
    EXPECT_EQ(fake::liveObjects("NSXPCConnection"), connections);
}

}  // namespace
}  // namespace halvo::testing
