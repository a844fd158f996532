// How NSXPC's connections are admitted. What the acceptor makes of a caller:
// HalvoHelper/ConnectionAcceptorTest.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "HalvoHelper/macOS/ConnectionAcceptor.hpp"
#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"
#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeXPC.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* service = "com.example.app.helper";
constexpr pid_t caller = 300;
constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;
constexpr Seconds hour{3600};

constexpr const char* notTheirs = "Refused a begin for a bundle that isn't the caller's own";

class ConnectionAdmissionTest : public ::testing::Test, public ConnectionCount {
  protected:
    ConnectionAdmissionTest() {
        fake::reset();
        listener = [[NSXPCListener alloc] initWithMachServiceName:foundationText(service)];
        delegate = [[::ConnectionAcceptor alloc] initWithAcceptor:acceptor];
        listener.delegate = delegate;
        [listener resume];
    }

    // The caller runs the executable at `path`, which is not told when it is empty.
    static void runs(const std::string& path) { fake::world().processes = {{caller, ann, path}}; }

    static NSXPCConnection* connect() { return fake::connect(service, caller, ann); }

    void connectionOpened() override { events.emplace_back("opened"); }

    void connectionClosed() override { events.emplace_back("closed"); }

    // Asks for the status. The reply is noted.
    void status(NSXPCConnection* connection) {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper statusWithReply:^(BOOL holding, NSDate*, BOOL) {
            events.emplace_back(holding ? "holding" : "idle");
          }];
        });
    }

    // Whether the caller may commit the bundle at `path`, which only its own people may.
    bool owns(const std::string& path) {
        const double now = secondsSince1970(world.clock.now().wall);
        fake::request(connect(), ^(id<HalvoHelperXPC> helper) {
          [helper beginWithAppPath:foundationText(path)
                             until:[NSDate dateWithTimeIntervalSince1970:now + hour.count()]
                           started:[NSDate dateWithTimeIntervalSince1970:now]
                             reply:^(BOOL){
                             }];
        });
        fake::serve(0);
        return engine.commitment() && engine.commitment()->appPath == path;
    }

    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    std::vector<std::string> events;
    halvo::ConnectionAcceptor acceptor{liveMainQueue(), engine, *this};
    NSXPCListener* listener;
    ::ConnectionAcceptor* delegate;
};

TEST_F(ConnectionAdmissionTest, ExportsTheRequestsAndHearsOfTheEndBeforeItResumes) {
    NSXPCConnection* connection = connect();
    ASSERT_NE(connection, nil);
    EXPECT_THAT(fake::steps(connection), ElementsAre("interface", "object", "handler", "resume"));
    EXPECT_EQ(fake::exportedProtocol(connection), "HalvoHelperXPC");
}

TEST_F(ConnectionAdmissionTest, AdmitsEverybodyWhoReachesIt) {
    for (const std::string& path :
         {std::string(), std::string("/usr/bin/tool"), app + "/Contents/MacOS/Halvo"}) {
        runs(path);
        EXPECT_NE(connect(), nil) << path;
    }
    EXPECT_NE(fake::connect(service, 1, 0), nil);
    EXPECT_NE(fake::connect(service, caller + 1, 4294967295), nil) << "an unknown process";
}

// ------------------------------------------------------------------------------------- the
// counting

TEST_F(ConnectionAdmissionTest, CountsOnTheMainQueueBeforeTheFirstRequestIsServed) {
    NSXPCConnection* connection = connect();
    status(connection);
    EXPECT_THAT(events, IsEmpty());
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "idle"));
}

TEST_F(ConnectionAdmissionTest, CountsEachInvalidationOnceOnTheMainQueue) {
    NSXPCConnection* connection = connect();
    fake::serve(0);
    fake::invalidate(connection);
    EXPECT_THAT(events, ElementsAre("opened"));
    fake::serve(0);
    fake::serve(10);
    EXPECT_THAT(events, ElementsAre("opened", "closed"));
}

TEST_F(ConnectionAdmissionTest, CountsAConnectionThatDiesAtOnceBothWays) {
    fake::invalidate(connect());
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "closed"));
}

TEST_F(ConnectionAdmissionTest, CountsConnectionsOneByOne) {
    NSXPCConnection* first = connect();
    NSXPCConnection* second = connect();
    fake::invalidate(first);
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "opened", "closed"));
    fake::invalidate(second);
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "opened", "closed", "closed"));
}

TEST_F(ConnectionAdmissionTest, LeavesTheEngineAlone) {
    world.calls.clear();
    fake::invalidate(connect());
    fake::serve(0);
    EXPECT_THAT(world.calls.calls(), IsEmpty());
}

// ----------------------------------------------------------------------------------------- the
// peer

TEST_F(ConnectionAdmissionTest, TakesTheCallersUserFromTheConnectionNotFromTheProcess) {
    fake::world().processes = {{caller, ben, app + "/Contents/MacOS/Halvo"}};
    EXPECT_TRUE(owns(app));
    EXPECT_EQ(engine.commitment()->uid, ann);
}

TEST_F(ConnectionAdmissionTest, FindsTheCallersBundle) {
    const std::string other = world.addBundle("Applications/Other.app");
    runs(app + "/Contents/MacOS/Halvo");
    EXPECT_FALSE(owns(other));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
    EXPECT_TRUE(owns(app));
}

TEST_F(ConnectionAdmissionTest, ResolvesLinksOnTheWayToTheBundle) {
    const std::string folder = std::filesystem::path(app).parent_path();
    std::filesystem::create_directory_symlink(folder, folder + "/Again");
    runs(folder + "/Again/Halvo.app/Contents/MacOS/Halvo");
    EXPECT_TRUE(owns(app));
}

TEST_F(ConnectionAdmissionTest, FindsTheBundleBeforeItResolvesLinks) {
    const std::string other = world.addBundle("Applications/Other.app");
    const std::string real = other + "/Contents/MacOS/Other";
    for (const std::string& bundle : {app, other}) {
        std::filesystem::create_directories(bundle + "/Contents/MacOS");
    }
    std::ofstream(real) << "";
    std::filesystem::create_symlink(real, app + "/Contents/MacOS/Link");
    runs(app + "/Contents/MacOS/Link");
    EXPECT_FALSE(owns(other));
    EXPECT_TRUE(owns(app));
}

TEST_F(ConnectionAdmissionTest, KeepsThePathOfABundleThatIsNotThere) {
    runs("/nowhere/Halvo.app/Contents/MacOS/Halvo");
    EXPECT_TRUE(owns("/nowhere/Halvo.app"));
}

TEST_F(ConnectionAdmissionTest, FixesThePeerWhenItAdmits) {
    runs(app + "/Contents/MacOS/Halvo");
    NSXPCConnection* connection = connect();
    runs("/usr/bin/tool");
    const double now = secondsSince1970(world.clock.now().wall);
    NSString* path = foundationText(app);
    fake::request(connection, ^(id<HalvoHelperXPC> helper) {
      [helper beginWithAppPath:path
                         until:[NSDate dateWithTimeIntervalSince1970:now + hour.count()]
                       started:[NSDate dateWithTimeIntervalSince1970:now]
                         reply:^(BOOL ok) {
                           events.emplace_back(ok ? "begun" : "refused");
                         }];
    });
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "begun"));
}

TEST_F(ConnectionAdmissionTest, ReadsAPathThatFillsTheWholeBuffer) {
    const std::string inside = "/Contents/MacOS/Halvo";
    const std::string bundle = "/" + std::string(4096 - 5 - inside.size(), 'a') + ".app";
    ASSERT_EQ((bundle + inside).size(), 4096U);
    runs(bundle + inside);
    EXPECT_TRUE(owns(bundle));
}

TEST_F(ConnectionAdmissionTest, ReadsNoMoreThanTheBufferOfALongerPath) {
    runs(app + "/Contents/MacOS/" + std::string(5000, 'a'));
    EXPECT_TRUE(owns(app)) << "of its name as much as fits";
}

class ConnectionAdmissionNoBundleTest : public ConnectionAdmissionTest,
                                        public ::testing::WithParamInterface<std::string> {};

TEST_P(ConnectionAdmissionNoBundleTest, ACallerOutsideOfABundleOwnsNone) {
    runs(GetParam().empty() ? "" : app + GetParam());
    EXPECT_FALSE(owns(app));
    EXPECT_THAT(fake::errors(), ElementsAre(notTheirs));
}

INSTANTIATE_TEST_SUITE_P(Executables, ConnectionAdmissionNoBundleTest,
                         ::testing::Values("", "/Halvo", "/Contents/Halvo", "/Contents/MacOS/x/y",
                                           "/Contents/Resources/Halvo", "/MacOS/Halvo",
                                           // Not text.
                                           "/Contents/MacOS/\xFF"));

// -------------------------------------------------------------------------------------- its
// lifetime

// Those of one test; others may have left some to the pool of the thread.
class ConnectionAdmissionLifetimeTest : public ConnectionAdmissionTest {
  protected:
    [[nodiscard]] long exportedObjects() const {
        return fake::liveObjects("HelperConnection") - exportedBefore;
    }

    [[nodiscard]] long connections() const {
        return fake::liveObjects("NSXPCConnection") - connectionsBefore;
    }

  private:
    const long exportedBefore = fake::liveObjects("HelperConnection");
    const long connectionsBefore = fake::liveObjects("NSXPCConnection");
};

TEST_F(ConnectionAdmissionLifetimeTest, LetsGoOfWhatItExportedAfterTheInvalidation) {
    @autoreleasepool {
        NSXPCConnection* connection = connect();
        status(connection);
        fake::serve(0);
        EXPECT_EQ(exportedObjects(), 1);
        fake::invalidate(connection);
        fake::serve(0);
    }
    EXPECT_EQ(exportedObjects(), 0);
    EXPECT_EQ(connections(), 0);
}

TEST_F(ConnectionAdmissionLifetimeTest, AnswersARequestWhoseConnectionDiesMeanwhile) {
    @autoreleasepool {
        NSXPCConnection* connection = connect();
        status(connection);
        fake::invalidate(connection);
    }
    EXPECT_EQ(exportedObjects(), 0);
    fake::serve(0);
    EXPECT_THAT(events, ElementsAre("opened", "idle", "closed"));
}

}  // namespace
}  // namespace halvo::testing
