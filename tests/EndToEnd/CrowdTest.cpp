// What callers, let in or not, can take of the helper: connections, time, memory, lines of its log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;

// The caller's word for a connection that ended after authentication.
constexpr int disconnected = 76;

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

    // Callers of several people, each of whom has opened as many connections as one may by `word`.
    std::vector<TestProcess> crowdOfEveryPlace(const std::string& word, const std::string& said) {
        const std::string count = std::to_string(Limits::connectionsOfUser);
        std::vector<TestProcess> crowd;
        for (std::size_t i = 0; i < Limits::connections / Limits::connectionsOfUser; ++i) {
            crowd.push_back(
                startAndHear({word, count}, said + " " + count, static_cast<uid_t>(62'000 + i)));
        }
        return crowd;
    }

    // A caller that has said `line`.
    TestProcess startAndHear(const std::vector<std::string>& words, const std::string& line,
                             std::optional<uid_t> person = {}) {
        TestProcess caller = world.startCaller(words, person);
        EXPECT_TRUE(eventually(Seconds{30}, [&] {
            return caller.output().find(line) != std::string::npos || !caller.isRunning();
        }));
        EXPECT_THAT(caller.output(), HasSubstr(line));
        return caller;
    }

    World world;
    RunningHelper helper;
    std::size_t descriptorsBefore = 0;
    Memory memoryBefore;
};

// Connects `count` times as a stranger, all at the same time or one after the other. 0, or 1 when
// it cannot.
int connectOften(int count, bool keep) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, Place::socket.c_str(), Place::socket.size() + 1);
    std::vector<Descriptor> kept;
    for (int i = 0; i < count; ++i) {
        Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
        if (!socket.isOpen() || connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                        sizeof address) != 0) {
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
    EXPECT_TRUE(eventually(Seconds{30}, [&] {
        return std::ranges::all_of(crowd, [](TestProcess& caller) {
            return !caller.output().empty() || !caller.isRunning();
        });
    }));
    std::size_t held = 0;
    for (TestProcess& caller : crowd) {
        if (caller.isRunning()) {
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
    std::vector<TestProcess> crowd = crowdOfEveryPlace("stall", "stalling");
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
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_LE(helper.count("error: Refused a caller: *"), Limits::refusalLines);
    EXPECT_GE(helper.count("error: Refused a caller: too many connections are open"), 1);
}

TEST_F(CrowdTest, HasSixtyFourPlaces) {
    std::vector<TestProcess> crowd = crowdOfEveryPlace("hold", "holding");
    // Longer than they would have had to authenticate.
    sleepFor(Limits::authentication + Seconds{2});
    EXPECT_EQ(world.ask({"status"}).status, Reply::refused);
    EXPECT_GE(helper.count("error: Refused a caller: too many connections are open"), 1);
    for (TestProcess& caller : crowd) {
        EXPECT_EQ(caller.output().find("closed"), std::string::npos) << caller.output();
        caller.closeInput();
        EXPECT_EQ(caller.wait(), 0);
    }
    EXPECT_TRUE(eventually(Seconds{5}, [&] { return world.ask({"status"}).status == Reply::no; }));
}

TEST_F(CrowdTest, OfOneThatSendsHalfAMessageHarmsNobody) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess caller = startAndHear({"half"}, "half sent");
    setLockedByHand(false);
    EXPECT_TRUE(eventually(Seconds{4}, [] { return isLocked(); }));
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.end(), Reply::yes);
    caller.kill();
}

TEST_F(CrowdTest, OfOneThatIsKilledInTheMiddleHarmsNobody) {
    for (int i = 0; i < 20; ++i) {
        TestProcess caller = world.startCaller({"flood", "100000"});
        sleepFor(Seconds{0.01 * i});
        caller.kill();
    }
}

TEST_F(CrowdTest, OfOneThatSendsAHundredMegabytesHarmsNobody) {
    const ChildResult answer = world.ask({"huge", "100"});
    EXPECT_EQ(answer.status, Reply::rejected) << answer.output;
    EXPECT_FALSE(exists(Place::stateFolder));
    EXPECT_EQ(helper.count("Holding*"), 0);
}

TEST_F(CrowdTest, OfOneThatNeverReadsIsSentAway) {
    const ChildResult answer = world.ask({"flood", "100000"});
    EXPECT_THAT(answer.output, HasSubstr("disconnected=true"));
}

TEST_F(CrowdTest, OfOneThatNeverReadsHoldsUpNoTick) {
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

TEST_F(CrowdTest, OfOneThatSendsGarbageIsSentAway) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(world.ask({"garbage"}).status, Reply::refused);
    }
}

TEST_F(CrowdTest, ThatComesAndGoesTakesNothingWithIt) {
    const ChildResult answer = world.run(
        {"/bin/sh", "-c",
         "for i in $(seq 300); do " + Place::caller + " status || [ $? = 1 ] || exit 1; done"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    std::vector<std::string> talk{"talk"};
    talk.insert(talk.end(), 2000, "Status");
    EXPECT_EQ(world.ask(talk).status, 0);
}

// Bounds that the system sets.

class ScarcityTest : public ::testing::Test {
  protected:
    World world;
};

TEST_F(ScarcityTest, OfDescriptorsTurnsTheLastCallersAway) {
    constexpr unsigned few = 16;
    RunningHelper helper(withLimit(RLIMIT_NOFILE, few));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess crowd = world.startCaller({"hold", "16"});
    ASSERT_TRUE(eventually(Seconds{5}, [&] { return !crowd.output().empty(); }));
    EXPECT_EQ(world.ask({"status"}).status, Reply::refused);
    const Seconds spentBefore = helper.processorTime();
    setLockedByHand(false);
    sleepFor(Seconds{4});
    EXPECT_LE(helper.processorTime() - spentBefore, Seconds{0.3});
    EXPECT_TRUE(isLocked());
    crowd.kill();
    EXPECT_TRUE(eventually(Seconds{5}, [&] { return world.ask({"status"}).status == Reply::yes; }));
    EXPECT_EQ(world.end(), Reply::yes);
    EXPECT_FALSE(isLocked());
}

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
    EXPECT_TRUE(eventually(Seconds{5}, [&] { return waiting.output() == "holding 1\n"; }))
        << waiting.output();
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(world.end(), Reply::yes);
}

TEST_F(ScarcityTest, OfMemoryCostsOnlyTheCallerThatWantsIt) {
    RunningHelper helper(withMemory(64));
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    TestProcess held = world.startCaller({"hold", "1"});
    ASSERT_TRUE(eventually(Seconds{5}, [&] { return !held.output().empty(); }));
    for (const char* megabytes : {"100", "60", "30", "20", "10"}) {
        const ChildResult answer = world.ask({"huge", megabytes});
        // Told so, or sent away when there was no memory to receive it.
        EXPECT_THAT(answer.status, AnyOf(Reply::rejected, disconnected)) << answer.output;
        EXPECT_TRUE(helper.isRunning()) << megabytes;
        EXPECT_TRUE(world.status().holding);
    }
    EXPECT_EQ(held.output(), "holding 1\n");
    EXPECT_EQ(world.end(), Reply::yes);
}

}  // namespace
}  // namespace halvo::testing
