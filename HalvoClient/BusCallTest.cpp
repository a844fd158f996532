#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "HalvoClient/BusCall.hpp"

namespace halvo::testing {
namespace {

constexpr Seconds limit{5};

constexpr std::string_view welcome = "DATA\r\nOK 00112233445566778899aabbccddeeff\r\n";

// The two ends of a connection; `theirs` is for the test to play the other side.
struct Pair {
    Pair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()),
                  0);
        ours = Descriptor(ends[0]);
        theirs = Descriptor(ends[1]);
    }

    Descriptor ours;
    Descriptor theirs;
};

BusMessage statusRequest(sd_bus& bus) {
    sd_bus_message* raw = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(&bus, &raw, nullptr, "/", "a.b", "Status"), 0);
    return BusMessage(raw);
}

void send(const Descriptor& end, std::string_view bytes) {
    EXPECT_EQ(::send(end.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

TEST(DeadlineTest, IsNeverInThePastNorMoreThanADayAheadAndEndsAWait) {
    const Deadline before = deadlineAfter(Seconds{0});
    EXPECT_GE(deadlineAfter(Seconds{-5}), before);
    const Deadline farthest = deadlineAfter(Seconds{1e300});
    EXPECT_LE(farthest, sinceBoot() + std::chrono::hours{24});
    EXPECT_TRUE(waitBefore(deadlineAfter(Seconds{60}), Seconds{0}));
    const Deadline deadline = deadlineAfter(Seconds{0.01});
    EXPECT_FALSE(waitBefore(deadline, Seconds{60}));
    EXPECT_LT(sinceBoot(), deadline + Seconds{30});
}

TEST(BusCallTest, SendsNothingOnceTheDeadlineHasPassed) {
    Pair pair;
    send(pair.theirs, welcome);
    const auto bus = openBus(std::move(pair.ours));
    ASSERT_TRUE(bus.has_value());
    while (sd_bus_is_ready(bus->get()) == 0) {
        ASSERT_GE(sd_bus_process(bus->get(), nullptr), 0);
    }
    const auto received = [&pair] {
        std::array<char, 4096> bytes{};
        return recv(pair.theirs.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    };
    EXPECT_GT(received(), 0) << "the authentication";
    const BusMessage request = statusRequest(**bus);
    EXPECT_EQ(callWithin(deadlineAfter(Seconds{0}), **bus, *request).error(), ETIMEDOUT);
    EXPECT_EQ(received(), -1);
}

TEST(BusCallTest, TakesAPeerThatIsGoneForOneThatDidNotAuthenticate) {
    Pair pair;
    pair.theirs = Descriptor();
    auto bus = openBus(std::move(pair.ours));
    // Whether the first bytes already fail is up to the version of sd-bus.
    if (bus) {
        const BusMessage request = statusRequest(**bus);
        EXPECT_EQ(callWithin(deadlineAfter(limit), **bus, *request).error(), EPERM);
    } else {
        EXPECT_EQ(bus.error(), EPIPE);
    }
}

TEST(BusCallTest, EndsWithAFaultByWhatThePeerSays) {
    constexpr Seconds shortLimit{0.1};

    struct Row {
        std::string said;
        bool isGone;
        Seconds limit;
        int code;
    };

    const Row rows[] = {
        // sd-bus looks at no line before it has two.
        {"REJECTED EXTERNAL\r\nREJECTED EXTERNAL\r\n", false, limit, EPERM},
        {"HTTP/1.1 400 Bad Request\r\n\r\n", false, limit, EPERM},
        {"DA", false, shortLimit, ETIMEDOUT},
        {std::string(welcome) + "This is no message of D-Bus, whatever else it may be.", false,
         limit, ECONNRESET},
        {std::string(welcome), true, limit, ECONNRESET},
    };
    for (const Row& row : rows) {
        Pair pair;
        send(pair.theirs, row.said);
        if (row.isGone) {
            ASSERT_EQ(shutdown(pair.theirs.get(), SHUT_WR), 0);
        }
        const auto bus = openBus(std::move(pair.ours));
        ASSERT_TRUE(bus.has_value());
        const BusMessage request = statusRequest(**bus);
        EXPECT_EQ(callWithin(deadlineAfter(row.limit), **bus, *request).error(), row.code)
            << row.said;
    }
}

}  // namespace
}  // namespace halvo::testing
