#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelper/ConnectionAcceptor.hpp"
#include "tests/Support/ManualMainQueue.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t ann = 501;

// What happens, in order.
class NotingCount final : public ConnectionCount {
  public:
    void connectionOpened() override { events.emplace_back("opened"); }

    void connectionClosed() override { events.emplace_back("closed"); }

    std::vector<std::string> events;
};

class ConnectionAcceptorTest : public ::testing::Test {
  protected:
    std::optional<std::string> bundlePathOf(const std::optional<std::string>& executable) {
        return acceptor.accept(ann, executable)->peer().bundlePath;
    }

    // The folder of a bundle that is there, as "disk/Halvo.app".
    std::string makeBundle(const std::string& name) {
        const std::string path = disk / name;
        std::filesystem::create_directories(path + "/Contents/MacOS");
        return path;
    }

    TemporaryFolder disk;
    SimulatedWorld world;
    HelperEngine engine = world.makeEngine();
    ManualMainQueue queue{world.clock};
    NotingCount count;
    ConnectionAcceptor acceptor{queue, engine, count};
};

TEST_F(ConnectionAcceptorTest, RecordsTheUserAndTheBundleOfTheCaller) {
    const std::string bundle = makeBundle("Halvo.app");
    const auto connection = acceptor.accept(ann, bundle + "/Contents/MacOS/Halvo");
    EXPECT_EQ(connection->peer(), (HelperPeer{ann, bundle}));
}

TEST_F(ConnectionAcceptorTest, RecordsEveryUserIncludingRootAndTheLast) {
    EXPECT_EQ(acceptor.accept(0, std::nullopt)->peer().uid, 0U);
    EXPECT_EQ(acceptor.accept(4294967295, std::nullopt)->peer().uid, 4294967295U);
}

TEST_F(ConnectionAcceptorTest, ResolvesSymbolicLinksInTheBundlesPath) {
    const std::string bundle = makeBundle("Real.app");
    std::filesystem::create_directory_symlink(disk.path(), disk / "folder");
    std::filesystem::create_directory_symlink("Real.app", disk / "Link.app");
    EXPECT_EQ(bundlePathOf(disk / "folder/Real.app/Contents/MacOS/Halvo"), bundle);
    EXPECT_EQ(bundlePathOf(disk / "Link.app/Contents/MacOS/Halvo"), bundle);
    EXPECT_EQ(bundlePathOf(disk / "folder/Link.app/Contents/MacOS/Halvo"), bundle);
}

// The path that the caller was started by says whose it is, not where its executable really lies.
TEST_F(ConnectionAcceptorTest, FindsTheBundleBeforeItResolvesLinks) {
    const std::string bundle = makeBundle("Halvo.app");
    const std::string other = makeBundle("Other.app");
    std::filesystem::create_symlink(other + "/Contents/MacOS/Other",
                                    bundle + "/Contents/MacOS/Halvo");
    writeTestFile(other + "/Contents/MacOS/Other", "");
    EXPECT_EQ(bundlePathOf(bundle + "/Contents/MacOS/Halvo"), bundle);
    std::filesystem::create_symlink(other + "/Contents/MacOS/Other", disk / "tool");
    EXPECT_EQ(bundlePathOf(disk / "tool"), std::nullopt);
}

TEST_F(ConnectionAcceptorTest, KeepsThePathOfABundleThatIsNotThere) {
    EXPECT_EQ(bundlePathOf("/nowhere/Halvo.app/Contents/MacOS/Halvo"), "/nowhere/Halvo.app");
    std::filesystem::create_directory_symlink(disk / "missing", disk / "Link.app");
    EXPECT_EQ(bundlePathOf(disk / "Link.app/Contents/MacOS/Halvo"), disk / "Link.app");
}

class ConnectionAcceptorNoBundleTest
    : public ConnectionAcceptorTest,
      public ::testing::WithParamInterface<std::optional<std::string>> {};

TEST_P(ConnectionAcceptorNoBundleTest, AdmitsACallerOutsideOfABundleWithoutOne) {
    const auto connection = acceptor.accept(ann, GetParam());
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->peer(), (HelperPeer{ann, std::nullopt}));
}

INSTANTIATE_TEST_SUITE_P(Executables, ConnectionAcceptorNoBundleTest,
                         ::testing::Values(std::nullopt, "", "/", "/usr/bin/tool", "Halvo",
                                           "/Applications/Halvo.app/Halvo",
                                           "/Applications/Halvo.app/Contents/Halvo",
                                           "/Applications/Halvo.app/MacOS/Halvo",
                                           "/Applications/Halvo.app/Contents/MacOS/",
                                           "/Applications/Halvo.app/Contents/MacOS",
                                           "/Applications/Halvo.app/Contents/MacOS/sub/Halvo",
                                           "/Applications/Halvo.app/Contents/macOS/Halvo",
                                           "/Applications/Halvo/Contents/MacOS/Halvo",
                                           "/Applications/Halvo.APP/Contents/MacOS/Halvo",
                                           "Applications/Halvo.app/Contents/MacOS/Halvo",
                                           "/Applications/../Halvo.app/Contents/MacOS/Halvo",
                                           "/Applications//Halvo.app/Contents/MacOS/Halvo",
                                           // Not text.
                                           "/Applications/\xFF.app/Contents/MacOS/Halvo",
                                           "/Applications/Halvo.app/Contents/MacOS/\xFF"));

TEST_F(ConnectionAcceptorTest, CountsNobodyWhoIsNotAdmittedInTheEnd) {
    const auto connection = acceptor.accept(ann, std::nullopt);
    queue.runPending();
    EXPECT_THAT(count.events, IsEmpty());
}

TEST_F(ConnectionAcceptorTest, CountsEachConnectionOnTheQueueOnly) {
    const auto first = acceptor.accept(ann, std::nullopt);
    const auto second = acceptor.accept(ann, std::nullopt);
    acceptor.admitted();
    acceptor.admitted();
    EXPECT_THAT(count.events, IsEmpty());
    queue.runPending();
    EXPECT_THAT(count.events, ElementsAre("opened", "opened"));
}

TEST_F(ConnectionAcceptorTest, CountsEachInvalidationOnce) {
    const auto connection = acceptor.accept(ann, std::nullopt);
    acceptor.admitted();
    queue.runPending();
    acceptor.invalidated();
    EXPECT_THAT(count.events, ElementsAre("opened"));
    queue.runPending();
    queue.runPending();
    EXPECT_THAT(count.events, ElementsAre("opened", "closed"));
}

TEST_F(ConnectionAcceptorTest, CountsAConnectionBeforeItsFirstRequestIsServed) {
    const auto connection = acceptor.accept(ann, std::nullopt);
    acceptor.admitted();
    connection->status([this](const HelperStatus&) { count.events.emplace_back("served"); });
    acceptor.invalidated();
    queue.runPending();
    EXPECT_THAT(count.events, ElementsAre("opened", "served", "closed"));
}

TEST_F(ConnectionAcceptorTest, TouchesTheEngineOnlyWhenARequestIsServed) {
    world.calls.clear();
    const auto connection = acceptor.accept(ann, std::nullopt);
    acceptor.admitted();
    queue.runPending();
    acceptor.invalidated();
    queue.runPending();
    EXPECT_THAT(world.calls.calls(), IsEmpty());
}

TEST_F(ConnectionAcceptorTest, AdmitsOnAnyThread) {
    std::thread([this] {
        const auto connection = acceptor.accept(ann, std::nullopt);
        acceptor.admitted();
        acceptor.invalidated();
    }).join();
    queue.runPending();
    EXPECT_THAT(count.events, ElementsAre("opened", "closed"));
}

using ConnectionAcceptorDeathTest = ConnectionAcceptorTest;

TEST_F(ConnectionAcceptorDeathTest, CountsOnTheMainQueueOnly) {
    const auto serveOnAnotherThread = [this] {
        std::thread([this] { queue.runPending(); }).join();
    };
    const auto connection = acceptor.accept(ann, std::nullopt);
    acceptor.admitted();
    EXPECT_DEATH(serveOnAnotherThread(), "Expected same executor as MainActor\\.");
    queue.runPending();
    acceptor.invalidated();
    EXPECT_DEATH(serveOnAnotherThread(), "Expected same executor as MainActor\\.");
}

}  // namespace
}  // namespace halvo::testing
