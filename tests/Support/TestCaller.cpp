// A caller of the helper for tests and the demo: asks what the app asks, and misbehaves in every
// way that a caller can. Tests install it into the app's bundle, beside the app and with its group.

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoClient/BusCall.hpp"
#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/OwnBundle.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

constexpr const char* help =
    R"(Usage: TestCaller [--socket PATH] WORD [ARGUMENTS]

Calls the helper of the app bundle that this program lies in, or the one that
listens on PATH. For tests: it does what no app does.

What an app asks
  status                           "status holding=true until=1732199527.000000 locked=true"
  begin APP UNTIL STARTED          dates in seconds from now; "." is the own bundle
  begin-at APP UNTIL STARTED       dates in seconds since 1970: 1e9, nan, inf, -1e300
  heartbeat [--ending]             alive, or the session is ending
  end                              let the commitment go
  introspect                       what the service says that it offers
  raw METHOD [SIGNATURE ARGS...]   any call, METHOD or INTERFACE.METHOD; types ybnqiuxtdsog
  bench N                          N status calls: "bench n=9 median_us=95 p90_us=120"

What no app does
  run                              lives without a connection until it is killed
  hold N                           authenticates N connections, "holding N"; keeps them
  stall N                          opens N connections, sends nothing, "stalling N"; keeps them
  half                             authenticates, sends half a message, "half sent"; keeps it
  huge MEGABYTES                   a begin with a path of that size
  flood COUNT                      COUNT status calls, reads no reply: "flood sent=9 disconnected=false"
  garbage                          random bytes instead of authentication
  connect-then-exec PROGRAM ARGS   connects, then becomes PROGRAM with the connection as descriptor 3
  use-fd N WORD                    status, heartbeat or end on a connection that is already there

What is kept is kept until standard input ends; "closed I after=S" says when the
helper closes one.

Exit status: 0 reply true, 1 reply false, 64 wrong words, 65 rejected ("rejected
NAME: MESSAGE"), 69 not running ("not-running"), 71 no resources, 75 timed out
("timed-out"), 76 disconnected after authentication ("disconnected"), 77 refused
("refused") or all that was kept is closed, 78 in no bundle and no --socket.
)";

constexpr int exitDisconnected = EX_PROTOCOL;
// For calls that take the helper long on purpose.
constexpr Seconds patience{60};

using Words = std::vector<std::string>;

// Thrown by parsing alone, and caught in main().
struct UsageError {
    std::string message;
};

[[noreturn]] void usage(const std::string& message) { throw UsageError{message}; }

// One line for whoever reads it by program, out at once.
void print(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

const char* text(bool value) { return value ? "true" : "false"; }

std::string quoted(std::string_view word) { return std::string("'").append(word).append("'"); }

double number(const std::string& word) {
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    if (word.empty() || *end != '\0') {
        usage(quoted(word) + " is no number");
    }
    return value;
}

template <class Integer>
Integer integer(const std::string& word) {
    Integer value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc{} || end != word.data() + word.size()) {
        usage(quoted(word) + " is no whole number that fits");
    }
    return value;
}

std::size_t count(const std::string& word) {
    const auto value = integer<std::size_t>(word);
    if (value == 0) {
        usage("at least 1 is needed");
    }
    return value;
}

// How it ended, for those that do not get a reply.

struct Report {
    std::string operator()(const HelperFailures::NotRunning&) const { return "not-running"; }

    std::string operator()(const HelperFailures::Refused&) const { return "refused"; }

    std::string operator()(const HelperFailures::TimedOut&) const { return "timed-out"; }

    std::string operator()(const HelperFailures::Rejected& failure) const {
        return "rejected " + failure.name + ": " + failure.message;
    }

    std::string operator()(const HelperFailures::NoResources&) const { return "no-resources"; }
};

int report(const HelperFailure& failure) {
    print(std::visit(Report{}, failure));
    return exitStatus(failure);
}

int report(BusFault fault) {
    switch (fault) {
        case BusFault::Unauthenticated:
            return report(HelperFailures::Refused{});
        case BusFault::TimedOut:
            return report(HelperFailures::TimedOut{});
        case BusFault::Broken:
            break;
    }
    print("disconnected");
    return exitDisconnected;
}

int reportErrno(int code) {
    switch (code) {
        case ETIMEDOUT:
            return report(HelperFailures::TimedOut{});
        case EACCES:
        case EPERM:
        case EPIPE:
        case ECONNRESET:
            return report(HelperFailures::Refused{});
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            return report(HelperFailures::NoResources{code});
        default:
            return report(HelperFailures::NotRunning{code});
    }
}

int report(const char* word, const HelperClient::Result<bool>& answer) {
    if (!answer) {
        return report(answer.error());
    }
    print(std::string(word) + " " + text(*answer));
    return *answer ? 0 : 1;
}

// Raw connections.

void sendAll(int socket, std::string_view bytes, int& code) {
    code = 0;
    while (!bytes.empty() && code == 0) {
        const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        pollfd waiting{socket, POLLOUT, 0};
        constexpr int tenSeconds = 10'000;
        if (errno == EAGAIN) {
            code = poll(&waiting, 1, tenSeconds) > 0 ? 0 : ETIMEDOUT;
        } else if (errno != EINTR) {
            code = errno;
        }
    }
}

// Gives 0 or the errno; ECONNRESET when the other side closes.
int readLine(int socket, std::string& line, Deadline deadline) {
    line.clear();
    while (!line.ends_with("\r\n")) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Deadline::clock::now());
        pollfd waiting{socket, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) <= 0) {
            return ETIMEDOUT;
        }
        char next = 0;
        const ssize_t got = recv(socket, &next, 1, 0);
        if (got == 0) {
            return ECONNRESET;
        }
        if (got < 0) {
            return errno;
        }
        line += next;
    }
    return 0;
}

// Authenticates as a client that sends nothing early. Gives 0 or the errno.
int authenticate(int socket) {
    const std::string uid = std::to_string(geteuid());
    std::ostringstream hello;
    hello << '\0' << "AUTH EXTERNAL " << std::hex;
    for (const char digit : uid) {
        hello << int{digit};
    }
    hello << "\r\n";
    int code = 0;
    sendAll(socket, hello.str(), code);
    std::string line;
    if (code == 0) {
        code = readLine(socket, line, deadlineAfter(HelperClient::usualLimit));
    }
    if (code != 0) {
        return code;
    }
    if (!line.starts_with("OK ")) {
        return EACCES;
    }
    sendAll(socket, "BEGIN\r\n", code);
    return code;
}

std::expected<Descriptor, int> connectOnce(const std::string& path) {
    return connectAsApp(path, deadlineAfter(HelperClient::usualLimit));
}

std::expected<Descriptor, int> connectAndAuthenticate(const std::string& path) {
    auto socket = connectOnce(path);
    if (socket) {
        if (const int code = authenticate(socket->get()); code != 0) {
            return std::unexpected(code);
        }
    }
    return socket;
}

// Keeps `sockets` open until standard input ends or all are closed by the other side.
int keep(const std::vector<Descriptor>& sockets) {
    const auto before = std::chrono::steady_clock::now();
    std::vector<pollfd> waiting{{STDIN_FILENO, POLLIN, 0}};
    for (const Descriptor& socket : sockets) {
        waiting.push_back({socket.get(), POLLRDHUP, 0});
    }
    std::size_t open = sockets.size();
    while (open > 0) {
        if (poll(waiting.data(), waiting.size(), -1) < 0) {
            continue;
        }
        for (std::size_t i = 1; i < waiting.size(); ++i) {
            if (waiting[i].fd >= 0 && waiting[i].revents != 0) {
                waiting[i].fd = -1;
                --open;
                const Seconds after = std::chrono::steady_clock::now() - before;
                std::printf("closed %zu after=%.1f\n", i, after.count());
                std::fflush(stdout);
            }
        }
        std::array<char, 256> input{};
        if (waiting[0].revents != 0 && read(STDIN_FILENO, input.data(), input.size()) <= 0) {
            return 0;
        }
    }
    return EX_NOPERM;
}

void allowManyDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int openMany(const std::string& path, std::size_t wanted, const char* word,
             std::expected<Descriptor, int> (*open)(const std::string&)) {
    allowManyDescriptors();
    std::vector<Descriptor> sockets;
    int code = 0;
    while (sockets.size() < wanted && code == 0) {
        auto socket = open(path);
        if (socket) {
            sockets.push_back(std::move(*socket));
        } else {
            code = socket.error();
        }
    }
    if (sockets.empty()) {
        return reportErrno(code);
    }
    print(std::string(word) + " " + std::to_string(sockets.size()));
    if (code != 0) {
        std::fprintf(stderr, "TestCaller: the next one: %s\n",
                     std::generic_category().message(code).c_str());
    }
    return keep(sockets);
}

// Messages made by hand, for what no library sends. All numbers are little endian.

void put32(std::string& bytes, std::uint32_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
}

void pad8(std::string& bytes) { bytes.resize((bytes.size() + 7) / 8 * 8); }

void putField(std::string& bytes, char code, char type, std::string_view value) {
    pad8(bytes);
    bytes += code;
    bytes += {'\1', type, '\0'};
    put32(bytes, static_cast<std::uint32_t>(value.size()));
    bytes += value;
    bytes += '\0';
}

// A call of a method without arguments, as it goes over the wire.
std::string callMessage(std::string_view member, std::uint32_t serial, std::uint32_t bodySize) {
    constexpr std::size_t fixedPart = 16;
    std::string bytes{'l', 1, 0, 1};
    put32(bytes, bodySize);
    put32(bytes, serial);
    put32(bytes, 0);
    putField(bytes, 1, 'o', HelperBus::object);
    putField(bytes, 2, 's', HelperBus::interface);
    putField(bytes, 3, 's', member);
    std::string size;
    put32(size, static_cast<std::uint32_t>(bytes.size() - fixedPart));
    bytes.replace(fixedPart - size.size(), size.size(), size);
    pad8(bytes);
    return bytes;
}

int half(const std::string& path) {
    auto socket = connectAndAuthenticate(path);
    if (!socket) {
        return reportErrno(socket.error());
    }
    constexpr std::uint32_t promised = 100;
    const std::string message = callMessage("Status", 1, promised) + "not a hundred";
    int code = 0;
    sendAll(socket->get(), message, code);
    if (code != 0) {
        return report(BusFault::Broken);
    }
    print("half sent");
    std::vector<Descriptor> sockets;
    sockets.push_back(std::move(*socket));
    return keep(sockets);
}

bool isClosed(int socket) {
    pollfd waiting{socket, POLLRDHUP, 0};
    constexpr int oneSecond = 1000;
    return poll(&waiting, 1, oneSecond) > 0;
}

int flood(const std::string& path, std::size_t calls) {
    auto socket = connectAndAuthenticate(path);
    if (!socket) {
        return reportErrno(socket.error());
    }
    std::size_t sent = 0;
    int code = 0;
    for (; sent < calls && code == 0; ++sent) {
        sendAll(socket->get(), callMessage("Status", static_cast<std::uint32_t>(sent + 1), 0),
                code);
    }
    const bool disconnected = (code != 0 && code != ETIMEDOUT) || isClosed(socket->get());
    print("flood sent=" + std::to_string(sent) + " disconnected=" + text(disconnected) +
          (code == ETIMEDOUT ? " stuck=true" : ""));
    return disconnected ? exitDisconnected : 0;
}

int garbage(const std::string& path) {
    auto socket = connectOnce(path);
    if (!socket) {
        return reportErrno(socket.error());
    }
    std::mt19937 random(std::random_device{}());
    std::string bytes(4096, '\0');
    std::ranges::generate(bytes, [&random] { return static_cast<char>(random()); });
    int code = 0;
    sendAll(socket->get(), bytes, code);
    std::string line;
    while (code == 0) {
        code = readLine(socket->get(), line, deadlineAfter(patience));
    }
    return reportErrno(code);
}

int connectThenExec(const std::string& path, const Words& words) {
    auto socket = connectOnce(path);
    if (!socket) {
        return reportErrno(socket.error());
    }
    constexpr int number = 3;
    // dup2(2) takes FD_CLOEXEC off the copy, but does nothing to a descriptor that is there
    // already.
    if (socket->get() == number ? fcntl(number, F_SETFD, 0) != 0
                                : dup2(socket->get(), number) != number) {
        return reportErrno(errno);
    }
    fcntl(number, F_SETFL, 0);
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        // execvp(3) changes none of them.
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "TestCaller: %s: %s\n", arguments[0],
                 std::generic_category().message(errno).c_str());
    return EX_UNAVAILABLE;
}

// Calls over sd-bus that the app's client does not offer.

using Append = std::function<int(sd_bus_message* request)>;

// Connects, calls, and gives the reply, or the exit status once the failure is reported.
std::expected<BusMessage, int> callOn(sd_bus& bus, const std::string& interface,
                                      const std::string& member, const Append& append) {
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_call(&bus, &raw, nullptr, HelperBus::object,
                                                interface.c_str(), member.c_str());
    const BusMessage request(raw);
    if (result >= 0) {
        result = append(raw);
    }
    if (result < 0) {
        usage("no such message can be made: " + std::generic_category().message(-result));
    }
    auto reply = callWithin(deadlineAfter(patience), bus, *request);
    if (!reply) {
        return std::unexpected(report(reply.error()));
    }
    if (const sd_bus_error* error = sd_bus_message_get_error(reply->get())) {
        return std::unexpected(report(HelperFailures::Rejected{
            error->name, error->message == nullptr ? "" : error->message}));
    }
    return std::move(*reply);
}

// The bus must outlive what is read from its messages.
struct Answered {
    BusHandle bus;
    BusMessage reply;
};

std::expected<Answered, int> call(Descriptor socket, const std::string& interface,
                                  const std::string& member, const Append& append) {
    auto bus = openBus(std::move(socket));
    if (!bus) {
        return std::unexpected(reportErrno(bus.error()));
    }
    auto reply = callOn(**bus, interface, member, append);
    if (!reply) {
        return std::unexpected(reply.error());
    }
    return Answered{std::move(*bus), std::move(*reply)};
}

std::expected<Answered, int> call(const std::string& path, const std::string& interface,
                                  const std::string& member, const Append& append) {
    auto socket = connectOnce(path);
    if (!socket) {
        return std::unexpected(reportErrno(socket.error()));
    }
    return call(std::move(*socket), interface, member, append);
}

int nothing(sd_bus_message*) { return 0; }

int appendOne(sd_bus_message* request, char type, const std::string& word) {
    switch (type) {
        case 'y':
            return sd_bus_message_append(request, "y", integer<std::uint8_t>(word));
        case 'b':
            return sd_bus_message_append(request, "b", word == "true" ? 1 : 0);
        case 'n':
            return sd_bus_message_append(request, "n", integer<std::int16_t>(word));
        case 'q':
            return sd_bus_message_append(request, "q", integer<std::uint16_t>(word));
        case 'i':
            return sd_bus_message_append(request, "i", integer<std::int32_t>(word));
        case 'u':
            return sd_bus_message_append(request, "u", integer<std::uint32_t>(word));
        case 'x':
            return sd_bus_message_append(request, "x", integer<std::int64_t>(word));
        case 't':
            return sd_bus_message_append(request, "t", integer<std::uint64_t>(word));
        case 'd':
            return sd_bus_message_append(request, "d", number(word));
        case 's':
        case 'o':
        case 'g':
            return sd_bus_message_append_basic(request, type, word.c_str());
        default:
            usage("type " + quoted({&type, 1}) + " is not supported");
    }
}

std::string nextValue(sd_bus_message* reply, char type) {
    union {
        std::uint8_t y;
        std::int16_t n;
        std::uint16_t q;
        std::int32_t i;
        std::uint32_t u;
        std::int64_t x;
        std::uint64_t t;
        double d;
        const char* s;
    } value{};

    if (sd_bus_message_read_basic(reply, type, &value) <= 0) {
        return "?";
    }
    std::array<char, 64> decimal{};
    switch (type) {
        case 'y':
            return std::to_string(value.y);
        case 'b':
            return text(value.i != 0);
        case 'n':
            return std::to_string(value.n);
        case 'q':
            return std::to_string(value.q);
        case 'i':
            return std::to_string(value.i);
        case 'u':
            return std::to_string(value.u);
        case 'x':
            return std::to_string(value.x);
        case 't':
            return std::to_string(value.t);
        case 'd':
            std::snprintf(decimal.data(), decimal.size(), "%.6f", value.d);
            return decimal.data();
        default:
            return value.s;
    }
}

// Basic types and arrays of them.
std::string values(sd_bus_message* reply) {
    std::string line = sd_bus_message_get_signature(reply, 1);
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(reply, &type, &contents) > 0) {
        if (type != 'a') {
            line.append(" ").append(nextValue(reply, type));
            continue;
        }
        const char element = contents[0];
        if (sd_bus_message_enter_container(reply, 'a', contents) < 0) {
            break;
        }
        line += " [";
        while (sd_bus_message_at_end(reply, 0) == 0) {
            line.append(" ").append(nextValue(reply, element));
        }
        line += " ]";
        sd_bus_message_exit_container(reply);
    }
    return line;
}

int raw(const std::string& path, const Words& words) {
    const std::string signature = words.size() > 1 ? words[1] : "";
    if (words.size() > 2 + signature.size() ||
        (signature.size() + 2 > words.size() && !signature.empty())) {
        usage("raw needs one argument for each type of the signature");
    }
    const std::size_t point = words[0].find_last_of('.');
    const bool qualified = point != std::string::npos;
    const auto answered =
        call(path, qualified ? words[0].substr(0, point) : HelperBus::interface,
             qualified ? words[0].substr(point + 1) : words[0], [&](sd_bus_message* request) {
                 int result = 0;
                 for (std::size_t i = 0; i < signature.size() && result >= 0; ++i) {
                     result = appendOne(request, signature[i], words[2 + i]);
                 }
                 return result;
             });
    if (!answered) {
        return answered.error();
    }
    print("reply " + values(answered->reply.get()));
    return 0;
}

int introspect(const std::string& path) {
    const auto answered = call(path, "org.freedesktop.DBus.Introspectable", "Introspect", nothing);
    if (!answered) {
        return answered.error();
    }
    const char* xml = nullptr;
    if (sd_bus_message_read(answered->reply.get(), "s", &xml) <= 0) {
        return report(BusFault::Broken);
    }
    print(xml);
    return 0;
}

int huge(const std::string& path, std::size_t megabytes) {
    constexpr std::size_t megabyte = std::size_t{1} << 20U;
    // A message may have 128 MiB; sd-bus makes no larger one.
    constexpr std::size_t most = 127;
    if (megabytes > most) {
        usage("a message has no more than 127 megabytes");
    }
    const std::string appPath(megabytes * megabyte, 'x');
    const auto answered =
        call(path, HelperBus::interface, "Begin", [&appPath](sd_bus_message* request) {
            return sd_bus_message_append(request, "sdd", appPath.c_str(), 2.0, 1.0);
        });
    if (!answered) {
        return answered.error();
    }
    int ok = 0;
    sd_bus_message_read(answered->reply.get(), "b", &ok);
    return report("huge", HelperClient::Result<bool>(ok != 0));
}

// What the app asks.

int status(const HelperClient::Result<HelperStatus>& answer) {
    if (!answer) {
        return report(answer.error());
    }
    const auto& end = answer->until;
    std::array<char, 400> until{"none"};
    if (end) {
        std::snprintf(until.data(), until.size(), "%.6f", secondsSince1970(*end));
    }
    print(std::string("status holding=") + text(answer->holding) + " until=" + until.data() +
          " locked=" + text(answer->locked));
    return answer->holding ? 0 : 1;
}

int useDescriptor(const Words& words) {
    const int number = integer<int>(words[0]);
    if (fcntl(number, F_GETFD) < 0) {
        usage("descriptor " + words[0] + " is not open");
    }
    const std::map<std::string, const char*> members{
        {"status", "Status"}, {"heartbeat", "Heartbeat"}, {"end", "End"}};
    const auto member = members.find(words[1]);
    if (member == members.end()) {
        usage("use-fd takes status, heartbeat or end");
    }
    const bool heartbeat = words[1] == "heartbeat";
    const auto answered = call(Descriptor(number), HelperBus::interface, member->second,
                               [heartbeat](sd_bus_message* request) {
                                   return heartbeat ? sd_bus_message_append(request, "b", 0) : 0;
                               });
    if (!answered) {
        return answered.error();
    }
    print("reply " + values(answered->reply.get()));
    return 0;
}

int bench(const std::string& path, std::size_t calls) {
    using Microseconds = std::chrono::duration<double, std::micro>;
    HelperClient client(path);
    std::vector<double> taken;
    taken.reserve(calls);
    // The first call connects and is not counted.
    for (std::size_t i = 0; i <= calls; ++i) {
        const auto before = std::chrono::steady_clock::now();
        const auto answer = client.status();
        const Microseconds span = std::chrono::steady_clock::now() - before;
        if (!answer) {
            return report(answer.error());
        }
        if (i > 0) {
            taken.push_back(span.count());
        }
    }
    std::ranges::sort(taken);
    std::printf("bench n=%zu median_us=%.0f p90_us=%.0f\n", calls, taken[calls / 2],
                taken[calls * 9 / 10]);
    return 0;
}

// The command line.

struct Target {
    std::string socket;
    // Empty where only --socket said whom to call.
    std::string bundle;
};

int begin(const Target& target, const Words& words, double offset) {
    if (words[0] == "." && target.bundle.empty()) {
        usage("this program lies in no bundle, so '.' means nothing");
    }
    // Whatever holds.
    const CommitmentSpan span{wallDate(offset + number(words[1])),
                              wallDate(offset + number(words[2]))};
    return report("begin", HelperClient(target.socket)
                               .begin(words[0] == "." ? target.bundle : words[0],
                                      [&](const HelperStatus&) { return span; }));
}

int heartbeat(const Target& target, const Words& words) {
    if (!words.empty() && words[0] != "--ending") {
        usage("heartbeat takes --ending or nothing");
    }
    return report("heartbeat", HelperClient(target.socket).heartbeat(!words.empty()));
}

int liveUntilKilled() {
    print("running");
    while (true) {
        pause();
    }
}

struct Command {
    std::size_t least;
    std::size_t most;
    std::function<int(const Target&, const Words&)> run;
};

constexpr std::size_t any = SIZE_MAX;

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table{
        {"status",
         {0, 0,
          [](const Target& t, const Words&) { return status(HelperClient(t.socket).status()); }}},
        {"begin",
         {3, 3,
          [](const Target& t, const Words& w) {
              return begin(t, w, secondsSince1970(wallNow()));
          }}},
        {"begin-at", {3, 3, [](const Target& t, const Words& w) { return begin(t, w, 0); }}},
        {"heartbeat", {0, 1, heartbeat}},
        {"end",
         {0, 0,
          [](const Target& t, const Words&) {
              return report("end", HelperClient(t.socket).end());
          }}},
        {"introspect", {0, 0, [](const Target& t, const Words&) { return introspect(t.socket); }}},
        {"raw", {1, any, [](const Target& t, const Words& w) { return raw(t.socket, w); }}},
        {"bench",
         {1, 1, [](const Target& t, const Words& w) { return bench(t.socket, count(w[0])); }}},
        {"run", {0, 0, [](const Target&, const Words&) { return liveUntilKilled(); }}},
        {"hold",
         {1, 1,
          [](const Target& t, const Words& w) {
              return openMany(t.socket, count(w[0]), "holding", connectAndAuthenticate);
          }}},
        {"stall",
         {1, 1,
          [](const Target& t, const Words& w) {
              return openMany(t.socket, count(w[0]), "stalling", connectOnce);
          }}},
        {"half", {0, 0, [](const Target& t, const Words&) { return half(t.socket); }}},
        {"huge",
         {1, 1, [](const Target& t, const Words& w) { return huge(t.socket, count(w[0])); }}},
        {"flood",
         {1, 1, [](const Target& t, const Words& w) { return flood(t.socket, count(w[0])); }}},
        {"garbage", {0, 0, [](const Target& t, const Words&) { return garbage(t.socket); }}},
        {"connect-then-exec",
         {1, any, [](const Target& t, const Words& w) { return connectThenExec(t.socket, w); }}},
        {"use-fd", {2, 2, [](const Target&, const Words& w) { return useDescriptor(w); }}},
    };
    return table;
}

// Takes "--socket PATH" off the front of `words`.
Target takeTarget(Words& words) {
    Target target;
    const auto bundle = ownBundle();
    if (bundle) {
        target = {HelperBus::socketPath(bundle->identity.helperBundleID()), bundle->path};
    }
    if (!words.empty() && words[0] == "--socket") {
        if (words.size() < 2) {
            usage("--socket needs a path");
        }
        target.socket = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    return target;
}

int runWords(Words words) {
    const Target target = takeTarget(words);
    if (words.empty()) {
        usage("a word is missing");
    }
    if (words[0] == "--help" || words[0] == "-h") {
        std::fputs(help, stdout);
        return 0;
    }
    const auto command = commands().find(words[0]);
    if (command == commands().end()) {
        usage("there is no word " + quoted(words[0]));
    }
    words.erase(words.begin());
    if (words.size() < command->second.least || words.size() > command->second.most) {
        usage(quoted(command->first) + " takes other arguments");
    }
    const bool needsSocket = command->first != "run" && command->first != "use-fd";
    if (needsSocket && target.socket.empty()) {
        std::fputs("TestCaller: in no app bundle, so --socket PATH must say whom to call\n",
                   stderr);
        return EX_CONFIG;
    }
    return command->second.run(target, words);
}

}  // namespace
}  // namespace halvo

int main(int wordCount, char** words) {
    halvo::PrivateGroup::setAside();
    try {
        return halvo::runWords({words + (wordCount > 0 ? 1 : 0), words + wordCount});
    } catch (const halvo::UsageError& error) {
        std::fprintf(stderr, "TestCaller: %s; see TestCaller --help\n", error.message.c_str());
        return EX_USAGE;
    }
}
