#include "HalvoHelper/Linux/OpenAsUser.hpp"

#include <sys/random.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"

namespace halvo::OpenAsUser {
namespace {

// A systemd manager expands "$" in what it is told to run (systemd.service(5)); twice it is one.
// Not so in the first word: there systemd-run(1) looks for that very file.
std::string withoutExpansion(std::string argument) {
    for (std::size_t at = 0; (at = argument.find('$', at)) != std::string::npos; at += 2) {
        argument.insert(at, 1, '$');
    }
    return argument;
}

// `text` with all but ASCII letters and digits, which are safe in a unit's name, as "_".
std::string unitName(std::string text) {
    std::ranges::replace_if(
        text,
        [](char c) {
            return (c < 'a' || c > 'z') && (c < 'A' || c > 'Z') && (c < '0' || c > '9') && c != '.';
        },
        '_');
    return text;
}

// A manager that answers may still leave what asks it to start the app waiting for ever; the next
// opening that is for it comes after 30 seconds. What it was asked to start stays.
constexpr unsigned managerSecondsAtMost = 30;

// How long the user's manager may take to answer. One that is stuck must not keep the app closed.
constexpr std::chrono::seconds managerPatience{2};

// The folder of the user's session: systemd-run(1), environment.
std::string sessionFolder(const User& user) { return "/run/user/" + std::to_string(user.uid); }

// Whether the manager is well; nothing while it has not replied.
using Answer = std::optional<bool>;

// Serves `bus` until the reply to the ping sets `answer`, or patience ends.
void waitForAnswer(sd_bus* bus, const Answer& answer) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + managerPatience;
    std::chrono::microseconds left = managerPatience;
    for (int result = 0; !answer && result >= 0 && left.count() > 0;) {
        result = sd_bus_process(bus, nullptr);
        if (result == 0) {
            result = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        }
        left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
    }
}

// Whether the user's own systemd manager really answers on the socket that systemd-run(1) would
// use. A manager that is gone may leave the socket's file behind, and one that is stuck still
// accepts.
bool managerAnswers(const User& user) {
    const auto address = socketAddress(sessionFolder(user) + "/systemd/private");
    // Without waiting; the kernel says at once when nobody listens.
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sd_bus* bus = nullptr;
    if (!address || connect(socket.get(), generic(*address), sizeof *address) != 0 ||
        sd_bus_new(&bus) < 0) {
        return false;
    }
    Answer answer;
    // A connection that breaks replies too, with an error that sd-bus makes up.
    const auto onReply = [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
        *static_cast<Answer*>(userdata) = sd_bus_message_is_method_error(reply, nullptr) == 0;
        return 0;
    };
    if (sd_bus_set_fd(bus, socket.get(), socket.get()) >= 0) {
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
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", number);
    return text.data();
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
    for (const std::string& word : withWords({}, request)) {
        command.arguments.push_back(withoutExpansion(word));
    }
    return command;
}

Command helperCommand(const std::string& helperExecutable, const Request& request) {
    return {helperExecutable, withWords({helperExecutable}, request), {}};
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
    command.arguments = withAppArguments(std::move(command.arguments), request.afterQuit);
    command.environment.push_back("XDG_RUNTIME_DIR=" + sessionFolder(user));
    return command;
}

Command directCommand(const Request& request, const User& user, const std::string& executable) {
    return {executable, withAppArguments({executable}, request.afterQuit), environment(user)};
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
