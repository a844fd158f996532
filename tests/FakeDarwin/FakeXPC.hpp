// The peer's side of NSXPC connections. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <vector>

namespace fake {

// The state of the listener of a Mach service; nothing when there is none.
struct ListenerState {
    std::string requirement;
    bool isResumed{};
    bool hadRequirementWhenResumed{};
    bool hadDelegateWhenResumed{};
};

std::optional<ListenerState> listener(const std::string& service);

// Connects to the service as a process that meets the code-signing requirement, which is not
// checked here; nor are the classes of arguments, which NSXPC takes from the protocol. As in NSXPC,
// the delegate is called on the listener's own queue, not on the main thread. Nil when nothing
// listens or the delegate refuses.
NSXPCConnection* connect(const std::string& service, pid_t pid, uid_t uid);

// The protocol of a connection's exported interface; and which members were set when it was
// resumed: "interface", "object", "handler", and at last "resume".
std::string exportedProtocol(NSXPCConnection* connection);
std::vector<std::string> steps(NSXPCConnection* connection);

// Runs `work`, which calls the exported object, on the connection's own queue and waits for it.
// Aborts when the connection is not resumed, or its exported object does not conform to the
// exported interface's protocol.
void request(NSXPCConnection* connection, void (^work)(id exported));

// The peer disconnects: the invalidation handler runs once, on the connection's queue, and the
// connection releases its handler, object and interface.
void invalidate(NSXPCConnection* connection);

}  // namespace fake
