#include <map>
#include <utility>

#include "../FakeXPC.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "../Parts.hpp"

namespace {

// A listener is owned by its creator.
std::map<std::string, NSXPCListener * __weak>& listeners() {
    static auto& all = *new std::map<std::string, NSXPCListener * __weak>;
    return all;
}

// A resumed connection lives until it is invalidated.
std::vector<NSXPCConnection*>& connections() {
    static auto& all = *new std::vector<NSXPCConnection*>;
    return all;
}

}  // namespace

@implementation NSXPCInterface

+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
    NSXPCInterface* interface = [[NSXPCInterface alloc] init];
    interface.protocol = protocol;
    return interface;
}

@end

@implementation NSXPCListener {
  @public
    fake::ListenerState _state;
}

- (instancetype)initWithMachServiceName:(NSString*)name {
    if (name == nil) {
        fake::refuse("nil as the name of a Mach service");
    }
    self = [super init];
    if (self != nil) {
        listeners()[fake::textOf(name)] = self;
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

@implementation NSXPCConnection {
  @public
    pid_t _processIdentifier;
    uid_t _effectiveUserIdentifier;
    BOOL _isResumed;
    std::vector<std::string> _steps;
}

- (void)resume {
    connections().push_back(self);
    _isResumed = YES;
    for (const auto& [step, isTaken] :
         {std::pair("interface", self.exportedInterface != nil),
          std::pair("object", self.exportedObject != nil),
          std::pair("handler", self.invalidationHandler != nil), std::pair("resume", true)}) {
        if (isTaken) {
            _steps.emplace_back(step);
        }
    }
}

@end

namespace fake {

std::optional<ListenerState> listener(const std::string& service) {
    @autoreleasepool {
        NSXPCListener* found = listeners()[service];
        return found == nil ? std::nullopt : std::optional(found->_state);
    }
}

NSXPCConnection* connect(const std::string& service, pid_t pid, uid_t uid) {
    NSXPCConnection* accepted = nil;
    runElsewhere([&] {
        NSXPCListener* found = listeners()[service];
        if (found.delegate == nil || !found->_state.isResumed) {
            return;
        }
        NSXPCConnection* connection = [[NSXPCConnection alloc] init];
        connection->_processIdentifier = pid;
        connection->_effectiveUserIdentifier = uid;
        if ([found.delegate listener:found shouldAcceptNewConnection:connection]) {
            accepted = connection;
        }
    });
    return accepted;
}

std::string exportedProtocol(NSXPCConnection* connection) {
    const void* protocol = (__bridge const void*)connection.exportedInterface.protocol;
    return protocol == nullptr ? "" : static_cast<const objc::Protocol*>(protocol)->name;
}

std::vector<std::string> steps(NSXPCConnection* connection) { return connection->_steps; }

void request(NSXPCConnection* connection, void (^work)(id exported)) {
    runElsewhere([&] {
        id exported = connection.exportedObject;
        if (connection == nil || !connection->_isResumed) {
            objc::fail("a request on a connection that is not resumed");
        }
        if (![exported conformsToProtocol:connection.exportedInterface.protocol]) {
            objc::fail("the exported object does not conform to the exported interface");
        }
        work(exported);
    });
}

void invalidate(NSXPCConnection* connection) {
    runElsewhere([&] {
        if (connection == nil || !connection->_isResumed) {
            return;
        }
        connection->_isResumed = NO;
        if (connection.invalidationHandler != nil) {
            connection.invalidationHandler();
        }
        connection.invalidationHandler = nil;
        connection.exportedObject = nil;
        connection.exportedInterface = nil;
        std::erase(connections(), connection);
    });
}

void resetXPC() {
    listeners().clear();
    connections().clear();
}

}  // namespace fake
