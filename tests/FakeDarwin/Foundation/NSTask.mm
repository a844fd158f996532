#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../FakeDarwin.hpp"
#include "../System/Threads.hpp"
#include "Foundation.hpp"

namespace {

// What the child has when a task names no environment.
std::map<std::string, std::string> ownEnvironment() {
    std::map<std::string, std::string> own;
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string variable = *each;
        const auto sign = variable.find('=');
        own[variable.substr(0, sign)] = variable.substr(sign + 1);
    }
    return own;
}

std::map<std::string, std::string> environmentOf(NSTask* task) {
    if (task.environment == nil) {
        return ownEnvironment();
    }
    std::map<std::string, std::string> environment;
    for (NSString* name in task.environment) {
        environment[fake::textOf(name)] = fake::textOf(task.environment[name]);
    }
    return environment;
}

// Runs the program, where this machine has it, to its end. Apple's documentation of NSTask says
// nothing of signals, so the child has them as posix_spawn(2) leaves them: ignored and blocked as
// in the thread that launches.
void runChild(const fake::Launch& launch) {
    if (access(launch.executable.c_str(), X_OK) != 0) {
        return;
    }
    std::string name = launch.executable;
    std::vector<std::string> arguments = launch.arguments;
    std::vector<std::string> variables;
    for (const auto& [key, value] : launch.environment) {
        variables.push_back(key + "=" + value);
    }
    std::vector<char*> words{name.data()};
    std::vector<char*> environment;
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    for (std::string& variable : variables) {
        environment.push_back(variable.data());
    }
    words.push_back(nullptr);
    environment.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, name.c_str(), nullptr, nullptr, words.data(), environment.data()) ==
        0) {
        waitpid(child, nullptr, 0);
    }
}

}  // namespace

@implementation NSTask {
    BOOL _wasLaunched;
}

- (BOOL)launchAndReturnError:(NSError**)error {
    if (self.executableURL == nil || _wasLaunched) {
        fake::refuse(_wasLaunched ? "to launch a task twice" : "a task without an executable");
    }
    if (const auto& reason = fake::world().launchError) {
        if (error != nullptr) {
            *error = fake::errorOf(*reason);
        }
        return NO;
    }
    _wasLaunched = YES;
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
        // The task is over at once; its end is told on a queue of the system's.
        fake::runElsewhere([self] { self.terminationHandler(self); });
    }
    return YES;
}

@end
