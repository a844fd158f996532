#include "HalvoHelper/LiveOpener.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

constexpr const char* systemdRun = "/usr/bin/systemd-run";
// The app may fork and end its first process without being counted as gone.
constexpr const char* untilAllHaveEnded = "--property=ExitType=cgroup";

// Makes a unit's name unique.
std::string randomSuffix() {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", arc4random());
    return text.data();
}

// A systemd manager expands "$" in a command's arguments (systemd.service(5)); "$$" stands for one.
// Not in the first word, which systemd-run(1) takes as the path of a file.
std::string withoutExpansion(std::string argument) {
    for (std::size_t at = 0; (at = argument.find('$', at)) != std::string::npos; at += 2) {
        argument.insert(at, 1, '$');
    }
    return argument;
}

// The command by which systemd starts the mode in a unit of its own, so that nothing of the
// helper's sandbox, limits and cgroup reaches the app, nor any setting of the user's own manager.
// Not in the user's slice, whose limits the user can exhaust so that nothing more starts.
std::vector<std::string> unitOf(const std::string& helper, const OpenAsUser::Request& request) {
    std::vector<std::string> words{
        systemdRun, "--quiet", "--collect", "--no-ask-password",
        "--description=Opens the app for user " + std::to_string(request.uid),
        "--unit=halvo-open-" + randomSuffix() + ".service", untilAllHaveEnded,
        // The app starts with signals as the kernel has them, not as systemd likes.
        "--property=IgnoreSIGPIPE=no",
        // An app that runs here is outside the limits of the user's slice, and has these: many
        // times what an app needs, and no more than the machine can bear. No RLIMIT_NPROC, which
        // the user's other processes can exhaust.
        "--property=TasksMax=4096", "--property=MemoryMax=50%", "--", helper};
    for (const std::string& word : OpenAsUser::withWords({}, request)) {
        words.push_back(withoutExpansion(word));
    }
    return words;
}

// Starts a program as LiveOpener's contract says of its child; posix_spawn(3). Returns 0 or the
// errno: also of the calls before, which fail only without memory, since the child would otherwise
// inherit more than it should.
int start(std::vector<std::string> words, bool keepsErrorOutput) {
    const ArgumentVector arguments(std::move(words));
    const ArgumentVector environment({});
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    constexpr auto flags =
        static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    int error = 0;
    for (const int result :
         {posix_spawnattr_setsigmask(&attributes, &none),
          posix_spawnattr_setsigdefault(&attributes, &all),
          posix_spawnattr_setflags(&attributes, flags),
          posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0),
          posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO),
          keepsErrorOutput
              ? 0
              : posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO),
          posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1),
          posix_spawn_file_actions_addchdir_np(&actions, "/")}) {
        error = error == 0 ? result : error;
    }
    pid_t child = 0;
    if (error == 0) {
        error = posix_spawn(&child, arguments.data()[0], &actions, &attributes, arguments.data(),
                            environment.data());
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// ------------------------------------------------------------------------- the open-as-user mode

// How long the user's manager may take to answer: one that hangs must not keep the app closed.
constexpr Seconds managerTimeout{2};

// A manager that answers may still never reply to systemd-run(1); the next opening by way of it
// comes after 30 seconds. What it was asked to start stays.
constexpr unsigned managerSecondsAtMost = 30;

// Whether the user's own systemd manager replies on the socket in XDG_RUNTIME_DIR that
// systemd-run(1) would use. A manager that was killed may leave the socket's file behind, and one
// that hangs still accepts.
bool managerAnswers(const std::string& sessionFolder) {
    const std::string address = "unix:path=" + sessionFolder + "/systemd/private";
    // Nothing while it has not replied.
    using Answer = std::optional<bool>;
    Answer answer;
    // A connection that breaks replies too, with an error that sd-bus makes up.
    const auto onReply = [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
        *static_cast<Answer*>(userdata) = sd_bus_message_is_method_error(reply, nullptr) == 0;
        return 0;
    };
    const Seconds end = sinceBoot() + managerTimeout;
    sd_bus* bus = nullptr;
    // Connects without waiting; the kernel refuses at once where there is no listener.
    bool isOpen =
        sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
        sd_bus_start(bus) >= 0 &&
        sd_bus_call_method_async(bus, nullptr, nullptr, "/org/freedesktop/systemd1",
                                 "org.freedesktop.DBus.Peer", "Ping", onReply, &answer, "") >= 0;
    Seconds left = managerTimeout;
    while (isOpen && !answer && left > Seconds{0}) {
        // Processes a message, or waits for one.
        const int result = sd_bus_process(bus, nullptr);
        isOpen = result > 0 || (result == 0 && sd_bus_wait(bus, microseconds(left)) >= 0);
        left = end - sinceBoot();
    }
    sd_bus_close_unref(bus);
    return answer.value_or(false);
}

// The identifier of the bundle with "_" for all but ASCII letters, digits and ".", the characters
// that are safe in a unit's name.
std::string unitNameOf(const Bundle& bundle) {
    std::string name = infoString(bundle.info(), HelperIdentity::bundleIDKey).value_or("app");
    const auto isUnsafe = [](unsigned char c) { return c != '.' && std::isalnum(c) == 0; };
    std::ranges::replace_if(name, isUnsafe, '_');
    return name;
}

}  // namespace

OpenAsUser::Command OpenAsUser::commandFor(const Request& request) {
    const Bundle bundle(request.appPath);
    const std::string executable =
        bundle.executablePath().value_or(AppLocation::usualExecutable(request.appPath));
    // systemd-run(1), environment.
    const std::string sessionFolder = "/run/user/" + std::to_string(request.uid);
    if (request.directly || !managerAnswers(sessionFolder)) {
        return {{executable}, {}};
    }
    return {{systemdRun, "--user", "--quiet", "--collect",
             // The start fails when the executable cannot be run, instead of later.
             "--service-type=exec", "--slice=app.slice", untilAllHaveEnded,
             "--unit=app-halvo-" + unitNameOf(bundle) + "@" + randomSuffix() + ".service", "--",
             executable},
            {"XDG_RUNTIME_DIR=" + sessionFolder},
            managerSecondsAtMost};
}

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    if (!itemExists(appPath)) {
        return;
    }
    const bool booted = sd_booted() > 0;
    // The app's output when it runs in a unit of the system's manager, and in one of the user's.
    const std::string journal =
        "journalctl -u 'halvo-open-*' -u user@" + std::to_string(uid) + ".service";
    const long failed = streak_.next(appPath, uid, sinceBoot(), booted ? journal : "none are kept");
    // The disposition stays the default: ignored.
    struct sigaction reaping{};
    reaping.sa_handler = SIG_DFL;
    reaping.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &reaping, nullptr);
    const bool directly = failed % 2 == 1;
    const OpenAsUser::Request request{uid, appPath, afterQuit, directly};
    // Errors of systemd-run(1) go to the helper's standard error, the journal.
    const int error = start(booted ? unitOf(helperExecutable_, request)
                                   : OpenAsUser::withWords({helperExecutable_}, request),
                            booted);
    if (error != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", errorText(error).c_str());
    }
}

}  // namespace halvo
