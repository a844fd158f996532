// A program that stands for the app, or for any other program that the helper meets, in tests. It
// is built without sanitizers, some of which refuse to run set-group-id.
//
//     wait                         waits for the end of its standard input
//     connect SOCKET               connects, says "connected", waits
//     drop-group connect SOCKET    the same without the group of its executable
//     connect-many SOCKET COUNT    the same with several connections
//     connect-say SOCKET WORDS     the same after it has said something
//     connect-run SOCKET PROGRAM ARGUMENTS...
//                                  connects, becomes another program that has the connection too
//     connect-share SOCKET         connects, leaves the connection to a child, says "connected",
//                                  ends
//     ask SOCKET REQUEST...        makes each request (status, heartbeat, end, begin=PATH), says
//                                  the replies, waits
//     ask-often SOCKET COUNT       connects, asks for the status and disconnects, as often; says
//                                  "asked", ends
//     anything else                reports how it was started; see TestReport.hpp

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "tests/Support/TestReport.hpp"

namespace {

using Words = std::vector<std::string>;

[[noreturn]] void giveUp(const char* call) {
    std::printf("%s: %m\n", call);
    std::exit(EXIT_FAILURE);
}

void say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

[[noreturn]] void waitForEnd() {
    char ignored = 0;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    std::exit(EXIT_SUCCESS);
}

int connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        giveUp("connect");
    }
    return connection;
}

[[noreturn]] void run(const Words& words) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    giveUp("execv");
}

// ---------------------------------------------------------------------------------------- requests

std::string replyText(sd_bus_message* reply) {
    std::ostringstream text;
    int yes = 0;
    if (std::strcmp(sd_bus_message_get_signature(reply, 1), "b") == 0) {
        sd_bus_message_read(reply, "b", &yes);
        text << (yes != 0 ? "yes" : "no");
        return text.str();
    }
    const void* dates = nullptr;
    std::size_t size = 0;
    sd_bus_message_read(reply, "b", &yes);
    text << (yes != 0 ? "holding" : "idle");
    sd_bus_message_read_array(reply, 'd', &dates, &size);
    text << (size == 0 ? " without end" : " until");
    sd_bus_message_read(reply, "b", &yes);
    text << (yes != 0 ? " locked" : " unlocked");
    return text.str();
}

sd_bus_message* newRequest(sd_bus* bus, const std::string& request) {
    const auto make = [bus](const char* member) {
        sd_bus_message* message = nullptr;
        if (sd_bus_message_new_method_call(bus, &message, nullptr, "/app/halvo/Helper",
                                           "app.halvo.HalvoHelperXPC", member) < 0) {
            giveUp("sd_bus_message_new_method_call");
        }
        return message;
    };
    if (request == "status") {
        return make("Status");
    }
    if (request == "end") {
        return make("End");
    }
    if (request == "heartbeat") {
        sd_bus_message* message = make("Heartbeat");
        sd_bus_message_append(message, "b", 0);
        return message;
    }
    sd_bus_message* message = make("Begin");
    const double now = static_cast<double>(std::time(nullptr));
    sd_bus_message_append(message, "sdd", request.substr(std::strlen("begin=")).c_str(), now + 3600,
                          now);
    return message;
}

[[noreturn]] void ask(const Words& requests, int connection) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, connection, connection) < 0 ||
        sd_bus_start(bus) < 0) {
        say("no bus");
        waitForEnd();
    }
    constexpr std::uint64_t tenSeconds = 10'000'000;
    for (const std::string& request : requests) {
        sd_bus_message* reply = nullptr;
        sd_bus_error error{};
        if (sd_bus_call(bus, newRequest(bus, request), tenSeconds, &error, &reply) < 0) {
            say(std::string(error.name == nullptr ? "no reply" : error.name));
            continue;
        }
        say(replyText(reply));
    }
    waitForEnd();
}

void askForStatus(int connection) {
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    constexpr std::uint64_t tenSeconds = 10'000'000;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, connection, connection) < 0 ||
        sd_bus_start(bus) < 0 ||
        sd_bus_call(bus, newRequest(bus, "status"), tenSeconds, nullptr, &reply) < 0) {
        giveUp("status");
    }
    sd_bus_message_unref(reply);
    sd_bus_close_unref(bus);
}

}  // namespace

int main(int count, char** rawWords, char** environment) {
    Words words(rawWords + 1, rawWords + count);
    if (!words.empty() && words[0] == "drop-group") {
        if (setresgid(getgid(), getgid(), getgid()) != 0) {
            giveUp("setresgid");
        }
        words.erase(words.begin());
    }
    const std::string mode = words.empty() ? "" : words[0];
    if (mode == "wait") {
        say("waiting");
        waitForEnd();
    }
    if (mode == "connect") {
        connectTo(words[1]);
        say("connected");
        waitForEnd();
    }
    if (mode == "connect-many") {
        for (int count = std::stoi(words[2]); count > 0; --count) {
            connectTo(words[1]);
        }
        say("connected");
        waitForEnd();
    }
    if (mode == "connect-say") {
        if (write(connectTo(words[1]), words[2].data(), words[2].size()) < 0) {
            giveUp("write");
        }
        say("connected");
        waitForEnd();
    }
    if (mode == "connect-run") {
        connectTo(words[1]);
        run({words.begin() + 2, words.end()});
    }
    if (mode == "connect-share") {
        connectTo(words[1]);
        if (fork() == 0) {
            waitForEnd();
        }
        say("connected");
        return EXIT_SUCCESS;
    }
    if (mode == "forge") {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
            mount(words[1].c_str(), words[2].c_str(), nullptr, MS_BIND, nullptr) != 0) {
            giveUp("forge");
        }
        run({words.begin() + 2, words.end()});
    }
    if (mode == "ask-often") {
        for (int left = std::stoi(words[2]); left > 0; --left) {
            askForStatus(connectTo(words[1]));
        }
        say("asked");
        return EXIT_SUCCESS;
    }
    if (mode == "ask") {
        ask({words.begin() + 2, words.end()}, connectTo(words[1]));
    }
    return halvo::testing::reportStart(count, rawWords, environment);
}
