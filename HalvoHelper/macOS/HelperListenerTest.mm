#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "HalvoHelper/ConnectionAcceptor.hpp"
#include "HalvoHelper/HelperListener.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeXPC.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

const std::string service = "com.example.app.helper";
const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

class NoCount final : public ConnectionCount {
  public:
    void connectionOpened() override {}

    void connectionClosed() override {}
};

class XPCListenerTest : public ::testing::Test {
  protected:
    XPCListenerTest() {
        fake::reset();
        auto made = makeListener(service);
        EXPECT_TRUE(made);
        listener = *std::move(made);
    }

    static bool isAdmitted() { return fake::connect(service, 300, 501) != nil; }

    SimulatedWorld world;
    HelperEngine engine = world.makeEngine();
    NoCount count;
    halvo::ConnectionAcceptor acceptor{liveMainQueue(), engine, count};
    std::unique_ptr<HelperListener> listener;
};

TEST_F(XPCListenerTest, ListensOnTheMachServiceOfThatName) {
    EXPECT_TRUE(fake::listener(service));
    EXPECT_FALSE(fake::listener("com.example.app"));
}

TEST_F(XPCListenerTest, ServesNobodyBeforeItIsResumed) {
    EXPECT_FALSE(fake::listener(service)->isResumed);
    EXPECT_FALSE(isAdmitted());
    listener->setRequirement(identity);
    EXPECT_FALSE(fake::listener(service)->isResumed);
    EXPECT_FALSE(isAdmitted());
}

TEST_F(XPCListenerTest, DemandsOfCallersThatTheyBeTheApp) {
    listener->setRequirement(identity);
    EXPECT_EQ(fake::listener(service)->requirement,
              "anchor apple generic and identifier \"com.example.app\" and certificate "
              "leaf[subject.OU] = \"7QX4KD19MT\"");
}

TEST_F(XPCListenerTest, KnowsWhoMayComeInAndWhoAdmitsThemBeforeItIsResumed) {
    listener->setRequirement(identity);
    listener->resume(acceptor);
    EXPECT_TRUE(fake::listener(service)->isResumed);
    EXPECT_TRUE(fake::listener(service)->hadRequirementWhenResumed);
    EXPECT_TRUE(fake::listener(service)->hadDelegateWhenResumed);
    EXPECT_TRUE(isAdmitted());
}

// NSXPCListener does not.
TEST_F(XPCListenerTest, KeepsItsDelegateForAsLongAsItLives) {
    const long before = fake::liveObjects("ConnectionAcceptor");
    listener->setRequirement(identity);
    @autoreleasepool {
        listener->resume(acceptor);
    }
    EXPECT_EQ(fake::liveObjects("ConnectionAcceptor"), before + 1);
    @autoreleasepool {
        EXPECT_TRUE(isAdmitted());
        listener.reset();
    }
    EXPECT_EQ(fake::liveObjects("ConnectionAcceptor"), before);
}

}  // namespace
}  // namespace halvo::testing
