#include "HalvoHelper/LiveOpener.hpp"

#import <Foundation/Foundation.h>
#include <pthread.h>

#include <csignal>
#include <expected>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

// A task that starts the mode in `program` in the session of the user; launchctl(1), asuser.
NSTask* taskOf(const std::string& program, const OpenAsUser::Request& request) {
    NSTask* task = [[NSTask alloc] init];
    task.executableURL = [NSURL fileURLWithPath:@"/bin/launchctl"];
    NSMutableArray<NSString*>* arguments = [NSMutableArray array];
    for (const std::string& word :
         OpenAsUser::withWords({"asuser", std::to_string(request.uid), program}, request)) {
        NSString* argument = foundationText(word);
        // A path that is not UTF-8 names nothing; nil would throw.
        [arguments addObject:argument != nil ? argument : @""];
    }
    task.arguments = arguments;
    // Empty; without it the child would inherit ours.
    task.environment = @{};
    // The child is not waited for.
    task.terminationHandler = ^(NSTask*) {
    };
    return task;
}

// Whether `executable` lies in `bundle`, which is root's alone from itself downwards and locked:
// then only root can replace it, although its folder is not root's alone ("/Applications" belongs
// to the admin group); chflags(2), SF_IMMUTABLE.
bool isPinned(const std::string& executable, const std::string& bundle) {
    const std::filesystem::path folder = std::filesystem::path(bundle).parent_path();
    std::error_code missing;
    return executable.starts_with(bundle + "/") &&
           // A link could lead to a folder that other users can replace.
           std::filesystem::is_directory(std::filesystem::symlink_status(folder, missing)) &&
           !RootOwnedPath::problem(folder.parent_path(), RootOwnedPath::Item::folder) &&
           ChflagsFileFlags(ItemFlag::systemImmutable).state(bundle) == LockState::locked &&
           !RootOwnedPath::problem(executable, RootOwnedPath::Item::file, bundle);
}

// The program to start as root: the helper's `executable` where its path is root's alone, else a
// copy of it. Fails with the reason.
std::expected<std::string, std::string> rootsProgram(const std::string& executable,
                                                     const std::string& appPath) {
    if (!RootOwnedPath::problem(executable) || isPinned(executable, appPath)) {
        return executable;
    }
    const auto identity = HelperIdentity::helper(Bundle::main().info());
    if (!identity) {
        return std::unexpected("The helper has no team or app identifier in its Info.plist");
    }
    return HelperCopy::make(executable, *identity);
}

// Launches `task` with every signal at its default and none blocked, whatever NSTask does about
// them: the helper ignores SIGTERM, and Dispatch's threads block all they can. Returns why it
// failed, or nothing.
//
// Ignored signals get an empty handler meanwhile: execve(2) resets that to the default in the
// child, and a SIGTERM that arrives just now still does not end the helper, and still reaches the
// source that watches it (kqueue(2), EVFILT_SIGNAL).
std::optional<std::string> launch(NSTask* task) {
    std::vector<int> ignored;
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action{};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            ignored.push_back(signal);
            std::signal(signal, [](int) {});
        }
    }
    sigset_t none;
    sigset_t before;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &before);
    NSError* error = nil;
    const bool launched = [task launchAndReturnError:&error];
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (const int signal : ignored) {
        std::signal(signal, SIG_IGN);
    }
    return launched ? std::nullopt : std::optional(textOf(error.localizedDescription).value_or(""));
}

// The command that shows the app's log, to be pasted into a shell: a path that could end the quotes
// is left out.
std::string unifiedLogOf(const std::string& appPath) {
    const bool isPlain = appPath.find_first_of("'\"\\") == std::string::npos;
    return "log show --last 10m --predicate 'processImagePath CONTAINS \"" +
           (isPlain ? appPath : ".app") + "/\"'";
}

}  // namespace

OpenAsUser::Command OpenAsUser::commandFor(const Request& request) {
    Command command{{"/usr/bin/open", "-g", "-a", request.appPath}, {}};
    if (request.afterQuit) {
        command.arguments.emplace_back("--args");
    }
    return command;
}

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {
    if (const auto identity = HelperIdentity::helper(Bundle::main().info())) {
        HelperCopy::remove(*identity);
    }
}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    @autoreleasepool {
        if (!itemExists(appPath)) {
            return;
        }
        const auto program = rootsProgram(helperExecutable_, appPath);
        std::optional<std::string> failure;
        if (program) {
            streak_.next(appPath, uid, sinceBoot(), unifiedLogOf(appPath));
            failure = launch(taskOf(*program, {uid, appPath, afterQuit}));
        } else {
            failure = program.error();
        }
        if (failure) {
            HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", failure->c_str());
        }
    }
}

}  // namespace halvo
