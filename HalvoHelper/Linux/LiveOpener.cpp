#include "HalvoHelper/LiveOpener.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

constexpr const char* systemdRun = "/usr/bin/systemd-run";
// The app may fork and end its first process without being counted as gone.
constexpr const char* untilAllHaveEnded = "--property=ExitType=cgroup";

// Keeps one unit's name from another's.
std::string randomSuffix() {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", arc4random());
    return text.data();
}

// A systemd manager expands "$" in what it is told to run (systemd.service(5)); twice it is one.
// Not so in the first word: there systemd-run(1) looks for that very file.
std::string withoutExpansion(std::string argument) {
    for (std::size_t at = 0; (at = argument.find('$', at)) != std::string::npos; at += 2) {
        argument.insert(at, 1, '$');
    }
    return argument;
}

// Has systemd start the mode in a unit of its own, so that nothing of the helper's sandbox, limits
// and cgroup reaches the app, and nothing that the user can tell their own manager. Not in the
// person's slice, whose limits they can use up so that nothing more starts.
std::vector<std::string> unitOf(const std::string& helper, const OpenAsUser::Request& request) {
    std::vector<std::string> words{
        systemdRun, "--quiet", "--collect", "--no-ask-password",
        "--description=Opens the app for user " + std::to_string(request.uid),
        "--unit=halvo-open-" + randomSuffix() + ".service", untilAllHaveEnded,
        // The app starts with signals as the kernel has them, not as systemd likes.
        "--property=IgnoreSIGPIPE=no",
        // An app that is run here is out of reach of the limits of the person's slice, and has
        // these: many times what an app takes, and no more than the machine bears. Not by number
        // of processes of the user (RLIMIT_NPROC), which that user's other programs can use up.
        "--property=TasksMax=4096", "--property=MemoryMax=50%", "--", helper};
    for (const std::string& word : OpenAsUser::withWords({}, request)) {
        words.push_back(withoutExpansion(word));
    }
    return words;
}

// Starts a program with what LiveOpener says of its child; posix_spawn(3). 0, or the errno: also of
// the calls before, which fail only without memory, since the child would then start with less
// taken away from it than it should.
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

// How long the user's manager may take to answer. One that is stuck must not keep the app closed.
constexpr std::chrono::seconds managerPatience{2};

// A manager that answers may still leave what asks it to start the app waiting for ever; the next
// opening that is for it comes after 30 seconds. What it was asked to start stays.
constexpr unsigned managerSecondsAtMost = 30;

// Whether the manager is well; nothing while it has not replied.
using Answer = std::optional<bool>;

// Serves `bus` until the reply to the ping sets `answer`, or patience ends.
void waitForAnswer(sd_bus* bus, const Answer& answer) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + managerPatience;
    int result = 0;
    while (!answer && result >= 0 && Clock::now() < end) {
        const auto left = std::chrono::ceil<std::chrono::microseconds>(end - Clock::now());
        result = sd_bus_process(bus, nullptr);
        if (result == 0) {
            result = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        }
    }
}

// Whether the user's own systemd manager really answers on the socket in the folder of the user's
// session that systemd-run(1) would use. A manager that is gone may leave the socket's file behind,
// and one that is stuck still accepts.
bool managerAnswers(const std::string& sessionFolder) {
    const std::string address = "unix:path=" + sessionFolder + "/systemd/private";
    Answer answer;
    // A connection that breaks replies too, with an error that sd-bus makes up.
    const auto onReply = [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
        *static_cast<Answer*>(userdata) = sd_bus_message_is_method_error(reply, nullptr) == 0;
        return 0;
    };
    sd_bus* bus = nullptr;
    // Connects without waiting; the kernel says at once when nobody listens.
    if (sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
        sd_bus_start(bus) >= 0 &&
        sd_bus_call_method_async(bus, nullptr, nullptr, "/org/freedesktop/systemd1",
                                 "org.freedesktop.DBus.Peer", "Ping", onReply, &answer, "") >= 0) {
        waitForAnswer(bus, answer);
    }
    sd_bus_close_unref(bus);
    return answer.value_or(false);
}

// The identifier of the bundle with all but ASCII letters, digits and "." as "_", which leaves what
// is safe in a unit's name.
std::string unitNameOf(const Bundle& bundle) {
    std::string name = infoString(bundle.info(), "CFBundleIdentifier").value_or("app");
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
    // What the app says when it is run in a unit of the system's manager, and in one of the user's.
    const std::string journal =
        "journalctl -u 'halvo-open-*' -u user@" + std::to_string(uid) + ".service";
    const long failed = streak_.next(appPath, uid, sinceBoot(), booted ? journal : "none are kept");
    // What the signal itself does stays the default: nothing.
    struct sigaction reaping{};
    reaping.sa_handler = SIG_DFL;
    reaping.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &reaping, nullptr);
    const bool directly = failed % 2 == 1;
    const OpenAsUser::Request request{uid, appPath, afterQuit, directly};
    // What systemd-run(1) has to say goes where the helper's own errors go, to the journal.
    const int error = start(booted ? unitOf(helperExecutable_, request)
                                   : OpenAsUser::withWords({helperExecutable_}, request),
                            booted);
    if (error != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", errorText(error).c_str());
    }
}

}  // namespace halvo
