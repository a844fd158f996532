// NSXPC delivers connections and requests on queues of its own: they hop to the main queue here.
#include "HalvoHelper/HelperListener.hpp"

#import <Foundation/Foundation.h>

#include <functional>
#include <limits>
#include <utility>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoHelper/macOS/ProcessList.hpp"
#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"
#include "HalvoPlatform/MainQueue.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace {

using Reply = void (^)(BOOL ok);
using StatusReply = void (^)(BOOL holding, NSDate* until, BOOL locked);

// NSXPC does not enforce nonnull: any argument may be nil. A nil date becomes not-a-number, which
// no begin accepts; a nil text becomes empty, which is no bundle path; a nil reply is not called.
halvo::WallDate wallDateOf(NSDate* date) {
    return halvo::wallDate(date == nil ? std::numeric_limits<double>::quiet_NaN()
                                       : date.timeIntervalSince1970);
}

// Runs `work` on the main queue, in a pool of its own: the thread's may be drained late.
void onMainQueue(std::function<void()> work) {
    halvo::liveMainQueue().async([work = std::move(work)] {
        @autoreleasepool {
            work();
        }
    });
}

// Answers one request with the result of `serve`, on the main queue.
void answer(Reply reply, std::function<bool()> serve) {
    Reply copied = [reply copy];
    onMainQueue([copied, serve = std::move(serve)] {
        const bool ok = serve();
        if (copied != nil) {
            copied(ok ? YES : NO);
        }
    });
}

}  // namespace

// The object that a connection exports. Its methods are called on the connection's own queue; a
// request may outlive it.
@interface HelperConnection : NSObject <HalvoHelperXPC>
@end

@implementation HelperConnection {
  @public
    std::shared_ptr<const halvo::HelperConnection> requests;
}

- (void)beginWithAppPath:(NSString*)appPath
                   until:(NSDate*)until
                 started:(NSDate*)started
                   reply:(Reply)reply {
    answer(reply,
           [served = requests, path = halvo::resolvedPath(halvo::textOf(appPath).value_or("")),
            last = wallDateOf(until), first = wallDateOf(started)] {
               return served->begin(path, last, first).value_or(false);
           });
}

- (void)heartbeatWithSessionEnding:(BOOL)sessionEnding reply:(Reply)reply {
    answer(reply,
           [served = requests, ending = sessionEnding != NO] { return served->heartbeat(ending); });
}

- (void)endWithReply:(Reply)reply {
    answer(reply, [served = requests] { return served->end(); });
}

- (void)statusWithReply:(StatusReply)reply {
    StatusReply copied = [reply copy];
    onMainQueue([served = requests, copied] {
        const halvo::HelperStatus status = served->status();
        NSDate* until = nil;
        if (status.until) {
            until = [NSDate dateWithTimeIntervalSince1970:halvo::secondsSince1970(*status.until)];
        }
        if (copied != nil) {
            copied(status.holding ? YES : NO, until, status.locked ? YES : NO);
        }
    });
}

@end

// The delegate of the listener. The system has refused every caller that does not meet the
// listener's code-signing requirement, so each connection that gets here is admitted. Called on the
// listener's own queue.
@interface ConnectionAcceptor : NSObject <NSXPCListenerDelegate>
@end

@implementation ConnectionAcceptor {
  @public
    halvo::HelperService* service;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    halvo::HelperService* served = service;
    halvo::PathBuffer buffer;
    const auto executable = halvo::executablePath(connection.processIdentifier, buffer);
    HelperConnection* exported = [HelperConnection new];
    exported->requests = std::make_shared<const halvo::HelperConnection>(
        halvo::HelperPeer::ofProcess(
            connection.effectiveUserIdentifier,
            executable ? std::optional<std::string>(*executable) : std::nullopt),
        served->engine());
    connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(HalvoHelperXPC)];
    connection.exportedObject = exported;
    connection.invalidationHandler = ^{
      onMainQueue([served] { served->connectionClosed(); });
    };
    // Before the first request can arrive.
    onMainQueue([served] { served->connectionOpened(); });
    [connection resume];
    return YES;
}

@end

namespace halvo {
namespace {

class XPCListener final : public HelperListener {
  public:
    explicit XPCListener(const HelperIdentity& identity)
        : listener_([[NSXPCListener alloc]
              initWithMachServiceName:knownFoundationText(identity.helperBundleID())]) {
        [listener_
            setConnectionCodeSigningRequirement:knownFoundationText(identity.appRequirement())];
    }

    void serve(HelperService& service) override {
        @autoreleasepool {
            delegate_ = [ConnectionAcceptor new];
            delegate_->service = &service;
            listener_.delegate = delegate_;
            [listener_ resume];
        }
    }

  private:
    NSXPCListener* listener_;
    // The listener does not retain it.
    ConnectionAcceptor* delegate_ = nil;
};

}  // namespace

std::optional<std::string> startAdvice(const std::string&) { return std::nullopt; }

std::unique_ptr<HelperListener> makeListener(const HelperIdentity& identity) {
    @autoreleasepool {
        return std::make_unique<XPCListener>(identity);
    }
}

}  // namespace halvo
