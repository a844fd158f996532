// What callers, let in or not, can take of the helper: connections, time, memory, lines of its log.

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

// A sanitizer keeps what was freed for a while.
constexpr long smallGrowth = isSanitized ? 400'000 : 2'048;  // KiB

class CrowdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The first connections make the helper load and allocate what stays.
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(world.ask({"status"}).status, Reply::no);
        }
        // Nobody for whom the app would be opened, which takes a place and asks, too.
        world.leaveConsole();
        sleepFor(Seconds{0.5});
        descriptorsBefore = helper.descriptors();
        memoryBefore = memory();
    }

    // The app is served, and nothing that the crowd took is still taken.
    void TearDown() override {
        EXPECT_TRUE(helper.isRunning());
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
        EXPECT_TRUE(
            eventually(Seconds{3}, [this] { return helper.descriptors() == descriptorsBefore; }))
            << helper.descriptors() << " descriptors, " << descriptorsBefore << " before";
        EXPECT_LE(memory() - memoryBefore, smallGrowth);
    }

    // In KiB, without what other processes use too.
    [[nodiscard]] long memory() const {
        return std::stol(processField(helper.process().pid(), "RssAnon"));
    }

    World world;
    RunningHelper helper;
    std::size_t descriptorsBefore = 0;
    long memoryBefore = 0;
};

// Connects over and over as a stranger, a hundred times at once, until it cannot.
int connectWithoutEnd() {
    const auto address = socketAddress(Place::socket).value();
    while (true) {
        std::vector<Descriptor> strangers(100);
        for (Descriptor& stranger : strangers) {
            stranger = Descriptor(::socket(AF_UNIX, SOCK_STREAM, 0));
            if (connect(stranger.get(), generic(address), sizeof address) != 0) {
                return 1;
            }
        }
        // Until the helper has closed each.
        char byte = 0;
        for (const Descriptor& stranger : strangers) {
            if (recv(stranger.get(), &byte, 1, 0) > 0) {
                return 1;
            }
        }
    }
}

TEST_F(CrowdTest, OfStrangersWithoutEndHoldsUpNobodyWhoIsConnected) {
    constexpr int turns = 20;
    std::vector<std::string> words{"ask", Place::socket, "status"};
    for (int i = 0; i < turns; ++i) {
        words.insert(words.end(), {"~0.1", "heartbeat"});
    }
    TestProcess connected = world.startCaller(words);
    ASSERT_EQ(connected.readLine(), "idle without end unlocked");
    std::vector<TestProcess> strangers;
    for (int i = 0; i < 3; ++i) {
        strangers.emplace_back(Start{.person = world.user, .body = connectWithoutEnd});
    }
    const Seconds begun = timeNow();
    for (int i = 0; i < turns; ++i) {
        EXPECT_EQ(connected.readLine(), "no");
    }
    EXPECT_LE(timeNow() - begun, Seconds{10});
    // Nor is the app kept out.
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    }
    EXPECT_EQ(helper.log().size(), Limits::refusalLines);
}

// One account's, which stops them all.
TEST_F(CrowdTest, OfOneUserTakesNoPlaceFromOthers) {
    std::vector<TestProcess> crowd;
    for (std::size_t i = 0; i < Limits::connections; ++i) {
        crowd.push_back(world.startCaller({"hold", "1"}));
    }
    std::size_t held = 0;
    for (TestProcess& caller : crowd) {
        if (caller.readLine() == "holding 1") {
            caller.stop();
            ++held;
        }
    }
    EXPECT_EQ(held, Limits::connectionsOfUser);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(world.ask({"status"}, world.other).status, Reply::no);
    }
    EXPECT_GE(helper.count("error: Refused a caller: too many connections of user " +
                           std::to_string(world.user) + " are open"),
              1);
}

TEST_F(CrowdTest, ThatTakesEveryPlaceAndSaysNothingIsSentAwayAfterTenSeconds) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // Several people, each of whom opens as many connections as one may.
    const std::vector<std::string> words{"connect-many", Place::socket,
                                         std::to_string(Limits::connectionsOfUser)};
    std::vector<TestProcess> crowd;
    for (std::size_t i = 0; i < Limits::connections / Limits::connectionsOfUser; ++i) {
        crowd.push_back(world.startCaller(words, static_cast<uid_t>(62'000 + i)));
        EXPECT_EQ(crowd.back().readLine(), "connected");
    }
    const Seconds full = timeNow();
    // No place for anybody, but the helper lives on.
    EXPECT_EQ(world.ask({"status"}).status, Reply::refused);
    EXPECT_LE(helper.descriptors(), descriptorsBefore + Limits::connections);
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
    EXPECT_LT(timeNow() - full, Limits::authentication) << "a tick during the crowd";

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

TEST_F(CrowdTest, OfOneThatNeverReadsIsSentAwayAndHoldsUpNoTick) {
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

// A start with so much memory and no more.
Start withMemory(unsigned long long mebibytes) {
    if (isSanitized) {
        // AddressSanitizer reserves more address space than any limit; it keeps the bound itself.
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

TEST(ScarcityTest, OfMemoryCostsOnlyTheCallerThatWantsIt) {
    const World world;
    RunningHelper helper(withMemory(64));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    for (const char* megabytes : {"100", "30", "10"}) {
        // A new one each time, which is not silent for as long as a connection may be.
        TestProcess held = world.startCaller({"hold", "1"});
        EXPECT_EQ(held.readLine(), "holding 1");
        const ChildResult answer = world.ask({"huge", megabytes});
        // Told so, or sent away when there was no memory to receive it.
        EXPECT_THAT(answer.status, AnyOf(Reply::rejected, Reply::disconnected)) << answer.output;
        EXPECT_TRUE(helper.isRunning()) << megabytes;
        EXPECT_TRUE(world.status().holding);
        EXPECT_FALSE(held.hasLine()) << held.output();
    }
    EXPECT_EQ(world.end(), Reply::yes);
}

// Whoever may mount something at a path of their own choice makes the table of mounts as long as
// they like, and the helper looks into it for each caller.
TEST(ScarcityTest, OfMemoryIsNotMadeByALongTableOfMounts) {
    const World world;
    RunningHelper helper(withMemory(16));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // Each space is four bytes in the table.
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
    // On mounts of its own, so that all of the table is looked through.
    EXPECT_EQ(runInChild({.words = {"/usr/bin/unshare", "--mount", HALVO_TEST_CALLER, "--socket",
                                    Place::socket, "status"}})
                  .status,
              Reply::refused);
    EXPECT_TRUE(helper.says("error: Refused a caller: its executable lies on no mount*"));
    EXPECT_TRUE(helper.isRunning());
    EXPECT_EQ(world.end(), Reply::yes);
    for (int i = 0; i < mounts; ++i) {
        umount2(folder.c_str(), MNT_DETACH);
    }
    std::filesystem::remove_all("/tmp/" + std::string(255, ' '));
}

}  // namespace
}  // namespace halvo::testing
