// The other end of NSXPC in a test. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <vector>

namespace fake {

// What a listener was made and told, by its Mach service name. Nothing when there is none.
struct ListenerState {
    std::string requirement;
    bool isResumed{};
    bool hadRequirementWhenResumed{};
    bool hadDelegateWhenResumed{};
};

std::optional<ListenerState> listener(const std::string& service);

// Connects to the service as a process that meets the requirement, which is the system's to check
// and is not checked here; nor are the classes of arguments, which NSXPC takes from the protocol.
// As NSXPC does it: the delegate is asked on the listener's own queue, a thread that is not the
// main queue's. Nil when nothing listens or the delegate refuses.
NSXPCConnection* connect(const std::string& service, pid_t pid, uid_t uid);

// The protocol of a connection's exported interface; and what it had when it was resumed:
// "interface", "object", "handler", and "resume" itself.
std::string exportedProtocol(NSXPCConnection* connection);
std::vector<std::string> steps(NSXPCConnection* connection);

// Has `work` call the exported object on the connection's own queue, a thread that is not the main
// queue's, and waits for it. Ends the process when the connection is not resumed, or its exported
// object does not conform to the exported interface's protocol.
void request(NSXPCConnection* connection, void (^work)(id exported));

// The other end goes away: the invalidation handler runs on the connection's queue, once, and the
// connection lets go of what it held.
void invalidate(NSXPCConnection* connection);

}  // namespace fake
