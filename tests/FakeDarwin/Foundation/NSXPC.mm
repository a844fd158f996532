#include "NSXPC.hpp"

#include <map>

#include "Foundation.hpp"

namespace {

// A listener lives as long as who made it wants; a connection that was resumed, until it is
// invalid.
struct Registry {
    std::map<std::string, NSXPCListener * __weak> listeners;
    std::vector<NSXPCConnection*> connections;
};

Registry& registry() {
    static auto& all = *new Registry;
    return all;
}

}  // namespace

@implementation NSXPCInterface

+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
    if (protocol == nil) {
        fake::refuse("nil as a protocol");
    }
    NSXPCInterface* interface = [[NSXPCInterface alloc] init];
    interface.protocol = protocol;
    return interface;
}

@end

@implementation NSXPCListener {
    fake::ListenerState _state;
}

- (instancetype)initWithMachServiceName:(NSString*)name {
    if (name == nil) {
        fake::refuse("nil as the name of a Mach service");
    }
    self = [super init];
    if (self != nil) {
        registry().listeners[fake::textOf(name)] = self;
    }
    return self;
}

- (void)setConnectionCodeSigningRequirement:(NSString*)requirement {
    if (requirement == nil) {
        fake::refuse("nil as a code-signing requirement");
    }
    _state.requirement = fake::textOf(requirement);
}

- (void)resume {
    _state.isResumed = true;
    _state.hadRequirementWhenResumed = !_state.requirement.empty();
    _state.hadDelegateWhenResumed = self.delegate != nil;
}

@end

@implementation NSXPCListener (Fake)

+ (NSXPCListener*)fakeListenerNamed:(const std::string&)service {
    const auto found = registry().listeners.find(service);
    return found == registry().listeners.end() ? nil : found->second;
}

- (const fake::ListenerState&)fakeState {
    return _state;
}

@end

@implementation NSXPCConnection {
    pid_t _pid;
    uid_t _uid;
    BOOL _isResumed;
    std::vector<std::string> _steps;
}

@synthesize exportedInterface = _exportedInterface;
@synthesize exportedObject = _exportedObject;
@synthesize invalidationHandler = _invalidationHandler;

- (pid_t)processIdentifier {
    return _pid;
}

- (uid_t)effectiveUserIdentifier {
    return _uid;
}

- (NSXPCInterface*)exportedInterface {
    return _exportedInterface;
}

- (void)setExportedInterface:(NSXPCInterface*)interface {
    _exportedInterface = interface;
    _steps.emplace_back("interface");
}

- (id)exportedObject {
    return _exportedObject;
}

- (void)setExportedObject:(id)object {
    _exportedObject = object;
    _steps.emplace_back("object");
}

- (void (^)(void))invalidationHandler {
    return _invalidationHandler;
}

- (void)setInvalidationHandler:(void (^)(void))handler {
    _invalidationHandler = [handler copy];
    _steps.emplace_back("handler");
}

- (void)resume {
    if (!_isResumed) {
        registry().connections.push_back(self);
    }
    _isResumed = YES;
    _steps.emplace_back("resume");
}

@end

@implementation NSXPCConnection (Fake)

- (instancetype)initFakePeer:(pid_t)pid user:(uid_t)uid {
    self = [super init];
    if (self != nil) {
        _pid = pid;
        _uid = uid;
    }
    return self;
}

- (const std::vector<std::string>&)fakeSteps {
    return _steps;
}

- (BOOL)fakeIsResumed {
    return _isResumed;
}

- (void)fakeInvalidate {
    if (!_isResumed) {
        return;
    }
    _isResumed = NO;
    if (_invalidationHandler != nil) {
        _invalidationHandler();
    }
    _invalidationHandler = nil;
    _exportedObject = nil;
    _exportedInterface = nil;
    NSXPCConnection* connection = self;
    std::erase(registry().connections, connection);
}

@end

namespace fake {

void resetXPC() {
    registry().listeners.clear();
    registry().connections.clear();
}

}  // namespace fake
