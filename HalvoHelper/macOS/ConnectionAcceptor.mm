#include "HalvoHelper/macOS/ConnectionAcceptor.hpp"

#include <string>

#include "HalvoHelper/macOS/ExecutablePath.hpp"
#include "HalvoHelper/macOS/HelperConnection.hpp"

namespace {

std::unique_ptr<halvo::HelperConnection> requestsOf(NSXPCConnection* caller,
                                                    halvo::ConnectionAcceptor& acceptor) {
    halvo::PathBuffer buffer;
    const auto executable = halvo::executablePath(caller.processIdentifier, buffer);
    return acceptor.accept(caller.effectiveUserIdentifier,
                           executable ? std::optional<std::string>(*executable) : std::nullopt);
}

}  // namespace

@implementation ConnectionAcceptor {
    halvo::ConnectionAcceptor* _acceptor;
}

- (instancetype)initWithAcceptor:(halvo::ConnectionAcceptor&)acceptor {
    self = [super init];
    if (self != nil) {
        _acceptor = &acceptor;
    }
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    halvo::ConnectionAcceptor* acceptor = _acceptor;
    auto requests = requestsOf(connection, *acceptor);
    connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(HalvoHelperXPC)];
    connection.exportedObject = [[HelperConnection alloc] initWithRequests:std::move(requests)];
    connection.invalidationHandler = ^{
      acceptor->invalidated();
    };
    // Before the first request can arrive.
    acceptor->admitted();
    [connection resume];
    return YES;
}

@end
