#include "FakeXPC.hpp"

#include <gtest/gtest.h>

#include "Foundation/Foundation.hpp"
#include "Foundation/NSXPC.hpp"
#include "System/Threads.hpp"

extern "C" const char* fakeProtocolName(Protocol* protocol);

namespace fake {

std::optional<ListenerState> listener(const std::string& service) {
    @autoreleasepool {
        NSXPCListener* found = [NSXPCListener fakeListenerNamed:service];
        return found == nil ? std::nullopt : std::optional([found fakeState]);
    }
}

NSXPCConnection* connect(const std::string& service, pid_t pid, uid_t uid) {
    NSXPCConnection* accepted = nil;
    runElsewhere([&] {
        NSXPCListener* found = [NSXPCListener fakeListenerNamed:service];
        id<NSXPCListenerDelegate> delegate = found.delegate;
        SEL question = @selector(listener:shouldAcceptNewConnection:);
        if (found == nil || ![found fakeState].isResumed ||
            ![delegate respondsToSelector:question]) {
            return;
        }
        NSXPCConnection* connection = [[NSXPCConnection alloc] initFakePeer:pid user:uid];
        if ([delegate listener:found shouldAcceptNewConnection:connection]) {
            accepted = connection;
        }
    });
    return accepted;
}

std::string exportedProtocol(NSXPCConnection* connection) {
    @autoreleasepool {
        return fakeProtocolName(connection.exportedInterface.protocol);
    }
}

std::vector<std::string> steps(NSXPCConnection* connection) { return [connection fakeSteps]; }

void request(NSXPCConnection* connection, void (^work)(id exported)) {
    runElsewhere([&] {
        id exported = connection.exportedObject;
        if (![connection fakeIsResumed]) {
            ADD_FAILURE() << "a request on a connection that is not resumed";
        } else if (![exported conformsToProtocol:connection.exportedInterface.protocol]) {
            ADD_FAILURE() << "the exported object is none of the exported interface";
        } else {
            work(exported);
        }
    });
}

void invalidate(NSXPCConnection* connection) {
    runElsewhere([&] { [connection fakeInvalidate]; });
}

}  // namespace fake
