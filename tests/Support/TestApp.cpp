// The app in tests and in the demo: makes the requests of an app, misbehaves as a hostile client
// can, and reports how it was started. Built without sanitizers, most of which refuse to run
// set-group-id, and without HalvoClient, so that it can send what HalvoClient never would.
//
// Requests of an app, to the helper of this build's app
//     status                       "status holding=true until=1732199527.000000 locked=true"
//     begin APP UNTIL STARTED      dates in seconds from now; "." is the bundle of this program
//     heartbeat [--ending]         alive, or the session is ending
//     end                          ends the commitment
//     ask SOCKET REQUEST...        status, heartbeat, end or begin=PATH on one connection, which it
//                                  keeps. A line for each reply. "~2" waits two seconds, "?" for a
//                                  line of standard input
//     ask-often SOCKET COUNT       connects, requests the status and disconnects, COUNT times;
//     "asked"
//
// Misbehaviour
//     hold COUNT                   keeps that many authenticated connections, "holding COUNT"
//     huge MEGABYTES               a begin with a path of that size
//     flood COUNT                  that many status calls without reading a reply
//     connect SOCKET [TEXT]        connects, "connected"; sends TEXT and keeps the connection
//     connect-many SOCKET COUNT    the same with several connections
//     connect-share SOCKET         leaves the connection to a child, says "connected" and ends
//     connect-run SOCKET PROGRAM ARGUMENTS...
//                                  becomes the program with the connection as descriptor 3
//     use-fd NUMBER WORD           status or end on the inherited connection NUMBER
//     forge FORGERY PATH WORDS     executes PATH with these words, with FORGERY bind-mounted over
//     it
//                                  in a private mount namespace
//     wait                         "waiting"
//
// Before any of these: "drop-group" drops the group of the executable, "--socket PATH" selects
// another helper. Connections are kept until end-of-file on standard input; "closed" is printed for
// each that the helper closes. Without words, or with other options, reports its start; see
// TestBundle.hpp.
//
// Exit status: 0 reply true; 1 reply false; 64 usage error; 65 "rejected NAME: MESSAGE";
// 69 "not-running"; 75 "timed-out"; 76 "disconnected", after authentication; 77 "refused", or the
// helper has closed all kept connections.

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sysexits.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/TestBundle.hpp"

namespace {

using Words = std::vector<std::string>;

// For authentication, and for each call; some tests delay the helper on purpose.
constexpr std::chrono::seconds limit{60};

std::string helperSocket = "/run/" HALVO_APP_BUNDLE_ID ".helper.sock";

// Thrown to exit with a last line.
struct Failure {
    std::string line;
    int status;
};

// Prints a line, flushed for a reader at the other end of a pipe.
void print(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

[[noreturn]] void giveUp(const char* call) {
    throw Failure{std::string(call) + ": " + std::strerror(errno), EX_OSERR};
}

const char* text(bool value) { return value ? "true" : "false"; }

[[noreturn]] void become(const Words& words) {
    execvp(words.at(0).c_str(), halvo::ArgumentVector(words).data());
    giveUp(words[0].c_str());
}

// ------------------------------------------------------------------------------------- connections

int connection() {
    const auto address = halvo::socketAddress(helperSocket);
    const int number = socket(AF_UNIX, SOCK_STREAM, 0);
    if (!address || ::connect(number, halvo::generic(*address), sizeof *address) != 0) {
        throw Failure{"not-running", EX_UNAVAILABLE};
    }
    return number;
}

// A bus on the connection `number`, once the helper has admitted it.
sd_bus* authenticated(int number) {
    sd_bus* bus = nullptr;
    int code = sd_bus_new(&bus);
    code = code < 0 ? code : sd_bus_set_fd(bus, number, number);
    code = code < 0 ? code : sd_bus_start(bus);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (code >= 0 && sd_bus_is_ready(bus) <= 0) {
        if (std::chrono::steady_clock::now() >= end) {
            throw Failure{"timed-out", EX_TEMPFAIL};
        }
        code = sd_bus_process(bus, nullptr);
        constexpr std::uint64_t tenthOfASecond = 100'000;
        code = code == 0 ? sd_bus_wait(bus, tenthOfASecond) : code;
    }
    if (code < 0) {
        throw Failure{"refused", EX_NOPERM};
    }
    return bus;
}

sd_bus* connect() { return authenticated(connection()); }

// Keeps the connections until standard input ends, or the helper has closed all of them.
int keep(const std::vector<int>& numbers) {
    std::vector<pollfd> waiting{{STDIN_FILENO, POLLIN, 0}};
    for (const int number : numbers) {
        waiting.push_back({number, POLLRDHUP, 0});
    }
    for (std::size_t open = numbers.size(); open > 0 || numbers.empty();) {
        poll(waiting.data(), waiting.size(), -1);
        for (std::size_t i = 1; i < waiting.size(); ++i) {
            if (waiting[i].fd >= 0 && waiting[i].revents != 0) {
                waiting[i].fd = -1;
                --open;
                print("closed");
            }
        }
        std::array<char, 256> input{};
        if (waiting[0].revents != 0 && read(STDIN_FILENO, input.data(), input.size()) <= 0) {
            return EXIT_SUCCESS;
        }
    }
    return EX_NOPERM;
}

int connectOften(int count, const std::string& said = {}) {
    std::vector<int> numbers;
    while (count-- > 0) {
        numbers.push_back(connection());
        if (write(numbers.back(), said.data(), said.size()) < 0) {
            giveUp("write");
        }
    }
    print("connected");
    return keep(numbers);
}

int hold(std::size_t count) {
    std::vector<int> numbers;
    while (numbers.size() < count) {
        numbers.push_back(sd_bus_get_fd(connect()));
    }
    print("holding " + std::to_string(count));
    return keep(numbers);
}

int connectAndShare() {
    const int number = connection();
    if (fork() == 0) {
        return keep({number});
    }
    print("connected");
    return EXIT_SUCCESS;
}

int connectThenBecome(const Words& words) {
    const int number = connection();
    constexpr int usual = 3;
    if (number != usual && dup2(number, usual) != usual) {
        giveUp("dup2");
    }
    become(words);
}

// ------------------------------------------------------------------------------------------- calls

template <class... Values>
sd_bus_message* newCall(sd_bus* bus, const char* method, const char* types = "", Values... values) {
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(bus, &call, nullptr, "/app/halvo/Helper",
                                       "app.halvo.HalvoHelperXPC", method) < 0 ||
        sd_bus_message_append(call, types, values...) < 0) {
        throw std::invalid_argument("no such message can be made");
    }
    return call;
}

// The reply; null for an error reply, which fills `error`.
sd_bus_message* replyTo(sd_bus_message* call, sd_bus_error& error) {
    sd_bus* bus = sd_bus_message_get_bus(call);
    sd_bus_message* reply = nullptr;
    const auto time = std::chrono::microseconds(limit).count();
    const int code = sd_bus_call(bus, call, static_cast<std::uint64_t>(time), &error, &reply);
    if (code == -ETIMEDOUT) {
        throw Failure{"timed-out", EX_TEMPFAIL};
    }
    // sd-bus reports local errors the same way.
    if (code < 0 && sd_bus_is_open(bus) <= 0) {
        throw Failure{"disconnected", EX_PROTOCOL};
    }
    return reply;
}

// The reply; exits for an error reply.
sd_bus_message* replyTo(sd_bus_message* call) {
    sd_bus_error error{};
    sd_bus_message* reply = replyTo(call, error);
    if (reply == nullptr) {
        throw Failure{std::string("rejected ") + error.name + ": " + error.message, EX_DATAERR};
    }
    return reply;
}

struct Status {
    explicit Status(sd_bus_message* reply) {
        int flag = 0;
        const void* dates = nullptr;
        std::size_t size = 0;
        sd_bus_message_read(reply, "b", &flag);
        holding = flag != 0;
        sd_bus_message_read_array(reply, 'd', &dates, &size);
        if (size > 0) {
            double date = 0;
            std::memcpy(&date, dates, sizeof date);
            until = std::to_string(date);
        }
        sd_bus_message_read(reply, "b", &flag);
        locked = flag != 0;
    }

    bool holding = false;
    std::string until = "none";
    bool locked = false;
};

bool truthOf(sd_bus_message* reply) {
    int flag = 0;
    sd_bus_message_read(reply, "b", &flag);
    return flag != 0;
}

int showStatus(sd_bus* bus) {
    const Status status(replyTo(newCall(bus, "Status")));
    print(std::string("status holding=") + text(status.holding) + " until=" + status.until +
          " locked=" + text(status.locked));
    return status.holding ? 0 : 1;
}

int show(const char* word, sd_bus_message* call) {
    const bool yes = truthOf(replyTo(call));
    print(std::string(word) + " " + text(yes));
    return yes ? 0 : 1;
}

double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int begin(const Words& words) {
    std::filesystem::path app = words.at(0);
    if (app == ".") {
        app = std::filesystem::read_symlink("/proc/self/exe")
                  .parent_path()
                  .parent_path()
                  .parent_path();
    }
    const auto date = [&](std::size_t i) { return now() + std::stod(words.at(i)); };
    return show("begin", newCall(connect(), "Begin", "sdd", app.c_str(), date(1), date(2)));
}

sd_bus_message* newRequest(sd_bus* bus, const std::string& request) {
    const std::string begin = "begin=";
    if (request.starts_with(begin)) {
        const double started = now();
        return newCall(bus, "Begin", "sdd", request.c_str() + begin.size(), started + 3600,
                       started);
    }
    return request == "heartbeat" ? newCall(bus, "Heartbeat", "b", 0)
                                  : newCall(bus, request == "end" ? "End" : "Status");
}

std::string inWords(sd_bus_message* reply) {
    if (std::strcmp(sd_bus_message_get_signature(reply, 1), "b") == 0) {
        return truthOf(reply) ? "yes" : "no";
    }
    const Status status(reply);
    return std::string(status.holding ? "holding" : "idle") +
           (status.until == "none" ? " without end" : " until") +
           (status.locked ? " locked" : " unlocked");
}

int ask(const Words& requests) {
    sd_bus* bus = connect();
    for (const std::string& request : requests) {
        if (request == "?") {
            std::string line;
            std::getline(std::cin, line);
            continue;
        }
        if (request.starts_with('~')) {
            std::this_thread::sleep_for(
                std::chrono::duration<double>(std::stod(request.substr(1))));
            continue;
        }
        sd_bus_error error{};
        sd_bus_message* reply = replyTo(newRequest(bus, request), error);
        print(reply == nullptr ? error.name : inWords(reply));
    }
    return keep({sd_bus_get_fd(bus)});
}

int askOften(int count) {
    while (count-- > 0) {
        sd_bus* bus = connect();
        replyTo(newCall(bus, "Status"));
        sd_bus_close(bus);
    }
    print("asked");
    return EXIT_SUCCESS;
}

int flood(int count) {
    sd_bus* bus = connect();
    // sd_bus_send(3) expects no reply unless a cookie is asked for.
    std::uint64_t cookie = 0;
    while (count-- > 0) {
        if (sd_bus_send(bus, newCall(bus, "Status"), &cookie) < 0 || sd_bus_flush(bus) < 0) {
            throw Failure{"disconnected", EX_PROTOCOL};
        }
    }
    return EXIT_SUCCESS;
}

[[noreturn]] void forge(const Words& words) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
        mount(words.at(0).c_str(), words.at(1).c_str(), nullptr, MS_BIND, nullptr) != 0) {
        giveUp("forge");
    }
    become({words.begin() + 1, words.end()});
}

// -------------------------------------------------------------------------------- the command line

using Command = std::function<int(const Words&)>;

// A command whose first word is the socket.
Command at(const Command& command) {
    return [command](const Words& words) {
        helperSocket = words.at(0);
        return command({words.begin() + 1, words.end()});
    };
}

int run(const Words& words);

int dropGroup(const Words& words) {
    if (setresgid(getgid(), getgid(), getgid()) != 0) {
        giveUp("setresgid");
    }
    return run(words);
}

const std::map<std::string, Command> commands{
    {"status", [](const Words&) { return showStatus(connect()); }},
    {"begin", begin},
    {"heartbeat",
     [](const Words& words) {
         const int ending = words.empty() ? 0 : 1;
         return show("heartbeat", newCall(connect(), "Heartbeat", "b", ending));
     }},
    {"end", [](const Words&) { return show("end", newCall(connect(), "End")); }},
    {"ask", at(ask)},
    {"ask-often", at([](const Words& words) { return askOften(std::stoi(words.at(0))); })},
    {"hold", [](const Words& words) { return hold(std::stoul(words.at(0))); }},
    {"huge",
     [](const Words& words) {
         const std::string path(std::stoul(words.at(0)) << 20U, 'x');
         return show("begin", newCall(connect(), "Begin", "sdd", path.c_str(), 2.0, 1.0));
     }},
    {"flood", [](const Words& words) { return flood(std::stoi(words.at(0))); }},
    {"connect",
     at([](const Words& words) { return connectOften(1, words.empty() ? "" : words[0]); })},
    {"connect-many", at([](const Words& words) { return connectOften(std::stoi(words.at(0))); })},
    {"connect-share", at([](const Words&) { return connectAndShare(); })},
    {"connect-run", at(connectThenBecome)},
    {"use-fd",
     [](const Words& words) {
         sd_bus* bus = authenticated(std::stoi(words.at(0)));
         return words.at(1) == "end" ? show("end", newCall(bus, "End")) : showStatus(bus);
     }},
    {"forge", [](const Words& words) -> int { forge(words); }},
    {"wait",
     [](const Words&) {
         print("waiting");
         return keep({});
     }},
    {"drop-group", dropGroup},
    {"--socket", at(run)},
};

int run(const Words& words) { return commands.at(words.at(0))({words.begin() + 1, words.end()}); }

}  // namespace

int main(int argc, char** argv, char** environment) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (first.empty() || (first.starts_with('-') && first != "--socket")) {
        return halvo::testing::reportStart(argc, argv, environment);
    }
    try {
        return run({argv + 1, argv + argc});
    } catch (const Failure& failure) {
        print(failure.line);
        return failure.status;
    } catch (const std::logic_error& error) {
        // A word is missing, unknown, or no number.
        std::fprintf(stderr, "%s: %s\n", first.c_str(), error.what());
        return EX_USAGE;
    }
}
