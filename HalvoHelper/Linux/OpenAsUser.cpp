#include "HalvoHelper/Linux/OpenAsUser.hpp"

#include <sys/random.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"

namespace halvo::OpenAsUser {
namespace {

// A systemd manager expands "$" in what it is told to run (systemd.service(5)); twice it is one.
// Not so in the first word: there systemd-run(1) looks for that very file.
std::string withoutExpansion(const std::string& argument) {
    std::string result;
    for (const char character : argument) {
        result += character;
        if (character == '$') {
            result += character;
        }
    }
    return result;
}

// `text` with all but ASCII letters and digits, which are safe in a unit's name, as "_".
std::string unitName(const std::string& text) {
    std::string result = text;
    for (char& c : result) {
        const bool safe =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.';
        c = safe ? c : '_';
    }
    return result;
}

// A manager that answers may still leave what asks it to start the app waiting for ever; the next
// opening that is for it comes after 30 seconds. What it was asked to start stays.
constexpr unsigned managerSecondsAtMost = 30;

// How long the user's manager may take to answer. One that is stuck must not keep the app closed.
constexpr std::chrono::seconds managerPatience{2};

// Connects without waiting; the kernel says at once when nobody listens.
Descriptor connectTo(const std::string& path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto address = socketAddress(path);
    const bool connected = socket.isOpen() && address &&
                           connect(socket.get(), generic(*address), sizeof *address) == 0;
    return connected ? std::move(socket) : Descriptor{};
}

// Whether the manager is well; nothing while it has not replied.
using Answer = std::optional<bool>;

// Notes the reply in the Answer `userdata`. A connection that breaks replies too, with an error
// that sd-bus makes up.
int onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    *static_cast<Answer*>(userdata) = sd_bus_message_is_method_error(reply, nullptr) == 0;
    return 0;
}

// Serves `bus` until the reply to the ping sets `answer`, or patience ends.
void waitForAnswer(sd_bus* bus, const Answer& answer) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + managerPatience;
    while (!answer) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0) {
            return;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
        if (left.count() <= 0 ||
            (processed == 0 && sd_bus_wait(bus, static_cast<std::uint64_t>(left.count())) < 0)) {
            return;
        }
    }
}

// Whether the user's own systemd manager really answers on the socket that systemd-run(1) would
// use. A manager that is gone may leave the socket's file behind, and one that is stuck still
// accepts.
bool managerAnswers(const User& user) {
    Descriptor socket = connectTo("/run/user/" + std::to_string(user.uid) + "/systemd/private");
    sd_bus* bus = nullptr;
    if (!socket.isOpen() || sd_bus_new(&bus) < 0) {
        return false;
    }
    Answer answer;
    const int descriptor = socket.get();
    if (sd_bus_set_fd(bus, descriptor, descriptor) >= 0) {
        [[maybe_unused]] const int owned = socket.release();  // by the bus
        if (sd_bus_start(bus) >= 0 &&
            sd_bus_call_method_async(bus, nullptr, nullptr, "/org/freedesktop/systemd1",
                                     "org.freedesktop.DBus.Peer", "Ping", onReply, &answer,
                                     "") >= 0) {
            waitForAnswer(bus, answer);
        }
    }
    sd_bus_close_unref(bus);
    return answer.value_or(false);
}

}  // namespace

std::string randomUnitSuffix() {
    std::uint32_t number = 0;
    // For uniqueness only: without randomness the process id does.
    if (getrandom(&number, sizeof number, 0) != sizeof number) {
        number = static_cast<std::uint32_t>(getpid());
    }
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 4) {
        text += digits[number >> shift & 0xFU];
    }
    return text;
}

Command systemCommand(const std::string& helperExecutable, const Request& request,
                      const std::string& unitSuffix) {
    // Not in the person's slice, whose limits they can use up so that nothing more starts.
    Command command{
        "/usr/bin/systemd-run",
        {"/usr/bin/systemd-run", "--quiet", "--collect", "--no-ask-password",
         "--description=Opens the app for user " + std::to_string(request.uid),
         "--unit=halvo-open-" + unitName(unitSuffix) + ".service",
         // The app may fork and end its first process without being counted as gone.
         "--property=ExitType=cgroup",
         // The app starts with signals as the kernel has them, not as systemd likes.
         "--property=IgnoreSIGPIPE=no",
         // An app that is run here is out of reach of the limits of the person's slice, and
         // has these: many times what an app takes, and no more than the machine bears.
         // Not by number of processes of the user (RLIMIT_NPROC), which that user's
         // other programs can use up.
         "--property=TasksMax=4096", "--property=MemoryMax=50%", "--", helperExecutable},
        {}};
    for (const std::string& word : words(request)) {
        command.arguments.push_back(withoutExpansion(word));
    }
    return command;
}

Command helperCommand(const std::string& helperExecutable, const Request& request) {
    Command command{helperExecutable, {helperExecutable}, {}};
    append(command.arguments, words(request));
    return command;
}

Command managerCommand(const Request& request, const User& user, const std::string& executable,
                       const std::string& appID, const std::string& unitSuffix) {
    Command command{
        "/usr/bin/systemd-run",
        {"/usr/bin/systemd-run", "--user", "--quiet", "--collect",
         // The start fails when the executable cannot be run, instead of later.
         "--service-type=exec", "--slice=app.slice",
         // The app may fork and end its first process without being counted as gone.
         "--property=ExitType=cgroup",
         "--unit=app-halvo-" + unitName(appID) + "@" + unitName(unitSuffix) + ".service", "--",
         executable},
        environment(user),
        managerSecondsAtMost};
    // Where the manager's socket is: systemd-run(1), environment.
    command.environment.push_back("XDG_RUNTIME_DIR=/run/user/" + std::to_string(user.uid));
    append(command.arguments, appArguments(request.afterQuit));
    return command;
}

Command directCommand(const Request& request, const User& user, const std::string& executable) {
    Command command{executable, {executable}, environment(user)};
    append(command.arguments, appArguments(request.afterQuit));
    return command;
}

Command commandFor(const Request& request, const User& user) {
    const Bundle bundle(request.appPath);
    const std::string executable =
        bundle.executablePath().value_or(AppLocation::usualExecutable(request.appPath));
    if (request.directly || !managerAnswers(user)) {
        return directCommand(request, user, executable);
    }
    const auto info = bundle.info();
    const auto identifier = info ? infoString(*info, "CFBundleIdentifier") : std::nullopt;
    return managerCommand(request, user, executable, identifier.value_or("app"),
                          randomUnitSuffix());
}

}  // namespace halvo::OpenAsUser
