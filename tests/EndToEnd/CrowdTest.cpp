// Resource limits: how many connections, how much time, memory and log a client can consume.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

using ::testing::AnyOf;

// AddressSanitizer's quarantine keeps freed memory.
constexpr long smallGrowth = isSanitized ? 400'000 : 2'048;  // KiB

class CrowdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The first connections cause one-time loads and allocations.
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(world.ask({"status"}).status, Reply::no);
        }
        // No console user, or the helper would open the app, which connects too.
        world.leaveConsole();
        sleepFor(Seconds{0.5});
        descriptorsBefore = helper.descriptors();
        memoryBefore = memory();
    }

    // The app is served, and all descriptors and memory of the other clients are released.
    void TearDown() override {
        EXPECT_TRUE(helper.isRunning());
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
        EXPECT_TRUE(
            eventually(Seconds{3}, [this] { return helper.descriptors() == descriptorsBefore; }))
            << helper.descriptors() << " descriptors, " << descriptorsBefore << " before";
        EXPECT_LE(memory() - memoryBefore, smallGrowth);
    }

    // Anonymous resident memory, in KiB.
    [[nodiscard]] long memory() {
        return std::stol(processField(helper.process().pid(), "RssAnon"));
    }

    World world;
    RunningHelper helper;
    std::size_t descriptorsBefore = 0;
    long memoryBefore = 0;
};

// Opens a hundred unauthorized connections at a time, again and again. Returns when one is admitted
// or cannot be opened.
int keepConnecting() {
    const auto address = socketAddress(Place::socket).value();
    while (true) {
        std::vector<Descriptor> sockets(100);
        for (Descriptor& socket : sockets) {
            socket = Descriptor(::socket(AF_UNIX, SOCK_STREAM, 0));
            if (connect(socket.get(), generic(address), sizeof address) != 0) {
                return 1;
            }
        }
        // Until the helper has closed all of them.
        char byte = 0;
        for (const Descriptor& socket : sockets) {
            if (recv(socket.get(), &byte, 1, 0) > 0) {
                return 1;
            }
        }
    }
}

TEST_F(CrowdTest, RefusedConnectionsDoNotDelayAnAdmittedOne) {
    constexpr int turns = 20;
    std::vector<std::string> words{"ask", Place::socket, "status"};
    for (int i = 0; i < turns; ++i) {
        words.insert(words.end(), {"~0.1", "heartbeat"});
    }
    TestProcess connected = world.startCaller(words);
    ASSERT_EQ(connected.readLine(), "idle without end unlocked");
    std::vector<TestProcess> refused;
    for (int i = 0; i < 3; ++i) {
        refused.emplace_back(ProcessOptions{.person = world.user, .body = keepConnecting});
    }
    const Seconds begun = timeNow();
    for (int i = 0; i < turns; ++i) {
        EXPECT_EQ(connected.readLine(), "no");
    }
    EXPECT_LE(timeNow() - begun, Seconds{10});
    // New connections of the app are admitted too.
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    }
    EXPECT_EQ(helper.log().size(), Limits::refusalLines);
}

// They are stopped processes of one user.
TEST_F(CrowdTest, ConnectionsOfOneUserLeaveRoomForOthers) {
    std::vector<TestProcess> crowd;
    for (std::size_t i = 0; i < Limits::connections; ++i) {
        crowd.push_back(world.startCaller({"hold", "1"}));
    }
    std::size_t admitted = 0;
    for (TestProcess& caller : crowd) {
        if (caller.readLine() == "holding 1") {
            caller.stop();
            ++admitted;
        }
    }
    EXPECT_EQ(admitted, Limits::connectionsOfUser);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(world.ask({"status"}, world.other).status, Reply::no);
    }
    EXPECT_GE(helper.count("error: Refused a caller: too many connections of user " +
                           std::to_string(world.user) + " are open"),
              1);
}

TEST_F(CrowdTest, UnauthenticatedConnectionsAreClosedAfterTenSeconds) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // Several users, each with as many connections as one user may have.
    const std::vector<std::string> words{"connect-many", Place::socket,
                                         std::to_string(Limits::connectionsOfUser)};
    std::vector<TestProcess> crowd;
    for (std::size_t i = 0; i < Limits::connections / Limits::connectionsOfUser; ++i) {
        crowd.push_back(world.startCaller(words, static_cast<uid_t>(62'000 + i)));
        EXPECT_EQ(crowd.back().readLine(), "connected");
    }
    const Seconds full = timeNow();
    // No further connection is admitted, but the helper runs on.
    EXPECT_EQ(world.ask({"status"}).status, Reply::refused);
    EXPECT_LE(helper.descriptors(), descriptorsBefore + Limits::connections);
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
    EXPECT_LT(timeNow() - full, Limits::authentication)
        << "no tick came while all connections were taken";

    for (TestProcess& caller : crowd) {
        EXPECT_EQ(caller.wait(), Reply::refused);
    }
    EXPECT_GE(timeNow() - full, Limits::authentication - Seconds{3});
    EXPECT_LE(timeNow() - full, Limits::authentication + Seconds{10});
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_LE(helper.count("error: Refused a caller: *"), Limits::refusalLines);
    EXPECT_GE(helper.count("error: Refused a caller: too many connections are open"), 1);
}

TEST_F(CrowdTest, AClientThatNeverReadsIsDisconnectedAndDelaysNoTick) {
    EXPECT_EQ(world.ask({"flood", "100000"}).status, Reply::disconnected);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess flood(
        {.words = {"/bin/sh", "-c", "while :; do " + Place::caller + " flood 100000; done"},
         .person = world.user});
    sleepFor(Seconds{1});
    for (int i = 0; i < 3; ++i) {
        setLockedByHand(false);
        EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
        EXPECT_TRUE(world.status().holding);
    }
    flood.kill();
    EXPECT_EQ(world.end(), Reply::yes);
}

// Limits the memory of the helper.
ProcessOptions withMemory(unsigned long long mebibytes) {
    if (isSanitized) {
        // AddressSanitizer reserves too much address space for RLIMIT_DATA, and has its own limit.
        return {.environment = {"ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=" +
                                std::to_string(mebibytes)}};
    }
    return {.prepare = [bytes = mebibytes << 20U] {
        const rlimit bound{bytes, bytes};
        if (setrlimit(RLIMIT_DATA, &bound) != 0) {
            _exit(1);
        }
    }};
}

TEST(MemoryLimitTest, AHugeRequestFailsForItsOwnCallerOnly) {
    const World world;
    RunningHelper helper(withMemory(64));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    for (const char* megabytes : {"100", "30", "10"}) {
        // A new one each time: Limits::silence closes idle connections.
        TestProcess held = world.startCaller({"hold", "1"});
        EXPECT_EQ(held.readLine(), "holding 1");
        const ChildResult answer = world.ask({"huge", megabytes});
        // An error reply, or a disconnection when there was no memory to receive the request.
        EXPECT_THAT(answer.status, AnyOf(Reply::rejected, Reply::disconnected)) << answer.output;
        EXPECT_TRUE(helper.isRunning()) << megabytes;
        EXPECT_TRUE(world.status().holding);
        EXPECT_FALSE(held.hasLine()) << held.output();
    }
    EXPECT_EQ(world.end(), Reply::yes);
}

// A user who can mount at a path of their choice controls the size of /proc/1/mountinfo, which the
// helper reads for each caller.
TEST(MemoryLimitTest, ReadsALongMountTableInBoundedMemory) {
    const World world;
    RunningHelper helper(withMemory(16));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // mountinfo writes a space as four bytes (\040).
    std::string folder = "/tmp";
    for (int depth = 0; depth < 15; ++depth) {
        folder += "/" + std::string(255, ' ');
    }
    std::filesystem::create_directories(folder);
    constexpr int mounts = 1500;
    for (int i = 0; i < mounts; ++i) {
        ASSERT_EQ(mount("long", folder.c_str(), "tmpfs", MS_NOSUID, "size=4k"), 0);
    }
    ASSERT_GT(readTestFile("/proc/1/mountinfo").size(), 20'000'000);
    EXPECT_EQ(world.ask({"status"}).status, Reply::yes);
    // In its own mount namespace, so the helper reads the table to the end.
    EXPECT_EQ(runInChild({.words = {"/usr/bin/unshare", "--mount", HALVO_TEST_CALLER, "--socket",
                                    Place::socket, "status"}})
                  .status,
              Reply::refused);
    EXPECT_TRUE(helper.says("error: Refused a caller: its executable's mount is not in*"));
    EXPECT_TRUE(helper.isRunning());
    EXPECT_EQ(world.end(), Reply::yes);
    for (int i = 0; i < mounts; ++i) {
        umount2(folder.c_str(), MNT_DETACH);
    }
    std::filesystem::remove_all("/tmp/" + std::string(255, ' '));
}

}  // namespace
}  // namespace halvo::testing
