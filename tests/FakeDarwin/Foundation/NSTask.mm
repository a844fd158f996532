#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../FakeDarwin.hpp"
#include "../Parts.hpp"
#include "HalvoHelper/ArgumentVector.hpp"

namespace {

std::map<std::string, std::string> environmentOf(NSTask* task) {
    std::map<std::string, std::string> environment;
    for (NSString* name in task.environment) {
        environment[fake::textOf(name)] = fake::textOf(task.environment[name]);
    }
    // Without an environment the child inherits that of the process.
    for (char** each = environ; task.environment == nil && *each != nullptr; ++each) {
        const std::string variable = *each;
        const auto sign = variable.find('=');
        environment[variable.substr(0, sign)] = variable.substr(sign + 1);
    }
    return environment;
}

// Runs the program, if it exists, to its end. Apple's documentation of NSTask does not specify
// signals, so the child inherits the ignored and blocked ones of the launching thread, as with
// posix_spawn(2).
void runChild(const fake::Launch& launch) {
    std::vector<std::string> words = launch.arguments;
    words.insert(words.begin(), launch.executable);
    std::vector<std::string> variables;
    for (const auto& [key, value] : launch.environment) {
        variables.push_back(key + "=" + value);
    }
    pid_t child = 0;
    if (posix_spawn(&child, launch.executable.c_str(), nullptr, nullptr,
                    halvo::ArgumentVector(words).data(),
                    halvo::ArgumentVector(variables).data()) == 0) {
        waitpid(child, nullptr, 0);
    }
}

}  // namespace

@implementation NSTask

- (BOOL)launchAndReturnError:(NSError**)error {
    if (const auto& reason = fake::world().launchError) {
        *error = fake::errorOf(*reason);
        return NO;
    }
    fake::Launch launch;
    launch.executable = fake::textOf(self.executableURL.path);
    for (NSString* argument in self.arguments) {
        launch.arguments.push_back(fake::textOf(argument));
    }
    launch.environment = environmentOf(self);
    launch.hasTerminationHandler = self.terminationHandler != nil;
    fake::world().launches.push_back(launch);
    if (fake::world().onLaunch) {
        fake::world().onLaunch(launch);
    }
    runChild(launch);
    if (self.terminationHandler != nil) {
        // Called on a thread of the system, as by NSTask.
        fake::runElsewhere([self] { self.terminationHandler(self); });
    }
    return YES;
}

@end
