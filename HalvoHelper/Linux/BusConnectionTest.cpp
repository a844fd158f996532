#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoHelper/Linux/BusConnection.hpp"
#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/ManualMainQueue.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint32_t ann = 501;

struct Ends {
    Descriptor server;
    Descriptor client;
};

Ends connectedEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// The main thread's event loop and the main queue, which here is another: the live one would stay
// with the process for good, and with its children.
class Loop {
  public:
    explicit Loop(ManualMainQueue& queue) : queue_(queue) {
        EXPECT_GE(sd_event_default(&loop_), 0);
    }

    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    ~Loop() { sd_event_unref(loop_); }

    // Lets both do all they can do without waiting, the queue before each event.
    void run() {
        do {
            queue_.runPending();
        } while (sd_event_run(loop_, 0) > 0);
    }

    // The same without the queue. Whether there was anything to do.
    bool runEvents() {
        bool moved = false;
        while (sd_event_run(loop_, 0) > 0) {
            moved = true;
        }
        return moved;
    }

  private:
    sd_event* loop_ = nullptr;
    ManualMainQueue& queue_;
};

struct MessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using Message = std::unique_ptr<sd_bus_message, MessageRelease>;

// A reply, for comparisons.
struct Reply {
    // Of the error, when it is one.
    std::string errorName;
    std::string errorMessage;
    std::string signature;
    // The booleans, and the members of arrays of doubles, in order.
    std::vector<bool> flags;
    std::vector<double> numbers;
    std::string text;
};

Reply decoded(sd_bus_message* message) {
    Reply reply;
    if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
        reply.errorName = error->name;
        reply.errorMessage = error->message;
        return reply;
    }
    reply.signature = sd_bus_message_get_signature(message, 1);
    for (const char* type = reply.signature.c_str(); *type != '\0'; ++type) {
        if (*type == 'b') {
            int flag = 0;
            EXPECT_GT(sd_bus_message_read(message, "b", &flag), 0);
            reply.flags.push_back(flag != 0);
        } else if (*type == 's') {
            const char* text = nullptr;
            EXPECT_GT(sd_bus_message_read(message, "s", &text), 0);
            reply.text = text;
        } else if (*type == 'a') {
            const void* data = nullptr;
            std::size_t size = 0;
            EXPECT_GE(sd_bus_message_read_array(message, 'd', &data, &size), 0);
            reply.numbers.resize(size / sizeof(double));
            if (size > 0) {
                std::memcpy(reply.numbers.data(), data, size);
            }
            ++type;
        }
    }
    return reply;
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

    // The reply to `message`.
    Reply call(const Message& message) {
        const std::size_t before = replies_.size();
        send(message);
        settle();
        if (replies_.size() != before + 1) {
            ADD_FAILURE() << replies_.size() - before << " replies";
            return {};
        }
        return replies_.back();
    }

    [[nodiscard]] const std::vector<Reply>& replies() const { return replies_; }

  private:
    sd_bus* bus_ = nullptr;
    Loop& loop_;
    std::vector<Reply> replies_;
};

class BusConnectionTest : public ::testing::Test {
  protected:
    ~BusConnectionTest() override {
        connection.reset();
        client.reset();
    }

    std::unique_ptr<BusConnection> makeConnection() {
        return std::make_unique<BusConnection>(
            std::make_unique<HelperConnection>(HelperPeer{ann, app}, queue, engine),
            [this] { ++gone; }, [this] { ++begun; });
    }

    // Serves one end of a pair, and gives the other.
    Descriptor serve() {
        Ends ends = connectedEnds();
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
    ManualMainQueue queue{world.clock};
    Loop loop{queue};
    const double now = secondsSince1970(world.clock.now().wall);
    int gone = 0;
    int begun = 0;
    std::unique_ptr<BusConnection> connection;
    std::unique_ptr<BusClient> client;
};

// ----------------------------------------------------------------------------------- the requests

TEST_F(BusConnectionTest, CarriesTheFourRequests) {
    connect();
    const Reply held = client->call(begin());
    EXPECT_EQ(held.signature, "b");
    EXPECT_THAT(held.flags, ElementsAre(true));
    EXPECT_THAT(client->call(heartbeat()).flags, ElementsAre(true));
    EXPECT_THAT(client->call(client->request("Status")).flags, ElementsAre(true, true));
    const Reply ended = client->call(client->request("End"));
    EXPECT_EQ(ended.signature, "b");
    EXPECT_THAT(ended.flags, ElementsAre(true));
    EXPECT_THAT(client->call(client->request("End")).flags, ElementsAre(false));
    EXPECT_THAT(client->call(heartbeat()).flags, ElementsAre(false));
    EXPECT_THAT(client->call(begin(app, now - 1, now)).flags, ElementsAre(false));
}

TEST_F(BusConnectionTest, CarriesTheArgumentsOfABegin) {
    connect();
    client->call(begin(app, now + 0.1, now - 1e-3));
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

TEST_F(BusConnectionTest, CarriesAStatusWithAnEndAsAnArrayOfOne) {
    connect();
    client->call(begin());
    const Reply status = client->call(client->request("Status"));
    EXPECT_EQ(status.signature, "badb");
    EXPECT_THAT(status.flags, ElementsAre(true, true));
    EXPECT_THAT(status.numbers, ElementsAre(now + 3600.25));
}

TEST_F(BusConnectionTest, CarriesAStatusWithoutAnEndAsAnEmptyArray) {
    connect();
    const Reply status = client->call(client->request("Status"));
    EXPECT_EQ(status.signature, "badb");
    EXPECT_THAT(status.flags, ElementsAre(false, false));
    EXPECT_THAT(status.numbers, IsEmpty());
}

TEST_F(BusConnectionTest, CarriesOutARequestThatWantsNoReply) {
    connect();
    const Message message = begin();
    ASSERT_GE(sd_bus_message_set_expect_reply(message.get(), 0), 0);
    ASSERT_GE(sd_bus_send(client->bus(), message.get(), nullptr), 0);
    client->settle();
    EXPECT_FALSE(engine.isIdle());
    EXPECT_THAT(client->call(client->request("Status")).flags, ElementsAre(true, true));
    EXPECT_EQ(client->replies().size(), 1U);
}

TEST_F(BusConnectionTest, AnswersRequestsInTheirOrder) {
    connect();
    client->send(client->request("Status"));
    client->send(begin());
    client->send(client->request("Status"));
    client->send(client->request("End"));
    client->send(client->request("Status"));
    client->settle();
    std::vector<std::vector<bool>> flags;
    for (const Reply& reply : client->replies()) {
        flags.push_back(reply.flags);
    }
    using Flags = std::vector<bool>;
    EXPECT_THAT(flags, ElementsAre(Flags{false, false}, Flags{true}, Flags{true, true}, Flags{true},
                                   Flags{false, false}));
}

// ------------------------------------------------------------------------------------- the errors

constexpr const char* invalid = "org.freedesktop.DBus.Error.InvalidArgs";

TEST_F(BusConnectionTest, RefusesABadDateByName) {
    connect();
    const std::string notFinite = " is not a finite number";
    for (const double date :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        Reply reply = client->call(begin(app, date, now));
        EXPECT_EQ(reply.errorName, invalid);
        EXPECT_EQ(reply.errorMessage, "until" + notFinite);
        reply = client->call(begin(app, now, date));
        EXPECT_EQ(reply.errorName, invalid);
        EXPECT_EQ(reply.errorMessage, "started" + notFinite);
    }
    const Reply late = client->call(begin(app, now, 253402300800));
    EXPECT_EQ(late.errorName, invalid);
    EXPECT_EQ(late.errorMessage, "started is after the year 9999");
    EXPECT_TRUE(engine.isIdle());
}

TEST_F(BusConnectionTest, RefusesAPathThatIsTooLongForOne) {
    connect();
    world.calls.clear();
    // Resolving it would take the system long.
    const Reply reply = client->call(begin(std::string(Limits::appPath + 1, '/'), now + 60, now));
    EXPECT_EQ(reply.errorName, invalid);
    EXPECT_EQ(reply.errorMessage, "appPath is longer than any path");
    EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it reached the engine";
    EXPECT_EQ(client->call(begin(std::string(Limits::appPath, '/'), now + 60, now)).errorName, "");
}

TEST_F(BusConnectionTest, RefusesTheWrongArgumentsByName) {
    connect();
    world.calls.clear();
    Reply reply = client->call(client->request("Begin"));
    EXPECT_EQ(reply.errorName, invalid);
    EXPECT_EQ(reply.errorMessage, "appPath is missing: Begin(s appPath, d until, d started)");

    Message message = client->request("Begin");
    sd_bus_message_append(message.get(), "sds", app.c_str(), now, "soon");
    reply = client->call(message);
    EXPECT_EQ(reply.errorName, invalid);
    EXPECT_THAT(reply.errorMessage, HasSubstr("started has the wrong type"));

    message = client->request("Heartbeat");
    sd_bus_message_append(message.get(), "u", 1U);
    reply = client->call(message);
    EXPECT_EQ(reply.errorName, invalid);
    EXPECT_THAT(reply.errorMessage, HasSubstr("sessionEnding has the wrong type"));

    message = client->request("End");
    sd_bus_message_append(message.get(), "b", 1);
    reply = client->call(message);
    EXPECT_EQ(reply.errorName, invalid);
    EXPECT_THAT(reply.errorMessage, HasSubstr("more arguments than End() takes"));
    EXPECT_THAT(world.calls.calls(), IsEmpty()) << "it reached the engine";
}

TEST_F(BusConnectionTest, RefusesWhatItDoesNotKnow) {
    connect();
    constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
    EXPECT_EQ(client->call(client->request("Nonsense")).errorName, unknownMethod);
    EXPECT_EQ(client->call(client->request("status")).errorName, unknownMethod);
    EXPECT_EQ(client->call(client->request("Status", "app.halvo.Other")).errorName, unknownMethod);
    EXPECT_EQ(client->call(client->request("Status", HelperBus::interface, "/other")).errorName,
              "org.freedesktop.DBus.Error.UnknownObject");
    // And still serves.
    EXPECT_EQ(client->call(client->request("Status")).signature, "badb");
}

TEST_F(BusConnectionTest, SaysWhatItOffers) {
    connect();
    const std::string text =
        client->call(client->request("Introspect", "org.freedesktop.DBus.Introspectable")).text;
    EXPECT_THAT(text, HasSubstr("<interface name=\"app.halvo.HalvoHelperXPC\">"));
    for (const char* name : {"Begin", "Heartbeat", "End", "Status"}) {
        EXPECT_THAT(text, HasSubstr("<method name=\"" + std::string(name) + "\">"));
    }
    for (const char* argument : {"type=\"s\" name=\"appPath\" direction=\"in\"",
                                 "type=\"d\" name=\"until\" direction=\"in\"",
                                 "type=\"d\" name=\"started\" direction=\"in\"",
                                 "type=\"b\" name=\"sessionEnding\" direction=\"in\"",
                                 "type=\"b\" name=\"ok\" direction=\"out\"",
                                 "type=\"b\" name=\"holding\" direction=\"out\"",
                                 "type=\"ad\" name=\"until\" direction=\"out\"",
                                 "type=\"b\" name=\"locked\" direction=\"out\""}) {
        EXPECT_THAT(text, HasSubstr(argument));
    }
}

TEST_F(BusConnectionTest, TakesNoDescriptors) {
    connect();
    client->call(client->request("Status"));
    EXPECT_EQ(sd_bus_can_send(client->bus(), 'h'), 0);
}

// ------------------------------------------------------------------- messages, written by hand

void pad(std::string& bytes, std::size_t alignment) {
    bytes.append((alignment - bytes.size() % alignment) % alignment, '\0');
}

void appendNumber(std::string& bytes, std::uint32_t number) {
    const auto raw = std::bit_cast<std::array<char, 4>>(number);
    bytes.append(raw.data(), raw.size());
}

void appendField(std::string& fields, char code, char type, const std::string& text) {
    pad(fields, 8);
    fields += {code, 1, type, '\0'};
    appendNumber(fields, static_cast<std::uint32_t>(text.size()));
    fields += text + '\0';
}

constexpr char byteOrder = std::endian::native == std::endian::little ? 'l' : 'B';

// A status request as it goes over the wire.
std::string statusRequest(std::uint32_t serial) {
    std::string fields;
    appendField(fields, 1, 'o', HelperBus::object);
    appendField(fields, 2, 's', HelperBus::interface);
    appendField(fields, 3, 's', "Status");
    std::string bytes{byteOrder, 1, 0, 1};
    appendNumber(bytes, 0);
    appendNumber(bytes, serial);
    appendNumber(bytes, static_cast<std::uint32_t>(fields.size()));
    bytes += fields;
    pad(bytes, 8);
    return bytes;
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

std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

// How many method returns there are in `bytes`, after the line that ends the authentication.
int returnsIn(std::string bytes) {
    const std::size_t line = bytes.find("\r\n");
    EXPECT_TRUE(bytes.starts_with("OK ")) << bytes;
    bytes.erase(0, line == std::string::npos ? line : line + 2);
    int count = 0;
    while (bytes.size() >= 16) {
        EXPECT_EQ(bytes[0], byteOrder);
        EXPECT_EQ(bytes[1], 2) << "no method return";
        const std::size_t fields = (numberAt(bytes, 12) + 7) / 8 * 8;
        bytes.erase(0, 16 + fields + numberAt(bytes, 4));
        ++count;
    }
    EXPECT_EQ(bytes, "");
    return count;
}

TEST_F(BusConnectionTest, AnswersAFirstRequestThatComesWithTheEndOfTheAuthentication) {
    const Descriptor socket = serve();
    writeAll(socket, authentication() + statusRequest(1));
    loop.run();
    EXPECT_EQ(returnsIn(readAvailable(socket)), 1);
}

TEST_F(BusConnectionTest, AnswersManyFirstRequestsThatComeAtOnce) {
    const Descriptor socket = serve();
    std::string bytes = authentication();
    for (std::uint32_t serial = 1; serial <= 50; ++serial) {
        bytes += statusRequest(serial);
    }
    writeAll(socket, bytes);
    loop.run();
    EXPECT_EQ(returnsIn(readAvailable(socket)), 50);
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

TEST_F(BusConnectionTest, AnswersWhatCameBeforeTheEndOfTheConversation) {
    Descriptor socket = serve();
    writeAll(socket, authentication() + statusRequest(1));
    ASSERT_EQ(shutdown(socket.get(), SHUT_WR), 0);
    loop.run();
    EXPECT_EQ(gone, 1);
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

// ---------------------------------------------------------------------------------------- the end

TEST_F(BusConnectionTest, TellsOnceThatTheCallerWentAway) {
    connect();
    client->call(client->request("Status"));
    EXPECT_EQ(gone, 0);
    client.reset();
    loop.run();
    loop.run();
    EXPECT_EQ(gone, 1);
}

TEST_F(BusConnectionTest, TellsThatACallerWentAwayWithoutAWord) {
    Descriptor socket = serve();
    loop.run();
    EXPECT_EQ(gone, 0);
    socket = Descriptor();
    loop.run();
    EXPECT_EQ(gone, 1);
}

TEST_F(BusConnectionTest, TellsThatACallerWentAwayInTheMiddleOfTheAuthentication) {
    Descriptor socket = serve();
    writeAll(socket, authentication().substr(0, 10));
    loop.run();
    EXPECT_EQ(gone, 0);
    socket = Descriptor();
    loop.run();
    EXPECT_EQ(gone, 1);
}

TEST_F(BusConnectionTest, SurvivesACallerWhoDoesNotWaitForTheReplies) {
    connect();
    client->call(client->request("Status"));
    client->send(begin());
    client->send(client->request("Status"));
    ASSERT_GE(sd_bus_flush(client->bus()), 0);
    client.reset();
    loop.run();
    EXPECT_EQ(gone, 1);
    EXPECT_FALSE(engine.isIdle()) << "what was asked is done";
}

TEST_F(BusConnectionTest, CanGoWhileRequestsAreUnderWay) {
    connect();
    client->call(client->request("Status"));
    client->send(begin());
    client->send(heartbeat());
    client->send(client->request("Status"));
    ASSERT_GE(sd_bus_flush(client->bus()), 0);
    // Takes the requests in and answers none: the queue's turn comes after.
    ASSERT_TRUE(loop.runEvents());
    ASSERT_TRUE(engine.isIdle());
    connection.reset();
    loop.run();
    EXPECT_FALSE(engine.isIdle());
    EXPECT_EQ(begun, 1);
    EXPECT_EQ(gone, 0) << "it went by itself";
}

TEST_F(BusConnectionTest, DisconnectsSilentlyWhenItIsDestroyed) {
    connect();
    client->call(client->request("Status"));
    connection.reset();
    loop.run();
    EXPECT_EQ(gone, 0);
    client->settle();
    EXPECT_EQ(sd_bus_is_open(client->bus()), 0);
}

TEST_F(BusConnectionTest, CanGoBeforeItHasStarted) {
    connection = makeConnection();
    connection.reset();
    EXPECT_EQ(gone, 0);
}

TEST_F(BusConnectionTest, DoesNotStartWithoutASocket) {
    connection = makeConnection();
    EXPECT_FALSE(connection->start(Descriptor{}));
    connection.reset();
    loop.run();
    EXPECT_EQ(gone, 0);
}

TEST_F(BusConnectionTest, DoesNotStartWithoutMemory) {
    Ends ends = connectedEnds();
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

TEST_F(BusConnectionTest, LeavesOtherConnectionsAloneWhenItEnds) {
    connect();
    const auto first = std::move(connection);
    const auto firstClient = std::move(client);
    connect();
    client->call(client->request("Status"));
    client.reset();
    loop.run();
    EXPECT_EQ(gone, 1);
    connection.reset();
    EXPECT_EQ(firstClient->call(firstClient->request("Status")).signature, "badb");
}

// ---------------------------------------------------------------- what a status said is outdated

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
    connect();
    client->call(client->request("Status"));
    client->send(client->request("Status"));
    client->send(heartbeat());
    ASSERT_GE(sd_bus_flush(client->bus()), 0);
    connection->outdate();
    EXPECT_LT(sd_bus_send(client->bus(), begin().get(), nullptr), 0) << "that goes nowhere";
    loop.run();
    EXPECT_EQ(gone, 1);
    EXPECT_TRUE(engine.isIdle());
}

TEST_F(BusConnectionTest, DeliversTheRepliesBeforeItEndsForBeingOutdated) {
    const Descriptor socket = serve();
    writeAll(socket, authentication() + statusRequest(1));
    loop.run();
    writeAll(socket, statusRequest(2) + statusRequest(3));
    connection->outdate();
    loop.run();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(returnsIn(readAvailable(socket)), 3);
}

TEST_F(BusConnectionTest, IsNotOutdatedBeforeItHasSaidAnything) {
    connect();
    client->call(heartbeat());
    connection->outdate();
    EXPECT_THAT(client->call(heartbeat()).flags, ElementsAre(false));
    EXPECT_EQ(gone, 0);
}

// ------------------------------------------------------------------------------------- the bound

// Sends status requests and reads no reply. How many it took until the helper had enough; at most
// `most`.
std::size_t floodWithoutReading(BusClient& client, Loop& loop, const int& gone, std::size_t most) {
    for (std::size_t sent = 0; sent < most; ++sent) {
        const Message message = client.request("Status");
        // With nobody who wants to know its number no reply would be asked for: sd_bus_send(3).
        std::uint64_t number = 0;
        if (sd_bus_send(client.bus(), message.get(), &number) < 0 ||
            sd_bus_flush(client.bus()) < 0) {
            return sent;
        }
        loop.run();
        if (gone > 0) {
            return sent + 1;
        }
    }
    return most;
}

TEST_F(BusConnectionTest, DisconnectsWhoDoesNotReadTheReplies) {
    Ends ends = connectedEnds();
    const Descriptor sameSocket(fcntl(ends.server.get(), F_DUPFD_CLOEXEC, 0));
    connection = makeConnection();
    ASSERT_TRUE(connection->start(std::move(ends.server)));
    // What the kernel keeps for a reader comes on top of the bound: make that little.
    const int little = 1;
    ASSERT_EQ(setsockopt(sameSocket.get(), SOL_SOCKET, SO_SNDBUF, &little, sizeof little), 0);
    client = std::make_unique<BusClient>(std::move(ends.client), loop);
    client->call(client->request("Status"));
    const std::size_t sent = floodWithoutReading(*client, loop, gone, 10'000);
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
