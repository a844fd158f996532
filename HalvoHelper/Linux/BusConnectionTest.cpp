#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <initializer_list>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/Linux/BusConnection.hpp"
#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Ends {
    Descriptor server;
    Descriptor client;
};

Ends nonBlockingEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// The main thread's event loop.
class Loop {
  public:
    Loop() { EXPECT_GE(sd_event_default(&loop_), 0); }

    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    ~Loop() { sd_event_unref(loop_); }

    // Does all that can be done without waiting.
    void run() {
        while (sd_event_run(loop_, 0) > 0) {
        }
    }

  private:
    sd_event* loop_ = nullptr;
};

struct MessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using Message = std::unique_ptr<sd_bus_message, MessageRelease>;

// A reply as a text: its signature and values, "badb yes [1.500000] no"; or the name of its error
// and what that says.
std::string decoded(sd_bus_message* message) {
    if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
        return std::string(error->name) + ": " + error->message;
    }
    const std::string types = sd_bus_message_get_signature(message, 1);
    std::string text = types;
    const auto readFlag = [&] {
        int flag = 0;
        EXPECT_GT(sd_bus_message_read(message, "b", &flag), 0);
        text += flag != 0 ? " yes" : " no";
    };
    if (types == "s") {
        const char* string = nullptr;
        EXPECT_GT(sd_bus_message_read(message, "s", &string), 0);
        return text + " " + string;
    }
    readFlag();
    if (types == "badb") {
        const void* data = nullptr;
        std::size_t size = 0;
        EXPECT_GE(sd_bus_message_read_array(message, 'd', &data, &size), 0);
        const std::span numbers(static_cast<const double*>(data), size / sizeof(double));
        text += " [" + (numbers.empty() ? "" : std::to_string(numbers.front())) + "]";
        EXPECT_LE(numbers.size(), 1U);
        readFlag();
    }
    return text;
}

// The app's side of a connection, served on the same thread as the helper's.
class BusClient {
  public:
    BusClient(Descriptor socket, Loop& loop) : loop_(loop) {
        EXPECT_GE(sd_bus_new(&bus_), 0);
        const int number = socket.release();
        EXPECT_GE(sd_bus_set_fd(bus_, number, number), 0);
        EXPECT_GE(sd_bus_negotiate_fds(bus_, 1), 0);
        EXPECT_GE(sd_bus_start(bus_), 0);
    }

    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    ~BusClient() { sd_bus_close_unref(bus_); }

    [[nodiscard]] sd_bus* bus() const { return bus_; }

    Message request(const char* member, const char* interface = HelperBus::interface,
                    const char* path = HelperBus::object) const {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(bus_, &message, nullptr, path, interface, member),
                  0);
        return Message(message);
    }

    // Sends `message`. The reply will be among replies().
    void send(const Message& message) {
        const auto onReply = [](sd_bus_message* reply, void* self, sd_bus_error*) {
            static_cast<BusClient*>(self)->replies_.push_back(decoded(reply));
            return 0;
        };
        EXPECT_GE(sd_bus_call_async(bus_, nullptr, message.get(), onReply, this, UINT64_MAX), 0);
    }

    // Serves both sides until nothing moves any more.
    void settle() {
        bool moved = true;
        while (moved) {
            loop_.run();
            moved = false;
            while (sd_bus_process(bus_, nullptr) > 0) {
                moved = true;
            }
        }
    }

    // The reply to `message`; without one, or with several, a failure.
    std::string call(const Message& message) {
        const std::size_t before = replies_.size();
        send(message);
        settle();
        EXPECT_EQ(replies_.size(), before + 1);
        return replies_.size() > before ? replies_.back() : "";
    }

    std::string call(const char* member) { return call(request(member)); }

    [[nodiscard]] const std::vector<std::string>& replies() const { return replies_; }

  private:
    sd_bus* bus_ = nullptr;
    Loop& loop_;
    std::vector<std::string> replies_;
};

class BusConnectionTest : public ::testing::Test {
  protected:
    ~BusConnectionTest() override {
        connection.reset();
        client.reset();
    }

    std::unique_ptr<BusConnection> makeConnection() {
        return std::make_unique<BusConnection>(
            HelperConnection({ann, app}, engine), [this](auto&) { ++gone; },
            [this](auto&) { ++begun; });
    }

    // Serves one end of a pair, and gives the other.
    Descriptor serve() {
        Ends ends = nonBlockingEnds();
        connection = makeConnection();
        EXPECT_TRUE(connection->start(std::move(ends.server)));
        return std::move(ends.client);
    }

    void connect() { client = std::make_unique<BusClient>(serve(), loop); }

    [[nodiscard]] Message begin(const std::string& path, double until, double started) const {
        Message message = client->request("Begin");
        EXPECT_GE(sd_bus_message_append(message.get(), "sdd", path.c_str(), until, started), 0);
        return message;
    }

    [[nodiscard]] Message begin() const { return begin(app, now + 3600.25, now); }

    [[nodiscard]] Message heartbeat(bool ending = false) const {
        Message message = client->request("Heartbeat");
        EXPECT_GE(sd_bus_message_append(message.get(), "b", static_cast<int>(ending)), 0);
        return message;
    }

    LogCapture log;
    SimulatedWorld world;
    const std::string app = world.addBundle("Applications/Halvo.app");
    HelperEngine engine = world.makeEngine();
    Loop loop;
    const double now = secondsSince1970(world.clock.now().wall);
    int gone = 0;
    int begun = 0;
    std::unique_ptr<BusConnection> connection;
    std::unique_ptr<BusClient> client;
};

constexpr const char* idleStatus = "badb no [] no";

TEST_F(BusConnectionTest, CarriesTheFourRequests) {
    connect();
    const std::string held = "badb yes [" + std::to_string(now + 3600.25) + "] yes";
    EXPECT_EQ(client->call("Status"), idleStatus);
    EXPECT_EQ(client->call(begin()), "b yes");
    EXPECT_EQ(client->call(heartbeat()), "b yes");
    EXPECT_EQ(client->call("Status"), held);
    EXPECT_EQ(client->call("End"), "b yes");
    EXPECT_EQ(client->call("End"), "b no");
    EXPECT_EQ(client->call(heartbeat()), "b no");
    EXPECT_EQ(client->call(begin(app, now - 1, now)), "b no");
    // And each in its turn.
    client->send(client->request("Status"));
    client->send(begin());
    client->send(client->request("Status"));
    client->send(client->request("End"));
    client->send(client->request("Status"));
    client->settle();
    const auto& all = client->replies();
    ASSERT_EQ(all.size(), 13U);
    EXPECT_THAT(std::vector(all.begin() + 8, all.end()),
                ElementsAre(idleStatus, "b yes", held, "b yes", idleStatus));
}

TEST_F(BusConnectionTest, CarriesTheArgumentsOfABeginAndResolvesLinksInItsPath) {
    const std::string link = app.substr(0, app.size() - 9) + "Link.app";
    ASSERT_EQ(symlink("Halvo.app", link.c_str()), 0);
    connect();
    client->call(begin(link, now + 0.1, now - 1e-3));
    ASSERT_TRUE(engine.commitment());
    EXPECT_EQ(engine.commitment()->appPath, app);
    EXPECT_EQ(engine.commitment()->startedWall, wallDate(now - 1e-3));
    EXPECT_EQ(engine.commitment()->remaining, Seconds{(now + 0.1) - now});
}

TEST_F(BusConnectionTest, CarriesTheAnnouncementThatTheSessionEnds) {
    world.session.console = ann;
    connect();
    client->call(begin());
    engine.tick();
    client->call(heartbeat(true));
    world.clock.advance(Seconds{60});
    engine.tick();
    EXPECT_THAT(world.opener.openings, IsEmpty());
    client->call(heartbeat(false));
    world.clock.advance(Seconds{10});
    engine.tick();
    EXPECT_EQ(world.opener.openings.size(), 1U);
}

TEST_F(BusConnectionTest, CarriesOutARequestThatWantsNoReply) {
    connect();
    const Message message = begin();
    ASSERT_GE(sd_bus_message_set_expect_reply(message.get(), 0), 0);
    ASSERT_GE(sd_bus_send(client->bus(), message.get(), nullptr), 0);
    client->settle();
    EXPECT_FALSE(engine.isIdle());
    EXPECT_THAT(client->replies(), IsEmpty());
}

// What HelperConnection finds wrong, and what no message may bring that far.
TEST_F(BusConnectionTest, RefusesBadArguments) {
    connect();
    const auto made = [this](const char* member, const char* types, auto... values) {
        Message message = client->request(member);
        EXPECT_GE(sd_bus_message_append(message.get(), types, values...), 0);
        return message;
    };
    const double infinity = std::numeric_limits<double>::infinity();
    world.calls.clear();
    const std::pair<Message, std::string> rows[] = {
        {begin(app, infinity, now), "until is not a finite number"},
        {begin(app, now, -infinity), "started is not a finite number"},
        {begin(app, now, 253402300800), "started is after the year 9999"},
        // Resolving it would take the system long.
        {begin(std::string(Limits::appPath + 1, '/'), now + 60, now),
         "appPath is longer than any path"},
        // In the words of sd-bus.
        {client->request("Begin"), ""},
        {made("Begin", "sds", app.c_str(), now, "soon"), ""},
        {made("Begin", "sddd", app.c_str(), now + 60, now, now), ""},
        {made("Heartbeat", "u", 1U), ""},
        {made("End", "b", 1), ""},
    };
    for (const auto& [message, problem] : rows) {
        EXPECT_THAT(client->call(message),
                    StartsWith("org.freedesktop.DBus.Error.InvalidArgs: " + problem));
    }
    EXPECT_THAT(world.calls.calls(), IsEmpty()) << "one reached the engine";
    EXPECT_EQ(client->call(begin(std::string(Limits::appPath, '/'), now + 60, now)), "b no");
}

TEST_F(BusConnectionTest, RefusesWhatItDoesNotKnow) {
    connect();
    const std::string unknown = "org.freedesktop.DBus.Error.Unknown";
    EXPECT_THAT(client->call("Nonsense"), StartsWith(unknown + "Method"));
    EXPECT_THAT(client->call("status"), StartsWith(unknown + "Method"));
    EXPECT_THAT(client->call(client->request("Status", "app.halvo.Other")),
                StartsWith(unknown + "Method"));
    EXPECT_THAT(client->call(client->request("Status", HelperBus::interface, "/other")),
                StartsWith(unknown + "Object"));
    EXPECT_EQ(client->call("Status"), idleStatus) << "it still serves";
}

TEST_F(BusConnectionTest, SaysWhatItOffers) {
    connect();
    const std::string text =
        client->call(client->request("Introspect", "org.freedesktop.DBus.Introspectable"));
    for (const char* part :
         {"<interface name=\"app.halvo.HalvoHelperXPC\">", "<method name=\"Begin\">",
          "type=\"s\" name=\"appPath\" direction=\"in\"",
          "type=\"d\" name=\"until\" direction=\"in\"",
          "type=\"d\" name=\"started\" direction=\"in\"", "<method name=\"Heartbeat\">",
          "type=\"b\" name=\"sessionEnding\" direction=\"in\"", "<method name=\"End\">",
          "type=\"b\" name=\"ok\" direction=\"out\"", "<method name=\"Status\">",
          "type=\"b\" name=\"holding\" direction=\"out\"",
          "type=\"ad\" name=\"until\" direction=\"out\"",
          "type=\"b\" name=\"locked\" direction=\"out\""}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
}

TEST_F(BusConnectionTest, TakesNoDescriptors) {
    connect();
    client->call("Status");
    EXPECT_EQ(sd_bus_can_send(client->bus(), 'h'), 0);
}

// A status request as it goes over the wire: a header without a body, its length of fields, and the
// fields object, interface and member, each from a multiple of 8 bytes on.
std::string statusRequest(char serial) {
    using namespace std::string_literals;
    return "l\1\0\1\0\0\0\0"s + serial + "\0\0\0\x57\0\0\0"s +
           "\1\1o\0\x11\0\0\0/app/halvo/Helper\0\0\0\0\0\0\0"s +
           "\2\1s\0\x18\0\0\0app.halvo.HalvoHelperXPC\0\0\0\0\0\0\0\0"s +
           "\3\1s\0\x06\0\0\0Status\0\0"s;
}

std::string authentication() {
    std::string hex;
    for (const char digit : std::to_string(getuid())) {
        hex += '3';
        hex += digit;
    }
    return '\0' + ("AUTH EXTERNAL " + hex + "\r\nBEGIN\r\n");
}

void writeAll(const Descriptor& socket, const std::string& bytes) {
    ASSERT_EQ(write(socket.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string readAvailable(const Descriptor& socket) {
    std::string bytes;
    std::array<char, 4096> buffer{};
    for (ssize_t count = 0; (count = read(socket.get(), buffer.data(), buffer.size())) > 0;) {
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return bytes;
}

// How many replies to a status there are in `bytes`, by their signatures.
int returnsIn(const std::string& bytes) {
    const std::string signature("\4badb\0", 6);
    EXPECT_TRUE(bytes.starts_with("OK ")) << bytes;
    int count = 0;
    for (std::size_t at = 0; (at = bytes.find(signature, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

TEST_F(BusConnectionTest, AnswersFirstRequestsThatComeWithTheEndOfTheAuthentication) {
    for (const char count : std::initializer_list<char>{1, 50}) {
        const Descriptor socket = serve();
        std::string bytes = authentication();
        for (char serial = 1; serial <= count; ++serial) {
            bytes += statusRequest(serial);
        }
        writeAll(socket, bytes);
        loop.run();
        EXPECT_EQ(returnsIn(readAvailable(socket)), count);
    }
}

TEST_F(BusConnectionTest, AnswersARequestThatComesInPieces) {
    const Descriptor socket = serve();
    for (const char byte : authentication() + statusRequest(1) + statusRequest(2)) {
        writeAll(socket, std::string(1, byte));
        loop.run();
    }
    EXPECT_EQ(returnsIn(readAvailable(socket)), 2);
    EXPECT_EQ(gone, 0);
}

TEST_F(BusConnectionTest, DisconnectsWhoTalksNonsense) {
    for (const std::string& nonsense :
         {std::string("GET / HTTP/1.1\r\n\r\n"), std::string(100'000, 'x'),
          authentication() + std::string(64, '\xFF')}) {
        gone = 0;
        const Descriptor socket = serve();
        writeAll(socket, nonsense);
        loop.run();
        EXPECT_EQ(gone, 1) << nonsense.substr(0, 40);
    }
}

// Without a word, in the middle of the authentication, with requests under way, and later.
TEST_F(BusConnectionTest, TellsOnceThatTheCallerWentAway) {
    for (const bool isHalfOpen : {false, true}) {
        for (const std::string& said :
             {std::string(), authentication().substr(0, 10), authentication() + statusRequest(1)}) {
            gone = 0;
            Descriptor socket = serve();
            writeAll(socket, said);
            if (!isHalfOpen) {
                loop.run();
                EXPECT_EQ(gone, 0);
                socket = Descriptor();
            } else {
                ASSERT_EQ(shutdown(socket.get(), SHUT_WR), 0);
            }
            loop.run();
            loop.run();
            EXPECT_EQ(gone, 1) << said;
        }
    }
}

TEST_F(BusConnectionTest, SurvivesACallerWhoDoesNotWaitForTheReplies) {
    connect();
    client->call("Status");
    client->send(begin());
    client->send(client->request("Status"));
    ASSERT_GE(sd_bus_flush(client->bus()), 0);
    client.reset();
    loop.run();
    EXPECT_EQ(gone, 1);
    EXPECT_FALSE(engine.isIdle()) << "what was asked is done";
}

TEST_F(BusConnectionTest, DisconnectsSilentlyWhenItIsDestroyed) {
    connect();
    client->call("Status");
    connection.reset();
    loop.run();
    EXPECT_EQ(gone, 0);
    client->settle();
    EXPECT_EQ(sd_bus_is_open(client->bus()), 0);
}

TEST_F(BusConnectionTest, DoesNotStartWithoutASocketOrMemory) {
    connection = makeConnection();
    EXPECT_FALSE(connection->start(Descriptor{}));
    Ends ends = nonBlockingEnds();
    connection = makeConnection();
    {
        const Fault once = Fault::returning(SystemCall::sd_bus_start, -ENOMEM);
        EXPECT_FALSE(connection->start(std::move(ends.server)));
    }
    connection.reset();
    loop.run();
    EXPECT_EQ(gone, 0);
    char byte = 0;
    EXPECT_EQ(read(ends.client.get(), &byte, 1), 0) << "its end stays open";
}

TEST_F(BusConnectionTest, LeavesNobodyWaitingWhereAnAllocationFails) {
    std::size_t number = 0;
    std::size_t made = 0;
    do {
        SCOPED_TRACE(++number);
        connect();
        ASSERT_EQ(client->call("End"), "b no");
        client->send(client->request("End"));
        ASSERT_GE(sd_bus_flush(client->bus()), 0);
        const std::size_t before = mallocsMade();
        failMalloc(number);
        loop.run();
        made = mallocsMade() - before;
        failMalloc(0);
        client->settle();
        // sd-bus gives an error for each reply that can no longer come.
        EXPECT_EQ(client->replies().size(), 2U);
    } while (made >= number);
    EXPECT_GT(number, 5U);
}

TEST_F(BusConnectionTest, TellsOfABeginThatWasTaken) {
    connect();
    client->call(begin());
    EXPECT_EQ(begun, 1);
    client->call(begin("/Applications/Other.app", now + 60, now));
    client->call(begin(app, now - 1, now));
    client->call(heartbeat());
    EXPECT_EQ(begun, 1);
}

TEST_F(BusConnectionTest, AnswersWhatHasComeAndTakesNothingMoreOnceItIsOutdated) {
    const Descriptor socket = serve();
    writeAll(socket, authentication() + statusRequest(1));
    loop.run();
    writeAll(socket, statusRequest(2) + statusRequest(3));
    connection->outdate();
    const std::string late = statusRequest(4);
    EXPECT_EQ(send(socket.get(), late.data(), late.size(), MSG_NOSIGNAL), -1) << "it goes nowhere";
    loop.run();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(returnsIn(readAvailable(socket)), 3);
}

TEST_F(BusConnectionTest, IsNotOutdatedBeforeItHasSaidAnything) {
    connect();
    client->call(heartbeat());
    connection->outdate();
    EXPECT_EQ(client->call(heartbeat()), "b no");
    EXPECT_EQ(gone, 0);
}

TEST_F(BusConnectionTest, DisconnectsWhoDoesNotReadTheReplies) {
    Ends ends = nonBlockingEnds();
    const Descriptor sameSocket(fcntl(ends.server.get(), F_DUPFD_CLOEXEC, 0));
    connection = makeConnection();
    ASSERT_TRUE(connection->start(std::move(ends.server)));
    // What the kernel keeps for a reader comes on top of the bound: make that little.
    const int little = 1;
    ASSERT_EQ(setsockopt(sameSocket.get(), SOL_SOCKET, SO_SNDBUF, &little, sizeof little), 0);
    client = std::make_unique<BusClient>(std::move(ends.client), loop);
    client->call("Status");
    std::size_t sent = 0;
    while (gone == 0 && sent < 10'000) {
        // Also of what sd-bus answers by itself.
        const Message message = client->request(sent % 2 == 0 ? "Status" : "Nonsense");
        // Without a cookie argument sd_bus_send(3) sets NO_REPLY_EXPECTED.
        std::uint64_t number = 0;
        ASSERT_GE(sd_bus_send(client->bus(), message.get(), &number), 0);
        ASSERT_GE(sd_bus_flush(client->bus()), 0);
        ++sent;
        loop.run();
    }
    EXPECT_EQ(gone, 1);
    EXPECT_GT(sent, Limits::queuedReplies);
    EXPECT_LT(sent, Limits::queuedReplies + 40);
}

TEST_F(BusConnectionTest, KeepsWhoReadsHoweverMuchIsAsked) {
    connect();
    for (int turn = 0; turn < 100; ++turn) {
        for (std::size_t i = 0; i < Limits::queuedReplies; ++i) {
            client->send(client->request("Status"));
        }
        client->settle();
    }
    EXPECT_EQ(client->replies().size(), 100 * Limits::queuedReplies);
    EXPECT_EQ(gone, 0);
}

}  // namespace
}  // namespace halvo::testing
