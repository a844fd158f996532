// What callers, let in or not, can take of the helper: connections, time, memory, lines of its log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <utility>
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
        world.console({"nobody"});
        sleepFor(Seconds{0.5});
        descriptorsBefore = helper.descriptors();
        memoryBefore = helper.memory();
    }

    // The app is served, and nothing that the crowd took is still taken.
    void TearDown() override {
        EXPECT_TRUE(helper.isRunning());
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
        EXPECT_TRUE(
            eventually(Seconds{3}, [this] { return helper.descriptors() == descriptorsBefore; }))
            << helper.descriptors() << " descriptors, " << descriptorsBefore << " before";
        const Memory after = helper.memory();
        EXPECT_LE(after.resident - memoryBefore.resident, smallGrowth);
        EXPECT_LE(after.unshared - memoryBefore.unshared, smallGrowth);
    }

    World world;
    RunningHelper helper;
    std::size_t descriptorsBefore = 0;
    Memory memoryBefore;
};

// Connects `count` times as a stranger, all at the same time or one after the other. 0, or 1 when
// it cannot.
int connectOften(int count, bool keep) {
    const auto address = socketAddress(Place::socket).value();
    std::vector<Descriptor> kept;
    for (int i = 0; i < count; ++i) {
        Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
        if (!socket.isOpen() || connect(socket.get(), generic(address), sizeof address) != 0) {
            return 1;
        }
        if (keep) {
            kept.push_back(std::move(socket));
        }
    }
    // Until the helper has closed each.
    for (const Descriptor& socket : kept) {
        char byte = 0;
        if (recv(socket.get(), &byte, 1, 0) > 0) {
            return 1;
        }
    }
    return 0;
}

TEST_F(CrowdTest, OfAThousandStrangersIsTurnedAwayAtOnce) {
    constexpr int many = 1000;
    const Seconds before = timeNow();
    TestProcess strangers({.person = world.user, .body = [] { return connectOften(many, false); }});
    EXPECT_EQ(strangers.wait(), 0);
    TestProcess together({.person = world.other,
                          .prepare =
                              [] {
                                  const rlimit limit{2 * many, 2 * many};
                                  setrlimit(RLIMIT_NOFILE, &limit);
                              },
                          .body = [] { return connectOften(many, true); }});
    EXPECT_EQ(together.wait(), 0);
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    EXPECT_LE(timeNow() - before, Seconds{10});
    EXPECT_EQ(helper.count("error: Refused a caller: *"), Limits::refusalLines);
    EXPECT_EQ(helper.log().size(), Limits::refusalLines);
}

TEST_F(CrowdTest, OfStrangersWithoutEndHoldsUpNobodyWhoIsConnected) {
    std::vector<std::string> words{Place::caller, "talk", "Status"};
    for (int i = 0; i < 20; ++i) {
        words.insert(words.end(), {"~0.1", "Heartbeat:b"});
    }
    TestProcess connected({.words = words, .person = world.user});
    ASSERT_TRUE(eventually(Seconds{5}, [&] { return connected.output() == "badb\n"; }));
    std::vector<TestProcess> strangers;
    for (int i = 0; i < 3; ++i) {
        strangers.emplace_back(Start{.person = world.user, .body = [] {
                                         while (connectOften(100, false) == 0) {
                                         }
                                         return 1;
                                     }});
    }
    const Seconds begun = timeNow();
    EXPECT_EQ(connected.wait(), 0);
    EXPECT_LE(timeNow() - begun, Seconds{10});
    std::string replies = "badb\n";
    for (int i = 0; i < 20; ++i) {
        replies += "b\n";
    }
    EXPECT_EQ(connected.output(), replies);
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

// Bounds that the system sets.

class ScarcityTest : public ::testing::Test {
  protected:
    World world;
};

TEST_F(ScarcityTest, OfDescriptorsDoesNotMakeTheHelperSpin) {
    RunningHelper helper;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    world.console({"nobody"});
    sleepFor(Seconds{0.5});
    rlimit before{};
    ASSERT_EQ(prlimit(helper.process().pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit none{helper.descriptors(), before.rlim_max};
    ASSERT_EQ(prlimit(helper.process().pid(), RLIMIT_NOFILE, &none, nullptr), 0);

    const std::string line = "error: Couldn't accept a caller: Too many open files";
    TestProcess waiting = world.startCaller({"hold", "1"});
    EXPECT_TRUE(helper.says(line));
    const Seconds spentBefore = helper.processorTime();
    sleepFor(Seconds{2.5});
    EXPECT_LE(helper.processorTime() - spentBefore, Seconds{0.3});
    EXPECT_LE(helper.count(line), 5);

    ASSERT_EQ(prlimit(helper.process().pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    // Served as soon as there is a descriptor for it.
    EXPECT_EQ(waiting.readLine(), "holding 1");
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.end(), Reply::yes);
}

TEST_F(ScarcityTest, OfMemoryCostsOnlyTheCallerThatWantsIt) {
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

}  // namespace
}  // namespace halvo::testing
