#include "HalvoHelper/macOS/HelperConnection.hpp"

#include <limits>
#include <utility>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace {

using Reply = void (^)(BOOL ok);
using StatusReply = void (^)(BOOL holding, NSDate* until, BOOL locked);

// Who is no app of ours may leave out any argument. A date that is missing is none, which no begin
// accepts; a text is empty, which is no bundle path; a reply goes nowhere.
halvo::WallDate wallDateOf(NSDate* date) {
    return halvo::wallDate(date == nil ? std::numeric_limits<double>::quiet_NaN()
                                       : date.timeIntervalSince1970);
}

NSDate* foundationDate(const std::optional<halvo::WallDate>& date) {
    return date ? [NSDate dateWithTimeIntervalSince1970:halvo::secondsSince1970(*date)] : nil;
}

// Replies are called on the main queue, whose thread may keep what is autoreleased for long.
halvo::HalvoHelperXPC::Reply passingOn(Reply reply) {
    Reply copied = [reply copy];
    return [copied](bool ok) {
        @autoreleasepool {
            if (copied != nil) {
                copied(ok ? YES : NO);
            }
        }
    };
}

halvo::HalvoHelperXPC::StatusReply passingOnStatus(StatusReply reply) {
    StatusReply copied = [reply copy];
    return [copied](const halvo::HelperStatus& status) {
        @autoreleasepool {
            if (copied != nil) {
                copied(status.holding ? YES : NO, foundationDate(status.until),
                       status.locked ? YES : NO);
            }
        }
    };
}

}  // namespace

@implementation HelperConnection {
    std::unique_ptr<halvo::HelperConnection> _requests;
}

- (instancetype)initWithRequests:(std::unique_ptr<halvo::HelperConnection>)requests {
    self = [super init];
    if (self != nil) {
        _requests = std::move(requests);
    }
    return self;
}

- (void)beginWithAppPath:(NSString*)appPath
                   until:(NSDate*)until
                 started:(NSDate*)started
                   reply:(Reply)reply {
    _requests->begin(
        halvo::textOf(appPath).value_or(""), wallDateOf(until), wallDateOf(started),
        [answer = passingOn(reply)](const std::expected<bool, halvo::BadArgument>& ok) {
            answer(ok.value_or(false));
        });
}

- (void)heartbeatWithSessionEnding:(BOOL)sessionEnding reply:(Reply)reply {
    _requests->heartbeat(sessionEnding != NO, passingOn(reply));
}

- (void)endWithReply:(Reply)reply {
    _requests->end(passingOn(reply));
}

- (void)statusWithReply:(StatusReply)reply {
    _requests->status(passingOnStatus(reply));
}

@end
