#include "HalvoHelper/LiveOpener.hpp"

#import <Foundation/Foundation.h>

#include <string>
#include <utility>

#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

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

std::string unifiedLogOf(const std::string& appPath) {
    return "log show --last 10m --predicate 'processImagePath BEGINSWITH \"" + appPath + "/\"'";
}

}  // namespace

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    @autoreleasepool {
        if (!itemExists(appPath)) {
            return;
        }
        streak_.next(appPath, uid, sinceBoot(), unifiedLogOf(appPath));
        NSTask* task =
            taskOf(OpenAsUser::launchctlCommand(helperExecutable_, {uid, appPath, afterQuit}));
        NSError* error = nil;
        if (![task launchAndReturnError:&error]) {
            HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s",
                            textOf(error.localizedDescription).value_or("").c_str());
        }
    }
}

}  // namespace halvo
