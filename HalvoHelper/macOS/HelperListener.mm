#include "HalvoHelper/HelperListener.hpp"

#import <Foundation/Foundation.h>

#include "HalvoHelper/macOS/ConnectionAcceptor.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

class XPCListener final : public HelperListener {
  public:
    explicit XPCListener(const std::string& name)
        : listener_([[NSXPCListener alloc] initWithMachServiceName:knownFoundationText(name)]) {}

    void setRequirement(const HelperIdentity& identity) override {
        @autoreleasepool {
            [listener_
                setConnectionCodeSigningRequirement:knownFoundationText(identity.appRequirement())];
        }
    }

    void resume(ConnectionAcceptor& acceptor) override {
        @autoreleasepool {
            delegate_ = [[::ConnectionAcceptor alloc] initWithAcceptor:acceptor];
            listener_.delegate = delegate_;
            [listener_ resume];
        }
    }

  private:
    NSXPCListener* listener_;
    // The listener does not keep it.
    ::ConnectionAcceptor* delegate_ = nil;
};

}  // namespace

std::optional<std::string> startAdvice(const std::string&) { return std::nullopt; }

std::expected<std::unique_ptr<HelperListener>, ListenerFailure> makeListener(
    const std::string& name) {
    @autoreleasepool {
        return std::make_unique<XPCListener>(name);
    }
}

}  // namespace halvo
