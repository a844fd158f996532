// A caller of the helper for tests and the demo: asks what the app asks, and misbehaves in every
// way that a caller can. Tests install it into the app's bundle, beside the app and with its group.

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sysexits.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
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
  raw METHOD [SIGNATURE ARGS...]   any call, METHOD or INTERFACE.METHOD; types b u x d s
  talk CALL...                     several calls on one connection, METHOD or METHOD:SIGNATURE,
                                   "!" in front for one without a reply; "~2" waits 2 seconds. A
                                   line for each: the reply's signature, the error's name, "sent"

What no app does
  at-once                          authenticates and asks in one write, "answered"
  run                              lives without a connection until it is killed
  hold N                           authenticates N connections, "holding N"; keeps them
  stall N                          opens N connections, sends nothing, "stalling N"; keeps them
  half                             authenticates, sends half a message, "half sent"; keeps it
  huge MEGABYTES                   a begin with a path of that size
  flood COUNT                      COUNT status calls, reads no reply: "flood disconnected=false"
  garbage                          random bytes instead of authentication
  connect-then-exec PROGRAM ARGS   connects, then becomes PROGRAM with the connection as descriptor 3
  use-fd N WORD                    status or end on a connection that is already there

What is kept is kept until standard input ends; "closed" says when the helper closes one.

Exit status: 0 reply true, 1 reply false, 64 usage error, 65 rejected ("rejected
NAME: MESSAGE"), 69 not running ("not-running"), 71 no resources, 75 timed out
("timed-out"), 76 disconnected after authentication ("disconnected"), 77 refused
("refused") or all that was kept is closed, 78 in no bundle and no --socket.
)";

// For calls that take the helper long on purpose.
constexpr Seconds callLimit{60};

using Words = std::vector<std::string>;

// A line, out at once for the program that reads it.
void print(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

const char* text(bool value) { return value ? "true" : "false"; }

// ---------------------------------------------------------------------------------------- failures

// Ends the program.
struct Failure {
    std::string line;
    int status;
};

struct LineOf {
    std::string operator()(const HelperFailures::NotRunning&) const { return "not-running"; }

    std::string operator()(const HelperFailures::Refused&) const { return "refused"; }

    std::string operator()(const HelperFailures::TimedOut&) const { return "timed-out"; }

    std::string operator()(const HelperFailures::NoResources&) const { return "no-resources"; }

    std::string operator()(const HelperFailures::Rejected& failure) const {
        return "rejected " + failure.name + ": " + failure.message;
    }
};

[[noreturn]] void fail(const HelperFailure& failure) {
    throw Failure{std::visit(LineOf{}, failure), exitStatus(failure)};
}

[[noreturn]] void fail(BusFault fault) {
    switch (fault) {
        case BusFault::Unauthenticated:
            fail(HelperFailures::Refused{});
        case BusFault::TimedOut:
            fail(HelperFailures::TimedOut{});
        case BusFault::Broken:
            break;
    }
    throw Failure{"disconnected", EX_PROTOCOL};
}

// Of a connection that is not authenticated.
[[noreturn]] void fail(int code) {
    switch (code) {
        case ETIMEDOUT:
            fail(HelperFailures::TimedOut{});
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            fail(HelperFailures::NoResources{code});
        case EACCES:
        case EPERM:
        case EPIPE:
        case ECONNRESET:
        case ENOTCONN:
            fail(HelperFailures::Refused{});
        default:
            fail(HelperFailures::NotRunning{code});
    }
}

template <class Value, class Error>
Value orFail(std::expected<Value, Error> result) {
    if (!result) {
        fail(result.error());
    }
    return std::move(*result);
}

// ------------------------------------------------------------------------------------- connections

struct Target {
    std::string socket;
    // Empty where only --socket says which helper to call.
    std::string bundle;
};

Descriptor connectTo(const Target& target) {
    return orFail(connectAsApp(target.socket, deadlineAfter(HelperClient::usualLimit)));
}

// A connection that the helper has let in.
BusHandle authenticate(const Target& target) {
    BusHandle bus = orFail(openBus(connectTo(target)));
    const Deadline deadline = deadlineAfter(HelperClient::usualLimit);
    while (sd_bus_is_ready(bus.get()) <= 0) {
        const int progress = sd_bus_process(bus.get(), nullptr);
        if (progress < 0) {
            fail(-progress);
        }
        if (progress == 0 && Deadline::clock::now() >= deadline) {
            fail(ETIMEDOUT);
        }
        constexpr std::uint64_t tenthOfASecond = 100'000;
        sd_bus_wait(bus.get(), progress == 0 ? tenthOfASecond : 0);
    }
    return bus;
}

// A connection that is kept open.
struct Kept {
    explicit Kept(Descriptor raw) : socket(std::move(raw)), number(socket.get()) {}

    explicit Kept(BusHandle handle) : bus(std::move(handle)), number(sd_bus_get_fd(bus.get())) {}

    Descriptor socket;
    BusHandle bus;
    int number;
};

// Keeps them until standard input ends or the helper has closed all.
int keep(const std::vector<Kept>& connections) {
    std::vector<pollfd> waiting{{STDIN_FILENO, POLLIN, 0}};
    for (const Kept& each : connections) {
        waiting.push_back({each.number, POLLRDHUP, 0});
    }
    for (std::size_t open = connections.size(); open > 0;) {
        if (poll(waiting.data(), waiting.size(), -1) < 0) {
            continue;
        }
        for (std::size_t i = 1; i < waiting.size(); ++i) {
            if (waiting[i].fd >= 0 && waiting[i].revents != 0) {
                waiting[i].fd = -1;
                --open;
                print("closed");
            }
        }
        std::array<char, 256> input{};
        if (waiting[0].revents != 0 && read(STDIN_FILENO, input.data(), input.size()) <= 0) {
            return 0;
        }
    }
    return EX_NOPERM;
}

int keepMany(std::size_t wanted, const std::string& word, const std::function<Kept()>& open) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::vector<Kept> kept;
    try {
        while (kept.size() < wanted) {
            kept.push_back(open());
        }
    } catch (const Failure&) {
        if (kept.empty()) {
            throw;
        }
    }
    print(word + " " + std::to_string(kept.size()));
    return keep(kept);
}

// --------------------------------------------------------------------------- bytes, as no library
// sends them

// A status call as it goes over the wire, little endian, with the size of a body that does not
// come. NOLINTNEXTLINE(cppcoreguidelines-macro-usage): literals can be joined in no other way
#define STATUS_CALL_WITH_BODY(size)                    \
    "l\1\0\1" size                                     \
    "\1\0\0\0\x57\0\0\0"                               \
    "\1\1o\0\x11\0\0\0/app/halvo/Helper\0\0\0\0\0\0\0" \
    "\2\1s\0\x18\0\0\0"                                \
    "app.halvo.HalvoHelperXPC\0\0\0\0\0\0\0\0"         \
    "\3\1s\0\6\0\0\0Status\0"

template <std::size_t size>
constexpr std::string_view bytesOf(const char (&literal)[size]) {
    return {literal, size};
}

// With the zero byte at their end, which pads it.
constexpr std::string_view statusCall = bytesOf(STATUS_CALL_WITH_BODY("\0\0\0\0"));
constexpr std::string_view halfACall =
    bytesOf(STATUS_CALL_WITH_BODY("\x64\0\0\0") "\0not a hundred");
constexpr std::string_view authenticationAndCall =
    bytesOf("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n" STATUS_CALL_WITH_BODY("\0\0\0\0"));

// 0 or the errno.
int sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        pollfd waiting{socket, POLLOUT, 0};
        constexpr int tenSeconds = 10'000;
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EAGAIN) {
            return errno;
        } else if (poll(&waiting, 1, tenSeconds) == 0) {
            return ETIMEDOUT;
        }
    }
    return 0;
}

// Whether `expected` comes before the helper closes the connection or `limit` has passed.
bool receives(int socket, std::string_view expected, Seconds limit, bool& isClosed) {
    std::string received;
    const Deadline deadline = deadlineAfter(limit);
    do {
        std::array<char, 4096> buffer{};
        const ssize_t count = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        isClosed = count == 0 || (count < 0 && errno != EAGAIN);
        received.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        if (received.find(expected) != std::string::npos) {
            return true;
        }
    } while (!isClosed && waitBefore(deadline, Seconds{0.01}));
    return false;
}

int askAtOnce(const Target& target) {
    const Descriptor socket = connectTo(target);
    bool isClosed = sendAll(socket.get(), authenticationAndCall) != 0;
    // The signature of the reply.
    const bool isAnswered = !isClosed && receives(socket.get(), "badb", Seconds{3}, isClosed);
    print(isAnswered ? "answered" : "not answered");
    return isAnswered ? 0 : 1;
}

int sendHalf(const Target& target) {
    std::vector<Kept> kept;
    kept.emplace_back(authenticate(target));
    if (sendAll(kept[0].number, halfACall) != 0) {
        fail(BusFault::Broken);
    }
    print("half sent");
    return keep(kept);
}

int flood(const Target& target, std::size_t calls) {
    const BusHandle bus = authenticate(target);
    const int socket = sd_bus_get_fd(bus.get());
    int code = 0;
    while (calls-- > 0 && code == 0) {
        code = sendAll(socket, statusCall);
    }
    pollfd waiting{socket, POLLRDHUP, 0};
    constexpr int oneSecond = 1000;
    const bool isDisconnected =
        (code != 0 && code != ETIMEDOUT) || poll(&waiting, 1, oneSecond) > 0;
    print(std::string("flood disconnected=") + text(isDisconnected));
    return isDisconnected ? EX_PROTOCOL : 0;
}

int sendGarbage(const Target& target) {
    const Descriptor socket = connectTo(target);
    std::mt19937 random(std::random_device{}());
    std::string bytes(4096, '\0');
    std::ranges::generate(bytes, [&random] { return static_cast<char>(random()); });
    bool isClosed = sendAll(socket.get(), bytes) != 0;
    if (!isClosed) {
        receives(socket.get(), "OK ", callLimit, isClosed);
    }
    fail(isClosed ? ECONNRESET : ETIMEDOUT);
}

int connectThenExec(const Target& target, const Words& words) {
    const Descriptor socket = connectTo(target);
    constexpr int number = 3;
    // dup2(2) takes FD_CLOEXEC off the copy, but does nothing to a descriptor that is there
    // already.
    if (socket.get() == number ? fcntl(number, F_SETFD, 0) != 0
                               : dup2(socket.get(), number) != number) {
        fail(errno);
    }
    fcntl(number, F_SETFL, 0);
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        // execvp(3) changes none of them.
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments.at(0), arguments.data());
    std::perror(arguments[0]);
    return EX_UNAVAILABLE;
}

// ----------------------------------------------------------------- calls that the app's client
// does not offer

int append(sd_bus_message* call, char type, const std::string& word) {
    switch (type) {
        case 'b':
            return sd_bus_message_append(call, "b", word != "false");
        case 'u':
            return sd_bus_message_append(call, "u", static_cast<unsigned>(std::stoul(word)));
        case 'x':
            return sd_bus_message_append(call, "x", std::int64_t{std::stoll(word)});
        case 'd':
            return sd_bus_message_append(call, "d", std::strtod(word.c_str(), nullptr));
        default:
            return sd_bus_message_append_basic(call, type, word.c_str());
    }
}

BusMessage newCall(sd_bus& bus, const std::string& method, const std::string& signature,
                   const Words& arguments) {
    const std::size_t point = method.find_last_of('.');
    const bool isPlain = point == std::string::npos;
    const std::string interface = isPlain ? HelperBus::interface : method.substr(0, point);
    const std::string member = isPlain ? method : method.substr(point + 1);
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_call(&bus, &raw, nullptr, HelperBus::object,
                                                interface.c_str(), member.c_str());
    BusMessage call(raw);
    for (std::size_t i = 0; i < signature.size() && result >= 0; ++i) {
        result = append(raw, signature[i], arguments.at(i));
    }
    if (result < 0) {
        throw std::invalid_argument("no such message can be made");
    }
    return call;
}

void addValue(std::string& line, sd_bus_message* reply, char type) {
    union {
        int b;
        double d;
        const char* s;
    } value{};

    std::array<char, 400> decimal{};
    sd_bus_message_read_basic(reply, type, &value);
    std::snprintf(decimal.data(), decimal.size(), "%.6f", type == 'd' ? value.d : 0);
    line += " ";
    line += type == 'b' ? text(value.b != 0) : type == 'd' ? decimal.data() : value.s;
}

// Truth values, numbers, texts, and arrays of them.
std::string textOf(sd_bus_message* reply) {
    std::string line = std::string("reply ") + sd_bus_message_get_signature(reply, 1);
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(reply, &type, &contents) > 0) {
        if (type != 'a') {
            addValue(line, reply, type);
            continue;
        }
        const char element = contents[0];
        sd_bus_message_enter_container(reply, 'a', contents);
        line += " [";
        while (sd_bus_message_at_end(reply, 0) == 0) {
            addValue(line, reply, element);
        }
        line += " ]";
        sd_bus_message_exit_container(reply);
    }
    return line;
}

int call(Descriptor socket, const std::string& method, const std::string& signature,
         const Words& arguments) {
    const BusHandle bus = orFail(openBus(std::move(socket)));
    const BusMessage request = newCall(*bus, method, signature, arguments);
    const BusMessage reply = orFail(callWithin(deadlineAfter(callLimit), *bus, *request));
    if (const sd_bus_error* error = sd_bus_message_get_error(reply.get())) {
        fail(
            HelperFailures::Rejected{error->name, error->message == nullptr ? "" : error->message});
    }
    print(textOf(reply.get()));
    return 0;
}

// What becomes of one word of `talk`.
std::string outcome(sd_bus& bus, std::string word) {
    const bool wantsReply = !word.starts_with('!');
    word.erase(0, wantsReply ? 0 : 1);
    const std::size_t colon = std::min(word.find(':'), word.size());
    const std::string signature = word.substr(std::min(colon + 1, word.size()));
    const BusMessage request =
        newCall(bus, word.substr(0, colon), signature, Words(signature.size(), "1"));
    sd_bus_message_set_expect_reply(request.get(), wantsReply ? 1 : 0);
    if (!wantsReply) {
        return sd_bus_send(&bus, request.get(), nullptr) < 0 ? "disconnected" : "sent";
    }
    const auto reply = callWithin(deadlineAfter(callLimit), bus, *request);
    if (!reply) {
        return "disconnected";
    }
    const sd_bus_error* error = sd_bus_message_get_error(reply->get());
    return error == nullptr ? sd_bus_message_get_signature(reply->get(), 1) : error->name;
}

int talk(const Target& target, const Words& words) {
    const BusHandle bus = orFail(openBus(connectTo(target)));
    for (const std::string& word : words) {
        if (word.starts_with('~')) {
            waitBefore(deadlineAfter(callLimit), Seconds{std::stod(word.substr(1))});
        } else {
            print(outcome(*bus, word));
        }
    }
    return 0;
}

// --------------------------------------------------------------------------------- what the app
// asks

int show(const char* word, const HelperClient::Result<bool>& answer) {
    const bool yes = orFail(answer);
    print(std::string(word) + " " + text(yes));
    return yes ? 0 : 1;
}

int status(const Target& target) {
    const HelperStatus answer = orFail(HelperClient(target.socket).status());
    std::array<char, 400> until{"none"};
    if (answer.until) {
        std::snprintf(until.data(), until.size(), "%.6f", secondsSince1970(*answer.until));
    }
    print(std::string("status holding=") + text(answer.holding) + " until=" + until.data() +
          " locked=" + text(answer.locked));
    return answer.holding ? 0 : 1;
}

int begin(const Target& target, const Words& words, double offset) {
    const auto date = [&](const std::string& word) {
        // Takes what std::stod() would refuse: numbers that are too large or too small.
        return wallDate(offset + std::strtod(word.c_str(), nullptr));
    };
    // Whatever holds.
    const CommitmentSpan span{date(words.at(1)), date(words.at(2))};
    return show("begin", HelperClient(target.socket)
                             .begin(words[0] == "." ? target.bundle : words[0],
                                    [&](const HelperStatus&) { return span; }));
}

// ---------------------------------------------------------------------------------- the command
// line

using Command = std::function<int(const Target& target, const Words& words)>;

const std::map<std::string, Command>& commands() {
    using T = const Target&;
    using W = const Words&;
    static const std::map<std::string, Command> table{
        {"status", [](T target, W) { return status(target); }},
        {"begin",
         [](T target, W words) { return begin(target, words, secondsSince1970(wallNow())); }},
        {"begin-at", [](T target, W words) { return begin(target, words, 0); }},
        {"heartbeat",
         [](T target, W words) {
             return show("heartbeat", HelperClient(target.socket).heartbeat(!words.empty()));
         }},
        {"end", [](T target, W) { return show("end", HelperClient(target.socket).end()); }},
        {"raw",
         [](T target, W words) {
             return call(
                 connectTo(target), words.at(0), words.size() > 1 ? words[1] : "",
                 {words.begin() + std::min<std::ptrdiff_t>(2, std::ssize(words)), words.end()});
         }},
        {"talk", talk},
        {"at-once", [](T target, W) { return askAtOnce(target); }},
        {"run",
         [](T, W) {
             print("running");
             return pause();
         }},
        {"hold",
         [](T target, W words) {
             return keepMany(std::stoul(words.at(0)), "holding",
                             [&] { return Kept(authenticate(target)); });
         }},
        {"stall",
         [](T target, W words) {
             return keepMany(std::stoul(words.at(0)), "stalling",
                             [&] { return Kept(connectTo(target)); });
         }},
        {"half", [](T target, W) { return sendHalf(target); }},
        {"huge",
         [](T target, W words) {
             const std::string path(std::stoul(words.at(0)) << 20U, 'x');
             return call(connectTo(target), "Begin", "sdd", {path, "2", "1"});
         }},
        {"flood", [](T target, W words) { return flood(target, std::stoul(words.at(0))); }},
        {"garbage", [](T target, W) { return sendGarbage(target); }},
        {"connect-then-exec", connectThenExec},
        {"use-fd",
         [](T, W words) {
             const std::string method = words.at(1) == "end" ? "End" : "Status";
             return call(Descriptor(std::stoi(words.at(0))), method, "", {});
         }},
    };
    return table;
}

int run(Words words) {
    Target target;
    if (const auto bundle = ownBundle()) {
        target = {HelperBus::socketPath(bundle->identity.helperBundleID()), bundle->path};
    }
    if (words.at(0) == "--help") {
        std::fputs(help, stdout);
        return 0;
    }
    if (words[0] == "--socket") {
        target.socket = words.at(1);
        words.erase(words.begin(), words.begin() + 2);
    }
    const Command& command = commands().at(words.at(0));
    if (target.socket.empty() && words[0] != "run" && words[0] != "use-fd") {
        throw Failure{"TestCaller: in no app bundle, so --socket PATH must say which helper",
                      EX_CONFIG};
    }
    return command(target, {words.begin() + 1, words.end()});
}

}  // namespace
}  // namespace halvo

int main(int count, char** words) {
    halvo::PrivateGroup::setAside();
    try {
        return halvo::run({words + 1, words + count});
    } catch (const halvo::Failure& failure) {
        halvo::print(failure.line);
        return failure.status;
    } catch (const std::logic_error&) {
        // A word that is missing or no number.
        std::fputs(halvo::help, stderr);
        return EX_USAGE;
    }
}
