#include "HalvoHelper/LiveOpener.hpp"

#import <Foundation/Foundation.h>
#include <pthread.h>

#include <csignal>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

// Starts the mode in the session of the user; launchctl(1), asuser.
OpenAsUser::Command launchctlCommand(const std::string& helperExecutable,
                                     const OpenAsUser::Request& request) {
    OpenAsUser::Command command{
        "/bin/launchctl",
        {"/bin/launchctl", "asuser", std::to_string(request.uid), helperExecutable},
        {}};
    OpenAsUser::append(command.arguments, OpenAsUser::words(request));
    return command;
}

NSTask* taskOf(const OpenAsUser::Command& command) {
    NSTask* task = [[NSTask alloc] init];
    task.executableURL = [NSURL fileURLWithPath:knownFoundationText(command.path)];
    NSMutableArray<NSString*>* arguments = [NSMutableArray array];
    // The first is the program's own name, which NSTask adds itself.
    for (std::size_t i = 1; i < command.arguments.size(); ++i) {
        NSString* argument = foundationText(command.arguments[i]);
        // A path that is not UTF-8 leads nowhere; nil would end the process.
        [arguments addObject:argument != nil ? argument : @""];
    }
    task.arguments = arguments;
    // Nothing; without it the child would have ours.
    task.environment = @{};
    // Nobody waits for it.
    task.terminationHandler = ^(NSTask*) {
    };
    return task;
}

// Who the helper is, by its own Info.plist.
std::optional<HelperIdentity> ownIdentity() {
    return HelperIdentity::helper(Bundle::main().info());
}

// Whether `bundle` has the `executable` in it, is root's alone from itself downwards, and
// is locked: then nobody else can put another in its place, although its folder is not root's alone
// ("/Applications" is the admin group's); chflags(2), SF_IMMUTABLE.
bool isPinned(const std::string& executable, const std::string& bundle) {
    const std::filesystem::path folder = std::filesystem::path(bundle).parent_path();
    std::error_code missing;
    return executable.starts_with(bundle + "/") &&
           // A link could be followed to a folder that others can put in another's place.
           std::filesystem::is_directory(std::filesystem::symlink_status(folder, missing)) &&
           !RootOwnedPath::problem(folder.parent_path(), RootOwnedPath::Item::folder) &&
           ChflagsFileFlags(ItemFlag::systemImmutable).state(bundle) == LockState::locked &&
           !RootOwnedPath::problem(executable, RootOwnedPath::Item::file, bundle);
}

// The program to start as root: the helper's `executable` where root alone decides what lies there,
// and a copy of it elsewhere. Or why there is none.
std::expected<std::string, std::string> rootsProgram(const std::string& executable,
                                                     const std::string& appPath) {
    if (!RootOwnedPath::problem(executable) || isPinned(executable, appPath)) {
        return executable;
    }
    const auto identity = ownIdentity();
    if (!identity) {
        return std::unexpected("The helper has no team or app identifier in its Info.plist");
    }
    return HelperCopy::make(executable, *identity);
}

// While it lives, what this thread starts has every signal at its default and none blocked,
// whatever NSTask does about them: the helper ignores SIGTERM, and Dispatch's threads
// block all they can.
//
// What is ignored is caught meanwhile, by nothing: execve(2) makes that the default in the child,
// and a SIGTERM that comes just now still does not end the helper, and still reaches the source
// that watches it (kqueue(2), EVFILT_SIGNAL).
class ChildSignals {
  public:
    ChildSignals() {
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action{};
            if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
                ignored_.push_back(signal);
                setHandler(signal, [](int) {});
            }
        }
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, &mask_);
    }

    ChildSignals(const ChildSignals&) = delete;
    ChildSignals& operator=(const ChildSignals&) = delete;

    ~ChildSignals() {
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        for (const int signal : ignored_) {
            setHandler(signal, SIG_IGN);
        }
    }

  private:
    static void setHandler(int signal, void (*handler)(int)) {
        struct sigaction action{};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(signal, &action, nullptr);
    }

    std::vector<int> ignored_;
    sigset_t mask_{};
};

void logFailure(const std::string& reason) {
    HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", reason.c_str());
}

// Who reads it types it into a shell: a path that could end the quotes is not in it.
std::string unifiedLogOf(const std::string& appPath) {
    const bool isPlain = appPath.find_first_of("'\"\\") == std::string::npos;
    return "log show --last 10m --predicate 'processImagePath CONTAINS \"" +
           (isPlain ? appPath : ".app") + "/\"'";
}

}  // namespace

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {
    if (const auto identity = ownIdentity()) {
        HelperCopy::remove(*identity);
    }
}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    @autoreleasepool {
        if (!itemExists(appPath)) {
            return;
        }
        const auto program = rootsProgram(helperExecutable_, appPath);
        if (!program) {
            logFailure(program.error());
            return;
        }
        streak_.next(appPath, uid, sinceBoot(), unifiedLogOf(appPath));
        NSTask* task = taskOf(launchctlCommand(*program, {uid, appPath, afterQuit}));
        NSError* error = nil;
        const ChildSignals signals;
        if (![task launchAndReturnError:&error]) {
            logFailure(textOf(error.localizedDescription).value_or(""));
        }
    }
}

}  // namespace halvo
